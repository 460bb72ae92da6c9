#include "PartCommands.h"

#include "ContentTypes.h"
#include "Errors.h"
#include "NewParentFolders.h"
#include "PartNames.h"
#include "RecoveryCommands.h"
#include "Session.h"

#include <opcfspackage/FileSystemPartInfo.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <set>

namespace opcdir {
namespace {

using opc::interfaces::IPhysicalInputStream;
using opc::interfaces::IPhysicalOutputStream;
using opc::interfaces::OpenMode;

void appendJsonString(std::string& out, std::u16string_view text) {
    out += '"';
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char16_t unit = text[i];
        const bool pair =
            unit >= 0xd800 && unit < 0xdc00 && i + 1 < text.size() && text[i + 1] >= 0xdc00 && text[i + 1] < 0xe000;
        if (unit == u'"' || unit == u'\\') {
            out += '\\';
            out += static_cast<char>(unit);
        } else if (unit < 0x20 || (unit >= 0x7f && unit <= 0x9f) || (unit >= 0xd800 && unit < 0xe000 && !pair)) {
            // Control characters (C1 too: a terminal takes U+009B for an
            // escape), and lone surrogates that stand for bytes that are not
            // UTF-8, so that the output stays valid UTF-8.
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(unit));
            out += escape;
        } else {
            out += toUtf8(text.substr(i, pair ? 2 : 1));
            if (pair) ++i;
        }
    }
    out += '"';
}

struct Row {
    std::string name;
    std::uint64_t size;
    std::string type;  // empty when none is given or none was asked for
};

std::string jsonListing(const std::string& packageName, const std::vector<Row>& rows) {
    std::string out = "{\"package\": ";
    appendJsonString(out, toUtf16(packageName));
    out += ", \"parts\": [";
    for (std::size_t i = 0; i < rows.size(); ++i) {
        out += i == 0 ? "\n  {\"name\": " : ",\n  {\"name\": ";
        appendJsonString(out, toUtf16(rows[i].name));
        out += ", \"size\": " + std::to_string(rows[i].size) + ", \"contentType\": ";
        if (rows[i].type.empty())
            out += "null";
        else
            appendJsonString(out, toUtf16(rows[i].type));
        out += "}";
    }
    return out + "\n]}\n";
}

// Sizes right-aligned, then (withTypes) the content types in a column of
// their own, "-" for none. Names and types come from the package: on a
// terminal (escape) their control characters are escaped.
std::string textListing(std::vector<Row> rows, bool withTypes, bool escape) {
    if (escape) {
        for (Row& row : rows) {
            row.name = escapeControls(row.name);
            row.type = escapeControls(row.type);
        }
    }
    std::size_t sizeWidth = 0;
    std::size_t typeWidth = 1;
    for (const Row& row : rows) {
        sizeWidth = std::max(sizeWidth, std::to_string(row.size).size());
        typeWidth = std::max(typeWidth, row.type.size());
    }
    std::string out;
    for (const Row& row : rows) {
        const std::string size = std::to_string(row.size);
        out += std::string(sizeWidth - size.size(), ' ') + size + "  ";
        if (withTypes) {
            const std::string type = row.type.empty() ? "-" : row.type;
            out += type + std::string(typeWidth - type.size(), ' ') + "  ";
        }
        out += row.name + "\n";
    }
    return out;
}

// Why a new part cannot join the package's parts on disk, or empty.
std::string conflictReason(Session& session, const std::string& partName) {
    NameTree names;
    for (const Listed& entry : listParts(session)) names.add(entry.name);
    const NameTree::Result result = names.check(partName);
    switch (result.clash) {
        case NameTree::Clash::None: return {};
        case NameTree::Clash::Duplicate:
            return "part " + quoteName(partName) + " differs only in case from " + quoteName(result.other);
        case NameTree::Clash::IsFolder:
            return "part " + quoteName(partName) + " would be the folder of part " + quoteName(result.other);
        case NameTree::Clash::InFile:
            return "part " + quoteName(result.other) + " would be the folder of part " + quoteName(partName);
    }
    return {};
}

// A user's file to read, opened as the library opens parts.
std::shared_ptr<std::istream> openInput(opc::FileSystemOps& fileSystem, const std::string& name) {
    boost::system::error_code code;
    std::shared_ptr<std::istream> stream =
        fileSystem.createInputStream(toUtf16(name), std::ios_base::in | std::ios_base::binary, code);
    if (stream && !code) return stream;
    if (code == boost::system::error_code(EISDIR, boost::system::system_category())) throw Failure(name, "is a folder");
    throw Failure(name, code ? code.message() : "cannot open");
}

IPhysicalOutputStream* outputFor(Session& session, const std::string& partName) {
    try {
        if (partName == contentTypesPartName()) return session->getContentTypeOutputStream();
        if (const std::optional<Listed> existing = findPart(session, partName))
            return existing->part->getOutputStream();
        if (const std::string reason = conflictReason(session, partName); !reason.empty())
            throw Failure(session.name(), reason);
        return session->createPart(toUtf16(partName), u"", opc::fspackage::FileSystemPartInfo())->getOutputStream();
    } catch (const opc::Exception& e) {
        throw Failure(session.name(), "cannot write part " + quoteName(partName) + ": " + libraryCause(e));
    }
}

}  // namespace

void listCommand(const Arguments& args, Io& io, opc::FileSystemOps& fileSystem) {
    Session session(fileSystem, args.operands[0], OpenMode::Read);
    const std::vector<Listed> listed = listParts(session);
    const bool json = args.has("--json");
    const bool withTypes = json || args.has("--long");
    ContentTypes types;
    if (withTypes) types = ContentTypes::parse(readWhole(session, listed.front()));

    std::vector<Row> rows;
    rows.reserve(listed.size());
    for (const Listed& entry : listed) {
        rows.push_back({entry.name, session.sizeOf(entry.name),
                        entry.part != nullptr && withTypes ? types.lookup(entry.name) : ""});
    }
    const std::string out =
        json ? jsonListing(args.operands[0], rows) : textListing(rows, args.has("--long"), io.outIsTerminal);
    session.commit();
    io.out << out << std::flush;
}

void catCommand(const Arguments& args, Io& io, opc::FileSystemOps& fileSystem) {
    const std::string partName = partNameArgument(args.operands[0], args.operands[1]);
    Session session(fileSystem, args.operands[0], OpenMode::Read);
    const std::optional<Listed> entry = findPart(session, partName);
    if (!entry) throw Failure(args.operands[0], "no part " + quoteName(partName));
    IPhysicalInputStream* stream = inputOf(session, *entry);
    std::vector<char> buffer(kPiece);
    for (std::streamsize got; (got = stream->read(buffer.data(), static_cast<std::streamsize>(buffer.size()))) > 0;) {
        io.out.write(buffer.data(), got);
        if (!io.out) throw Failure("standard output", "write failed");
    }
    io.out.flush();
    if (!io.out) throw Failure("standard output", "write failed");
    session.commit();
}

void putCommand(const Arguments& args, Io& io, opc::FileSystemOps& fileSystem) {
    const std::string& packageName = args.operands[0];
    const std::string partName = partNameArgument(packageName, args.operands[1]);
    std::shared_ptr<std::istream> file;
    std::istream* input = &io.in;
    std::string inputName = "standard input";
    if (args.operands.size() == 3 && args.operands[2] != "-") {
        inputName = args.operands[2];
        file = openInput(fileSystem, inputName);
        input = file.get();
    }

    recoverPackage(fileSystem, packageName);
    Session session(fileSystem, packageName, OpenMode::ReadWrite);
    IPhysicalOutputStream* stream = outputFor(session, partName);
    std::vector<char> buffer(kPiece);
    while (*input) {
        input->read(buffer.data(), static_cast<std::streamsize>(buffer.size()));
        writeAll(session, partName, stream, buffer.data(), static_cast<std::size_t>(input->gcount()));
    }
    if (input->bad()) throw Failure(inputName, "read failed");
    finishPart(session, partName, stream);
    session.commit();
}

void removeCommand(const Arguments& args, Io&, opc::FileSystemOps& fileSystem) {
    const std::string& packageName = args.operands[0];
    std::vector<std::string> partNames;
    for (std::size_t i = 1; i < args.operands.size(); ++i)
        partNames.push_back(partNameArgument(packageName, args.operands[i]));

    recoverPackage(fileSystem, packageName);
    Session session(fileSystem, packageName, OpenMode::ReadWrite);
    std::set<std::string> present;
    for (const Listed& entry : listParts(session)) present.insert(entry.name);
    for (const std::string& partName : partNames) {
        if (partName == contentTypesPartName())
            throw Failure(packageName, "cannot remove " + quoteName(partName) + ": every package needs it");
        if (present.erase(partName) == 0) throw Failure(packageName, "no part " + quoteName(partName));
        try {
            session->deletePart(toUtf16(partName));
        } catch (const opc::Exception& e) {
            throw Failure(packageName, "cannot remove " + quoteName(partName) + ": " + libraryCause(e));
        }
    }
    session.commit();
}

bool isFreeTarget(opc::FileSystemOps& fileSystem, const std::string& path) {
    try {
        const std::u16string target = toUtf16(path);
        if (!fileSystem.exists(target)) return true;
        if (!fileSystem.isFolder(target)) return false;
        std::vector<std::u16string> files;
        fileSystem.getFiles(target, files, true);
        return files.empty();
    } catch (const opc::Exception& e) {
        throw Failure(path, libraryCause(e));
    }
}

void newCommand(const Arguments& args, Io& io, opc::FileSystemOps& fileSystem) {
    const std::string& packageName = args.operands[0];
    NewParentFolders parents(fileSystem, packageName);
    parents.make(io);
    recoverPackage(fileSystem, packageName);
    if (!isFreeTarget(fileSystem, packageName)) throw Failure(packageName, "already exists and is not an empty folder");
    Session session(fileSystem, packageName, OpenMode::Create);
    const std::string content = minimalContentTypes();
    IPhysicalOutputStream* stream = outputFor(session, contentTypesPartName());
    writeAll(session, contentTypesPartName(), stream, content.data(), content.size());
    finishPart(session, contentTypesPartName(), stream);
    session.commit();
    parents.keep();
}

}  // namespace opcdir
