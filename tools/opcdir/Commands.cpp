#include "Commands.h"

#include "Arguments.h"
#include "ContentTypes.h"
#include "Errors.h"
#include "PartNames.h"
#include "Zip.h"

#include <opccore/Exception.h>
#include <opcfspackage/FileSystemPartInfo.h>
#include <opcfspackage/FileSystemPhysicalPackage.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <optional>

namespace opcdir {
namespace {

using opc::fspackage::FileSystemPhysicalPackage;
using opc::interfaces::IPhysicalInputStream;
using opc::interfaces::IPhysicalOutputStream;
using opc::interfaces::IPhysicalPart;
using opc::interfaces::OpenMode;

constexpr std::size_t kPiece = std::size_t{64} * 1024;
constexpr std::uint64_t kDefaultMaxSize = std::uint64_t{4} << 30;
constexpr std::uint64_t kDefaultMaxRatio = 1000;
constexpr std::uint64_t kProgressThreshold = std::uint64_t{64} << 20;

std::string libraryCause(const opc::Exception& e) {
    std::string cause = e.what();
    const std::string detail = e.code().failed() ? e.code().message() : std::string();
    if (!detail.empty() &&
        (cause.size() < detail.size() || cause.compare(cause.size() - detail.size(), detail.size(), detail) != 0)) {
        cause += " (" + detail + ")";
    }
    return cause;
}

// ---- Packages --------------------------------------------------------------------

// A package opened for one command. Destroying it discards what the command
// changed; commit() keeps it.
class Package {
public:
    Package(opc::FileSystemOps& fileSystem, const std::string& argument, OpenMode mode)
        : service(fileSystem), subject(argument) {
        try {
            package = std::make_unique<FileSystemPhysicalPackage>(toUtf16(argument), fileSystem);
            package->open(mode);
        } catch (const opc::Exception& e) {
            const std::string what = e.what();
            if (what == "Package does not exist") {
                throw Failure(subject,
                              isSomething(package->getPackageRoot()) ? "not a folder" : "no such package folder");
            }
            if (what == "Content types stream does not exist") {
                throw Failure(subject, "not a package: no [Content_Types].xml");
            }
            throw Failure(subject, libraryCause(e));
        }
    }

    FileSystemPhysicalPackage* operator->() { return package.get(); }

    void commit() {
        try {
            package->close(false);
        } catch (const opc::Exception& e) {
            throw Failure(subject, libraryCause(e));
        }
    }

    // The size of the part's file, for listings and ZIP headers; the bytes
    // themselves are only read through the part's stream.
    std::uint64_t sizeOf(const std::string& partName) {
        std::u16string file;
        try {
            file = service.appendPath(package->getPackageRoot(), toUtf16(partName.substr(1)));
        } catch (const opc::Exception& e) {
            throw Failure(subject, "cannot read part " + quoteName(partName) + ": " + libraryCause(e));
        }
        std::error_code error;
        const std::uintmax_t size = std::filesystem::file_size(toUtf8(file), error);
        if (error) throw Failure(subject, "cannot read part " + quoteName(partName) + ": " + error.message());
        return size;
    }

    const std::string& name() const { return subject; }

private:
    // Only asked to word a failure, so a failure to answer is no news.
    bool isSomething(const std::u16string& path) {
        try {
            return service.exists(path);
        } catch (const opc::Exception&) {
            return false;
        }
    }

    opc::FileSystemOps& service;
    std::string subject;
    std::unique_ptr<FileSystemPhysicalPackage> package;
};

struct Listed {
    std::string name;     // UTF-8, with the leading "/"
    IPhysicalPart* part;  // null for the content-types part
};

// "[Content_Types].xml" first, then the parts in byte order of their names:
// the order of listings and of packed archives.
std::vector<Listed> listParts(Package& package) {
    std::vector<Listed> listed;
    for (IPhysicalPart* part : package->getParts()) listed.push_back({toUtf8(part->getName()), part});
    std::sort(listed.begin(), listed.end(), [](const Listed& a, const Listed& b) { return a.name < b.name; });
    listed.insert(listed.begin(), Listed{"/" + std::string(kContentTypesName), nullptr});
    return listed;
}

IPhysicalInputStream* inputOf(Package& package, const Listed& entry) {
    try {
        return entry.part == nullptr ? package->getContentTypeInputStream() : entry.part->getInputStream();
    } catch (const opc::Exception& e) {
        throw Failure(package.name(), "cannot read part " + quoteName(entry.name) + ": " + libraryCause(e));
    }
}

std::optional<Listed> findPart(Package& package, const std::string& partName) {
    for (const Listed& entry : listParts(package)) {
        if (entry.name == partName) return entry;
    }
    return std::nullopt;
}

std::string readWhole(Package& package, const Listed& entry) {
    IPhysicalInputStream* stream = inputOf(package, entry);
    std::string content;
    std::vector<char> buffer(kPiece);
    for (std::streamsize got; (got = stream->read(buffer.data(), static_cast<std::streamsize>(buffer.size()))) > 0;) {
        content.append(buffer.data(), static_cast<std::size_t>(got));
    }
    stream->close();
    return content;
}

void writeAll(
    Package& package, const std::string& partName, IPhysicalOutputStream* stream, const char* data, std::size_t count) {
    if (stream->write(data, static_cast<std::streamsize>(count)) != static_cast<std::streamsize>(count) ||
        stream->isFailed()) {
        throw Failure(package.name(), "cannot write part " + quoteName(partName));
    }
}

// Why a new part cannot join existing ones on disk, or empty: two names that
// differ only in ASCII case are one part name, and a part's file cannot also
// be the folder of another part.
std::string conflictReason(const std::vector<std::string>& existing, const std::string& partName) {
    const std::string folded = foldCase(partName);
    for (const std::string& other : existing) {
        const std::string otherFolded = foldCase(other);
        if (otherFolded == folded)
            return "part " + quoteName(partName) + " differs only in case from " + quoteName(other);
        const auto isFolderOf = [](const std::string& folder, const std::string& name) {
            return name.size() > folder.size() && name.compare(0, folder.size(), folder) == 0 &&
                   name[folder.size()] == '/';
        };
        if (isFolderOf(folded, otherFolded))
            return "part " + quoteName(partName) + " would be the folder of part " + quoteName(other);
        if (isFolderOf(otherFolded, folded))
            return "part " + quoteName(other) + " would be the folder of part " + quoteName(partName);
    }
    return {};
}

// ---- Progress --------------------------------------------------------------------

// "opcdir: pack: 42%" rewritten in place on a terminal, for work large enough
// to be waited for.
class Progress {
public:
    Progress(Io& io, std::string what, std::uint64_t size)
        : err(io.err), label(std::move(what)), total(size), shown(io.errIsTerminal && size >= kProgressThreshold) {}
    ~Progress() {
        if (shown && percent >= 0) err << "\n" << std::flush;
    }

    void update(std::uint64_t done) {
        if (!shown) return;
        const int now = static_cast<int>(std::min<std::uint64_t>(100, done * 100 / total));
        if (now == percent) return;
        percent = now;
        err << "\ropcdir: " << label << ": " << percent << "% of " << (total >> 20) << " MiB" << std::flush;
    }

private:
    std::ostream& err;
    std::string label;
    std::uint64_t total;
    bool shown;
    int percent = -1;
};

// ---- Commands --------------------------------------------------------------------

void appendJsonString(std::string& out, std::u16string_view text) {
    out += '"';
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char16_t unit = text[i];
        const bool pair =
            unit >= 0xd800 && unit < 0xdc00 && i + 1 < text.size() && text[i + 1] >= 0xdc00 && text[i + 1] < 0xe000;
        if (unit == u'"' || unit == u'\\') {
            out += '\\';
            out += static_cast<char>(unit);
        } else if (unit < 0x20 || (unit >= 0xd800 && unit < 0xe000 && !pair)) {
            // Control characters, and lone surrogates that stand for bytes
            // that are not UTF-8, so that the output stays valid UTF-8.
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

void listCommand(const Arguments& args, Io& io, opc::FileSystemOps& fileSystem) {
    Package package(fileSystem, args.operands[0], OpenMode::Read);
    const std::vector<Listed> listed = listParts(package);
    const bool json = args.has("--json");
    const bool withTypes = json || args.has("--long");
    ContentTypes types;
    if (withTypes) types = ContentTypes::parse(readWhole(package, listed.front()));

    struct Row {
        const Listed* entry;
        std::uint64_t size;
        std::string type;
    };
    std::vector<Row> rows;
    rows.reserve(listed.size());
    for (const Listed& entry : listed) {
        rows.push_back(
            {&entry, package.sizeOf(entry.name), entry.part != nullptr && withTypes ? types.lookup(entry.name) : ""});
    }

    std::string out;
    if (json) {
        out += "{\"package\": ";
        appendJsonString(out, toUtf16(args.operands[0]));
        out += ", \"parts\": [";
        for (std::size_t i = 0; i < rows.size(); ++i) {
            out += i == 0 ? "\n  {\"name\": " : ",\n  {\"name\": ";
            appendJsonString(out, toUtf16(rows[i].entry->name));
            out += ", \"size\": " + std::to_string(rows[i].size) + ", \"contentType\": ";
            if (rows[i].type.empty())
                out += "null";
            else
                appendJsonString(out, toUtf16(rows[i].type));
            out += "}";
        }
        out += "\n]}\n";
    } else {
        std::size_t sizeWidth = 0;
        std::size_t typeWidth = 1;
        for (const Row& row : rows) {
            sizeWidth = std::max(sizeWidth, std::to_string(row.size).size());
            typeWidth = std::max(typeWidth, row.type.size());
        }
        for (const Row& row : rows) {
            const std::string size = std::to_string(row.size);
            out += std::string(sizeWidth - size.size(), ' ') + size + "  ";
            if (args.has("--long")) {
                const std::string type = row.type.empty() ? "-" : row.type;
                out += type + std::string(typeWidth - type.size(), ' ') + "  ";
            }
            out += row.entry->name + "\n";
        }
    }
    package.commit();
    io.out << out << std::flush;
}

void catCommand(const Arguments& args, Io& io, opc::FileSystemOps& fileSystem) {
    const std::string partName = partNameArgument(args.operands[0], args.operands[1]);
    Package package(fileSystem, args.operands[0], OpenMode::Read);
    const std::optional<Listed> entry = findPart(package, partName);
    if (!entry) throw Failure(args.operands[0], "no part " + quoteName(partName));
    IPhysicalInputStream* stream = inputOf(package, *entry);
    std::vector<char> buffer(kPiece);
    for (std::streamsize got; (got = stream->read(buffer.data(), static_cast<std::streamsize>(buffer.size()))) > 0;) {
        io.out.write(buffer.data(), got);
        if (!io.out) throw Failure("standard output", "write failed");
    }
    io.out.flush();
    if (!io.out) throw Failure("standard output", "write failed");
    package.commit();
}

void putCommand(const Arguments& args, Io& io, opc::FileSystemOps& fileSystem) {
    const std::string& packageName = args.operands[0];
    const std::string partName = partNameArgument(packageName, args.operands[1]);
    std::ifstream file;
    std::istream* input = &io.in;
    std::string inputName = "standard input";
    if (args.operands.size() == 3 && args.operands[2] != "-") {
        inputName = args.operands[2];
        std::error_code error;
        if (std::filesystem::is_directory(inputName, error)) throw Failure(inputName, "is a folder");
        file.open(inputName, std::ios::binary);
        if (!file) throw Failure(inputName, std::strerror(errno));
        input = &file;
    }

    Package package(fileSystem, packageName, OpenMode::ReadWrite);
    IPhysicalOutputStream* stream = nullptr;
    try {
        if (partName == "/" + std::string(kContentTypesName)) {
            stream = package->getContentTypeOutputStream();
        } else if (const std::optional<Listed> existing = findPart(package, partName)) {
            stream = existing->part->getOutputStream();
        } else {
            std::vector<std::string> names;
            for (const Listed& entry : listParts(package)) names.push_back(entry.name);
            if (const std::string reason = conflictReason(names, partName); !reason.empty())
                throw Failure(packageName, reason);
            stream =
                package->createPart(toUtf16(partName), u"", opc::fspackage::FileSystemPartInfo())->getOutputStream();
        }
    } catch (const opc::Exception& e) {
        throw Failure(packageName, "cannot write part " + quoteName(partName) + ": " + libraryCause(e));
    }

    std::vector<char> buffer(kPiece);
    while (*input) {
        input->read(buffer.data(), static_cast<std::streamsize>(buffer.size()));
        writeAll(package, partName, stream, buffer.data(), static_cast<std::size_t>(input->gcount()));
    }
    if (input->bad()) throw Failure(inputName, "read failed");
    package.commit();
}

void removeCommand(const Arguments& args, Io&, opc::FileSystemOps& fileSystem) {
    const std::string& packageName = args.operands[0];
    std::vector<std::string> partNames;
    for (std::size_t i = 1; i < args.operands.size(); ++i)
        partNames.push_back(partNameArgument(packageName, args.operands[i]));

    Package package(fileSystem, packageName, OpenMode::ReadWrite);
    for (const std::string& partName : partNames) {
        if (partName == "/" + std::string(kContentTypesName)) {
            throw Failure(packageName, "cannot remove " + quoteName(partName) + ": every package needs it");
        }
        try {
            package->deletePart(toUtf16(partName));
        } catch (const opc::Exception& e) {
            if (std::string(e.what()) == "Part does not exist")
                throw Failure(packageName, "no part " + quoteName(partName));
            throw Failure(packageName, "cannot remove " + quoteName(partName) + ": " + libraryCause(e));
        }
    }
    package.commit();
}

// A folder that may become a new package without --force: none at all, or an
// empty one.
bool isFreeTarget(const std::string& path) {
    std::error_code error;
    const auto status = std::filesystem::symlink_status(path, error);
    if (status.type() == std::filesystem::file_type::not_found) return true;
    return status.type() == std::filesystem::file_type::directory && std::filesystem::is_empty(path, error) && !error;
}

void newCommand(const Arguments& args, Io&, opc::FileSystemOps& fileSystem) {
    const std::string& packageName = args.operands[0];
    if (!isFreeTarget(packageName)) throw Failure(packageName, "already exists and is not an empty folder");
    Package package(fileSystem, packageName, OpenMode::Create);
    const std::string content = minimalContentTypes();
    IPhysicalOutputStream* stream = package->getContentTypeOutputStream();
    writeAll(package, "/" + std::string(kContentTypesName), stream, content.data(), content.size());
    package.commit();
}

// Whether size bytes from compressed bytes expand more than ratio times,
// without the overflow of ratio * compressed.
bool expandsPast(std::uint64_t size, std::uint64_t compressed, std::uint64_t ratio) {
    const std::uint64_t divisor = std::max<std::uint64_t>(compressed, 1);
    return size / divisor > ratio || (size / divisor == ratio && size % divisor != 0);
}

// Every entry name of the archive checked before anything is written: unsafe
// names, duplicates, a file that is also a folder, a missing content-types
// entry and declared sizes past the limits. Folder entries are checked and
// then left out of the result.
std::vector<const ZipEntry*> checkEntries(const std::string& archiveName,
                                          const ZipReader& reader,
                                          std::uint64_t maxSize,
                                          std::uint64_t maxRatio) {
    std::vector<const ZipEntry*> files;
    std::map<std::string, std::string> seen;     // folded name -> name
    std::map<std::string, std::string> folders;  // folded folder -> an entry below or naming it
    std::uint64_t declared = 0;
    bool hasContentTypes = false;
    for (const ZipEntry& entry : reader.entries()) {
        const bool isFolder = !entry.name.empty() && entry.name.back() == '/';
        const std::string name = isFolder ? entry.name.substr(0, entry.name.size() - 1) : entry.name;
        if (const std::string reason = unsafeNameReason(name); !reason.empty()) {
            throw Failure(archiveName, "unsafe entry name " + quoteName(entry.name) + ": " + reason);
        }
        const std::string folded = foldCase(name);
        if (isFolder) {
            folders.emplace(folded, entry.name);
        } else {
            const auto [where, added] = seen.emplace(folded, entry.name);
            if (!added) throw Failure(archiveName, "duplicate entry " + quoteName(entry.name));
            files.push_back(&entry);
            hasContentTypes = hasContentTypes || name == kContentTypesName;
            declared += entry.size;
        }
        for (std::size_t slash = folded.find('/'); slash != std::string::npos; slash = folded.find('/', slash + 1)) {
            folders.emplace(folded.substr(0, slash), entry.name);
        }
        if (expandsPast(entry.size, entry.compressedSize, maxRatio)) {
            throw Failure(archiveName, "entry " + quoteName(entry.name) + " expands more than " +
                                           std::to_string(maxRatio) + " times (see --max-ratio)");
        }
    }
    for (const auto& [folded, name] : seen) {
        if (const auto folder = folders.find(folded); folder != folders.end()) {
            throw Failure(archiveName,
                          "entry " + quoteName(name) + " is also a folder of entry " + quoteName(folder->second));
        }
    }
    if (!hasContentTypes) throw Failure(archiveName, "not a package: no " + quoteName(kContentTypesName) + " entry");
    if (declared > maxSize) {
        throw Failure(archiveName, "expands to " + std::to_string(declared) + " bytes, more than the limit of " +
                                       std::to_string(maxSize) + " bytes (see --max-size)");
    }
    return files;
}

void unpackCommand(const Arguments& args, Io& io, opc::FileSystemOps& fileSystem) {
    const std::string& archiveName = args.operands[0];
    const std::string& packageName = args.operands[1];
    const std::uint64_t maxSize = args.values.count("--max-size") != 0
                                      ? parseByteCount("unpack: --max-size", args.values.at("--max-size"))
                                      : kDefaultMaxSize;
    const std::uint64_t maxRatio = args.values.count("--max-ratio") != 0
                                       ? parseByteCount("unpack: --max-ratio", args.values.at("--max-ratio"))
                                       : kDefaultMaxRatio;
    if (maxRatio == 0) throw UsageError("unpack: --max-ratio must be at least 1");

    ZipReader reader(archiveName, archiveName);
    const std::vector<const ZipEntry*> files = checkEntries(archiveName, reader, maxSize, maxRatio);
    reader.checkConsistency();
    if (!args.has("--force") && !isFreeTarget(packageName)) {
        throw Failure(packageName, "already exists and is not an empty folder (use --force to replace it)");
    }

    // Create mode: whatever is at the path is replaced by the commit alone, so
    // a failure on the way leaves it as it was.
    Package package(fileSystem, packageName, OpenMode::Create);
    std::uint64_t declared = 0;
    for (const ZipEntry* entry : files) declared += entry->size;
    Progress progress(io, "unpack", declared);
    std::uint64_t total = 0;
    for (const ZipEntry* entry : files) {
        const std::string partName = "/" + entry->name;
        IPhysicalOutputStream* stream = nullptr;
        try {
            stream = entry->name == kContentTypesName
                         ? package->getContentTypeOutputStream()
                         : package->createPart(toUtf16(partName), u"", opc::fspackage::FileSystemPartInfo())
                               ->getOutputStream();
        } catch (const opc::Exception& e) {
            throw Failure(packageName, "cannot write part " + quoteName(partName) + ": " + libraryCause(e));
        }
        // Declared sizes can lie: the limits hold for the bytes actually
        // inflated, checked before each piece is written.
        std::uint64_t written = 0;
        reader.read(*entry, [&](const char* data, std::size_t count) {
            written += count;
            total += count;
            if (total > maxSize) {
                throw Failure(archiveName, "expands to more than the limit of " + std::to_string(maxSize) +
                                               " bytes (see --max-size)");
            }
            if (expandsPast(written, entry->compressedSize, maxRatio)) {
                throw Failure(archiveName, "entry " + quoteName(entry->name) + " expands more than " +
                                               std::to_string(maxRatio) + " times (see --max-ratio)");
            }
            writeAll(package, partName, stream, data, count);
            progress.update(total);
        });
        // Written data reaches the file before the stream lets go of it, and
        // a part per entry keeps the count of open files at one.
        stream->flush();
        if (stream->isFailed()) throw Failure(packageName, "cannot write part " + quoteName(partName));
        stream->close();
    }
    package.commit();
}

// A part's bytes pulled by the ZIP writer through the part's input stream.
class PartSource : public EntrySource {
public:
    PartSource(Package& owner, Listed part) : package(owner), entry(std::move(part)) {}
    void open() override {
        stream = inputOf(package, entry);
        stream->open();
    }
    std::size_t read(char* buffer, std::size_t count) override {
        return static_cast<std::size_t>(stream->read(buffer, static_cast<std::streamsize>(count)));
    }
    void close() override {
        if (stream != nullptr) stream->close();
    }

private:
    Package& package;
    Listed entry;
    IPhysicalInputStream* stream = nullptr;
};

void packCommand(const Arguments& args, Io& io, opc::FileSystemOps& fileSystem) {
    const std::string& packageName = args.operands[0];
    const std::string& archiveName = args.operands[1];
    Package package(fileSystem, packageName, OpenMode::Read);

    std::string archivePath;
    try {
        archivePath = toUtf8(fileSystem.normalizePath(toUtf16(archiveName)));
    } catch (const opc::Exception& e) {
        throw Failure(archiveName, libraryCause(e));
    }
    const std::string root = toUtf8(package->getPackageRoot());
    if (archivePath == root || archivePath.compare(0, root.size() + 1, root + "/") == 0) {
        throw Failure(archiveName, "lies inside the package " + packageName);
    }
    std::error_code error;
    if (std::filesystem::is_directory(archivePath, error)) throw Failure(archiveName, "is a folder");
    const std::string folder = archivePath.substr(0, archivePath.rfind('/') + 1);
    if (!std::filesystem::is_directory(folder, error)) throw Failure(archiveName, "its folder does not exist");

    const std::vector<Listed> listed = listParts(package);
    std::vector<std::unique_ptr<PartSource>> sources;
    ZipWriter writer(archiveName, archivePath);
    std::uint64_t total = 0;
    for (const Listed& entry : listed) {
        const std::uint64_t size = package.sizeOf(entry.name);
        total += size;
        sources.push_back(std::make_unique<PartSource>(package, entry));
        writer.add(entry.name.substr(1), size, *sources.back());
    }
    Progress progress(io, "pack", total);
    writer.onProgress([&](std::uint64_t done) { progress.update(done); });
    writer.commit();
    package.commit();
}

}  // namespace

int run(const std::vector<std::string>& arguments, Io& io, opc::FileSystemOps& fileSystem) {
    try {
        const Arguments args = parseArguments(arguments);
        if (args.has("--help")) {
            io.out << helpText(args.command);
            return 0;
        }
        if (args.has("--version")) {
            io.out << "opcdir 1.0.0\n";
            return 0;
        }
        using Command = void (*)(const Arguments&, Io&, opc::FileSystemOps&);
        static const std::map<std::string, Command> commands = {
            {"ls", &listCommand}, {"cat", &catCommand},       {"put", &putCommand},   {"rm", &removeCommand},
            {"new", &newCommand}, {"unpack", &unpackCommand}, {"pack", &packCommand},
        };
        commands.at(args.command)(args, io, fileSystem);
        return 0;
    } catch (const UsageError& e) {
        io.err << "opcdir: " << e.what() << "\n";
        return 2;
    } catch (const Failure& e) {
        io.err << "opcdir: " << e.subject() << ": " << e.what() << "\n";
        return 1;
    } catch (const opc::Exception& e) {
        io.err << "opcdir: " << libraryCause(e) << "\n";
        return 1;
    } catch (const std::exception& e) {
        io.err << "opcdir: " << e.what() << "\n";
        return 1;
    }
}

}  // namespace opcdir
