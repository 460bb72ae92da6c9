#include "WorkflowCommands.h"

#include "Errors.h"
#include "LineDiff.h"
#include "PackageView.h"
#include "PartNameGrammar.h"
#include "PartNames.h"
#include "PartText.h"

#include <opccore/Exception.h>

#include <algorithm>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <utility>
#include <vector>

namespace opcdir {
namespace {

const std::string kContentTypesPart = "/" + std::string(kContentTypesName);

// A name for a line of output: control bytes escaped, no quotes.
std::string shown(const std::string& name) {
    const std::string quoted = quoteName(name);
    return quoted.substr(1, quoted.size() - 2);
}

std::string digestOf(PartText& text, const std::string& name) { return text.digestLine(name); }

// Whether the part differs, and the texts of both sides when they were read
// as XML to decide it.
struct Comparison {
    bool changed = false;
    std::optional<std::pair<std::string, std::string>> texts;
};

Comparison compare(PartText& from, PartText& to, const std::string& name) {
    if (PartText::isEntryList(name)) {
        try {
            auto texts = std::make_pair(from.xmlText(name), to.xmlText(name));
            return {texts.first != texts.second, std::move(texts)};
        } catch (const XmlError&) {
            // Either side not XML: the bytes decide.
        }
    }
    return {digestOf(from, name) != digestOf(to, name), std::nullopt};
}

std::string textOrError(PartText& text, const std::string& name) {
    try {
        return text.xmlText(name);
    } catch (const XmlError& e) {
        return std::string("(") + e.what() + ")\n";
    }
}

// ---- check -----------------------------------------------------------------------

using Problems = std::vector<std::pair<std::string, std::string>>;

bool isRelationshipPart(const std::string& name) {
    const std::string folded = foldCase(name);
    const std::size_t slash = folded.rfind('/');
    return folded.size() > 5 && folded.compare(folded.size() - 5, 5, ".rels") == 0 && slash >= 6 &&
           folded.compare(slash - 6, 7, "/_rels/") == 0;
}

// The part name an internal relationship's target reaches from the folder of
// its source part, or empty for a target that names no part of the package
// (one with a scheme, or only a fragment).
std::string resolveTarget(const std::string& sourceFolder, std::string target) {
    target = target.substr(0, target.find_first_of("#?"));
    const std::size_t colon = target.find(':');
    if (target.empty() || (colon != std::string::npos && colon < target.find('/'))) return {};
    const std::string joined = target.front() == '/' ? target : sourceFolder + target;
    std::vector<std::string> segments;
    std::size_t start = 1;
    for (;;) {
        const std::size_t end = joined.find('/', start);
        const std::string segment = joined.substr(start, end == std::string::npos ? end : end - start);
        if (segment == "..") {
            if (!segments.empty()) segments.pop_back();
        } else if (segment != ".") {
            segments.push_back(segment);
        }
        if (end == std::string::npos) break;
        start = end + 1;
    }
    std::string resolved;
    for (const std::string& segment : segments) resolved += "/" + segment;
    return resolved;
}

void checkRelationships(PackageView& view,
                        const std::string& name,
                        const std::set<std::string>& keys,
                        Problems& problems) {
    std::vector<Relationship> relationships;
    try {
        relationships = readRelationships(view.readAll(name));
    } catch (const XmlError& e) {
        problems.emplace_back(name, e.what());
        return;
    }
    const std::string sourceFolder = name.substr(0, foldCase(name).rfind("/_rels/") + 1);
    for (const Relationship& relationship : relationships) {
        if (relationship.external) continue;
        const std::string target = resolveTarget(sourceFolder, relationship.target);
        if (!target.empty() && keys.count(equivalenceKey(target)) == 0) {
            problems.emplace_back(name, "relationship " + shown(relationship.id) + " targets " + shown(target) +
                                            ", which does not exist");
        }
    }
}

Problems findProblems(PackageView& view) {
    Problems problems;
    const std::vector<std::string>& names = view.partNames();
    const bool hasContentTypes = std::find(names.begin(), names.end(), kContentTypesPart) != names.end();
    ContentTypeEntries entries;
    bool typesRead = false;
    if (!hasContentTypes) {
        problems.emplace_back(kContentTypesPart, "missing: every package needs it");
    } else {
        try {
            entries = readContentTypes(view.readAll(kContentTypesPart));
            typesRead = true;
        } catch (const XmlError& e) {
            problems.emplace_back(kContentTypesPart, e.what());
        }
    }
    const PartText text(view);
    std::map<std::string, std::string> firstByKey;
    std::set<std::string> keys;
    for (const std::string& name : names) {
        if (name == kContentTypesPart) continue;
        const std::string key = equivalenceKey(name);
        keys.insert(key);
        if (const std::string problem = partNameGrammarProblem(name); !problem.empty())
            problems.emplace_back(name, "invalid part name: " + problem);
        if (const auto [first, fresh] = firstByKey.emplace(key, name); !fresh) {
            problems.emplace_back(name, first->second == name
                                            ? "appears more than once"
                                            : "same name as " + shown(first->second) + " when case is ignored");
        }
        if (typesRead && text.contentType(name).empty())
            problems.emplace_back(name, "no content type (no Override and no Default for its extension)");
    }
    for (const auto& entry : entries.overrides) {
        if (keys.count(equivalenceKey(entry.key)) == 0)
            problems.emplace_back(entry.key,
                                  "Override in " + std::string(kContentTypesName) + " for a part that does not exist");
    }
    for (const std::string& name : names) {
        if (isRelationshipPart(name)) checkRelationships(view, name, keys, problems);
    }
    for (const StrayEntry& stray : view.strays())
        problems.emplace_back(stray.name, stray.kind + " among the parts, not a part: a commit drops it");
    std::sort(problems.begin(), problems.end());
    return problems;
}

}  // namespace

int diffCommand(const Arguments& args, Io& io, opc::FileSystemOps& fileSystem) {
    const std::unique_ptr<PackageView> fromView = PackageView::open(fileSystem, args.operands[0]);
    const std::unique_ptr<PackageView> toView = PackageView::open(fileSystem, args.operands[1]);
    PartText fromText(*fromView);
    PartText toText(*toView);
    const std::set<std::string> fromNames(fromView->partNames().begin(), fromView->partNames().end());
    const std::set<std::string> toNames(toView->partNames().begin(), toView->partNames().end());
    std::set<std::string> names = fromNames;
    names.insert(toNames.begin(), toNames.end());

    // Written whole at the end: a failure part way shows its one line alone.
    std::ostringstream report;
    bool differ = false;
    for (const std::string& name : names) {
        if (toNames.count(name) == 0 || fromNames.count(name) == 0) {
            report << (toNames.count(name) == 0 ? "removed " : "added ") << shown(name) << "\n";
            differ = true;
            continue;
        }
        Comparison comparison = compare(fromText, toText, name);
        if (!comparison.changed) continue;
        differ = true;
        report << "changed " << shown(name) << "\n";
        if (!args.has("--text") || !(fromText.isXml(name) || toText.isXml(name))) continue;
        if (!comparison.texts)
            comparison.texts = std::make_pair(textOrError(fromText, name), textOrError(toText, name));
        report << unifiedDiff(comparison.texts->first, comparison.texts->second, "a" + shown(name), "b" + shown(name));
    }
    io.out << report.str() << std::flush;
    return differ ? 1 : 0;
}

int checkCommand(const Arguments& args, Io& io, opc::FileSystemOps& fileSystem) {
    const std::unique_ptr<PackageView> view = PackageView::open(fileSystem, args.operands[0]);
    const Problems problems = findProblems(*view);
    for (const auto& [name, problem] : problems) io.out << shown(name) << ": " << problem << "\n";
    io.out.flush();
    return problems.empty() ? 0 : 1;
}

void textconvCommand(const Arguments& args, Io& io, opc::FileSystemOps& fileSystem) {
    const std::unique_ptr<PackageView> view = PackageView::open(fileSystem, args.operands[0]);
    PartText text(*view);
    std::ostringstream report;  // written whole at the end, as diff's
    for (const std::string& name : view->partNames()) {
        const std::string type = text.contentType(name);
        report << "== " << shown(name) << (type.empty() ? "" : " (" + shown(type) + ")");
        if (!text.isXml(name)) {
            report << ": " << text.digestLine(name) << "\n";
            continue;
        }
        try {
            const std::string xml = text.xmlText(name);
            report << "\n" << xml;
        } catch (const XmlError& e) {
            report << ": " << e.what() << "; " << text.digestLine(name) << "\n";
        }
    }
    io.out << report.str() << std::flush;
}

}  // namespace opcdir
