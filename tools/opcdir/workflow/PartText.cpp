#include "PartText.h"

#include "PartNames.h"
#include "Sha256.h"

#include <algorithm>
#include <cstdint>

namespace opcdir {
namespace {

bool endsWith(std::string_view text, std::string_view tail) {
    return text.size() >= tail.size() && text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

std::string extensionOf(const std::string& partName) {
    const std::size_t slash = partName.rfind('/');
    const std::size_t dot = partName.rfind('.');
    return dot == std::string::npos || dot < slash ? std::string() : foldCase(partName.substr(dot + 1));
}

}  // namespace

PartText::PartText(PackageView& view) : package(view) {
    const std::string contentTypes = "/" + std::string(kContentTypesName);
    const auto& names = view.partNames();
    if (std::find(names.begin(), names.end(), contentTypes) == names.end()) return;
    ContentTypeEntries entries;
    try {
        entries = readContentTypes(view.readAll(contentTypes));
    } catch (const XmlError&) {
        return;
    }
    for (const auto& entry : entries.defaults) types.addDefault(entry.key, entry.type);
    for (const auto& entry : entries.overrides) types.addOverride(entry.key, entry.type);
}

std::string PartText::contentType(const std::string& partName) const { return types.lookup(partName); }

bool PartText::isEntryList(const std::string& partName) {
    return partName == "/" + std::string(kContentTypesName) || endsWith(foldCase(partName), ".rels");
}

bool PartText::isXml(const std::string& partName) const {
    if (isEntryList(partName)) return true;
    const std::string type = foldCase(contentType(partName));
    if (type.empty()) return extensionOf(partName) == "xml";
    return endsWith(type, "+xml") || type == "application/xml" || type == "text/xml";
}

std::string PartText::xmlText(const std::string& partName) const {
    const std::string content = package.readAll(partName);
    return isEntryList(partName) ? canonicalXml(content) : prettyXml(content);
}

std::string PartText::digestLine(const std::string& partName) const {
    Sha256 digest;
    std::uint64_t size = 0;
    package.read(partName, [&](const char* data, std::size_t count) {
        digest.update(data, count);
        size += count;
    });
    return std::to_string(size) + " bytes, SHA-256 " + digest.hex();
}

}  // namespace opcdir
