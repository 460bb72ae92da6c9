#include "ArchiveCommands.h"

#include "ArchivePolicy.h"
#include "Errors.h"
#include "NewParentFolders.h"
#include "OrderedPipeline.h"
#include "PartCommands.h"
#include "PartNames.h"
#include "RecoveryCommands.h"
#include "Session.h"
#include "Zip.h"

#include <opcfspackage/FileSystemPartInfo.h>

#include <zip.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

namespace opcdir {
namespace {

using opc::interfaces::IPhysicalInputStream;
using opc::interfaces::IPhysicalOutputStream;
using opc::interfaces::OpenMode;

constexpr std::uint64_t kProgressThreshold = std::uint64_t{64} << 20;

// "opcdir: pack: 42%" rewritten in place on a terminal, for work large enough
// to be waited for.
class Progress {
public:
    Progress(Io& io, std::string what, std::uint64_t size)
        : err(io.err), label(std::move(what)), total(size), shown(io.errIsTerminal && size >= kProgressThreshold) {}
    ~Progress() {
        if (shown && percent >= 0) err << "\n" << std::flush;
    }
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

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

Limits limitsOf(const Arguments& args) {
    Limits limits;
    if (const auto found = args.values.find("--max-size"); found != args.values.end())
        limits.maxSize = parseByteCount("unpack: --max-size", found->second);
    if (const auto found = args.values.find("--max-ratio"); found != args.values.end())
        limits.maxRatio = parseByteCount("unpack: --max-ratio", found->second);
    if (limits.maxRatio == 0) throw UsageError("unpack: --max-ratio must be at least 1");
    return limits;
}

IPhysicalOutputStream* createPartFor(Session& session, const ZipEntry& entry) {
    try {
        if (entry.name == kContentTypesName) return session->getContentTypeOutputStream();
        return session->createPart(toUtf16("/" + entry.name), u"", opc::fspackage::FileSystemPartInfo())
            ->getOutputStream();
    } catch (const opc::Exception& e) {
        throw Failure(session.name(), "cannot write part " + quoteName("/" + entry.name) + ": " + libraryCause(e));
    }
}

// A part's bytes pulled by the ZIP writer through the part's input stream.
class PartSource : public EntrySource {
public:
    PartSource(Session& owner, Listed part) : session(owner), entry(std::move(part)) {}
    void open() override {
        stream = inputOf(session, entry);
        stream->open();
    }
    std::size_t read(char* buffer, std::size_t count) override {
        return static_cast<std::size_t>(stream->read(buffer, static_cast<std::streamsize>(count)));
    }
    void close() override {
        if (stream != nullptr) stream->close();
    }

private:
    Session& session;
    Listed entry;
    IPhysicalInputStream* stream = nullptr;
};

// The archive's path, refused when packing would write into the package or
// onto a folder.
std::u16string archivePathFor(Session& session, const std::string& archiveName) {
    opc::FileSystemOps& fileSystem = session.fileSystem();
    try {
        std::u16string archivePath = fileSystem.normalizePath(toUtf16(archiveName));
        const std::u16string root = session->getPackageRoot();
        if (archivePath == root || archivePath.compare(0, root.size() + 1, root + u"/") == 0)
            throw Failure(archiveName, "lies inside the package " + session.name());
        // The archive replaces a regular file only: not a link (whose target
        // would stay and the link go), nor a device or FIFO.
        try {
            fileSystem.fileSize(archivePath);
        } catch (const opc::Exception& e) {
            const int code = e.code().value();
            if (code == EISDIR) throw Failure(archiveName, "is a folder");
            if (code == ELOOP || code == ENXIO) {
                throw Failure(archiveName, std::string("is ") + (code == ELOOP ? "a symbolic link" : "a special file") +
                                               ", not a regular file");
            }
            if (code != ENOENT) throw Failure(archiveName, "cannot write: " + e.code().message());
        }
        if (!fileSystem.isFolder(fileSystem.getParentPath(archivePath)))
            throw Failure(archiveName, "its folder does not exist");
        return archivePath;
    } catch (const opc::Exception& e) {
        throw Failure(archiveName, libraryCause(e));
    }
}

// Entries up to this size are read whole and deflated on worker threads;
// larger ones are streamed through libzip, so that no part is held whole.
constexpr std::uint64_t kWholeEntryLimit = std::uint64_t{64} << 20;
// Deflated entries kept in memory between compressing and writing; past it,
// entries are compressed again when written.
constexpr std::uint64_t kKeptBytes = std::uint64_t{256} << 20;
// What the workers may hold ahead of the writer.
constexpr std::uint64_t kPipelineBytes = std::uint64_t{128} << 20;
// Unpack's workers inflate entries up to kInflatedEntryLimit and write each
// to its part; larger ones are streamed in pieces. Entries in flight, from
// their loading until the consumer takes them, hold at most kUnpackBytes
// (compressed and inflated). Buffers are kept for reuse: on a virtual
// machine, the first touch of fresh memory (a page fault each 4 KiB) can
// cost more than inflating into it.
constexpr std::uint64_t kInflatedEntryLimit = std::uint64_t{8} << 20;
constexpr std::uint64_t kUnpackBytes = std::uint64_t{32} << 20;

std::uint64_t defaultJobs() { return std::max(1u, std::thread::hardware_concurrency()); }

std::uint64_t countOption(const Arguments& args,
                          const std::string& command,
                          const std::string& option,
                          std::uint64_t fallback,
                          std::uint64_t least,
                          std::uint64_t most) {
    const auto found = args.values.find(option);
    if (found == args.values.end()) return fallback;
    const std::string& text = found->second;
    if (text.empty() || text.size() > 3 || text.find_first_not_of("0123456789") != std::string::npos ||
        std::stoul(text) < least || std::stoul(text) > most) {
        throw UsageError(command + ": " + option + " must be a number from " + std::to_string(least) + " to " +
                         std::to_string(most) + ", not '" + text + "'");
    }
    return std::stoul(text);
}

// The whole part, read from its start even when it was read before.
std::string readPart(Session& session, const Listed& entry) {
    try {
        inputOf(session, entry)->open();
    } catch (const opc::Exception& e) {
        throw Failure(session.name(), "cannot read part " + quoteName(entry.name) + ": " + libraryCause(e));
    }
    return readWhole(session, entry);
}

// One entry decided before the archive is written: its method, checksum and,
// while they fit in kKeptBytes, its deflated bytes.
struct Prepared {
    bool whole = false;  // false: streamed through libzip
    CompressedEntry entry;
};

std::vector<Prepared> prepareEntries(Session& session,
                                     const std::vector<Listed>& listed,
                                     const std::vector<std::uint64_t>& sizes,
                                     int level,
                                     unsigned jobs,
                                     Progress& progress) {
    std::vector<Prepared> prepared(listed.size());
    std::vector<std::size_t> whole;
    std::vector<std::uint64_t> wholeSizes;
    for (std::size_t i = 0; i < listed.size(); ++i) {
        if (sizes[i] > kWholeEntryLimit) continue;
        prepared[i].whole = true;
        whole.push_back(i);
        wholeSizes.push_back(sizes[i]);
    }
    OrderedPipeline<std::string, CompressedEntry> pipeline(
        wholeSizes, [&](std::size_t k) { return readPart(session, listed[whole[k]]); },
        [level](std::string bytes, std::size_t) { return compressEntry(std::move(bytes), level); }, jobs,
        kPipelineBytes);
    std::uint64_t kept = 0;
    std::uint64_t done = 0;
    for (std::size_t k = 0; k < whole.size(); ++k) {
        CompressedEntry entry = pipeline.take(k);
        if (entry.size != wholeSizes[k])
            throw Failure(session.name(), "part " + quoteName(listed[whole[k]].name) + " changed while it was packed");
        // Stored entries are read again when written: they cost no memory.
        if (entry.deflated && kept + entry.data.size() <= kKeptBytes) {
            kept += entry.data.size();
        } else {
            entry.data = std::string();
        }
        prepared[whole[k]].entry = std::move(entry);
        progress.update(done += wholeSizes[k]);
    }
    return prepared;
}

// Memory handed between the workers and the writer, kept for reuse: on a
// virtual machine, the first touch of fresh memory can cost more than
// inflating into it.
class Buffers {
public:
    struct Buffer {
        std::unique_ptr<char[]> bytes;
        std::size_t capacity = 0;
    };

    // Keeps up to keep bytes of buffers given back.
    explicit Buffers(std::uint64_t keep) : limit(keep) {}

    // A buffer of at least size bytes, their content unspecified: the
    // smallest kept one that is large enough, else a new one.
    Buffer take(std::size_t size) {
        {
            const std::lock_guard<std::mutex> lock(mutex);
            auto best = spare.end();
            for (auto it = spare.begin(); it != spare.end(); ++it) {
                if (it->capacity >= size && (best == spare.end() || it->capacity < best->capacity)) best = it;
            }
            if (best != spare.end()) {
                Buffer found = std::move(*best);
                *best = std::move(spare.back());
                spare.pop_back();
                kept -= found.capacity;
                return found;
            }
        }
        // Rounded up, so that a buffer fits entries of about its size.
        const std::size_t capacity = (std::max<std::size_t>(size, 1) + kGrain - 1) / kGrain * kGrain;
        return Buffer{std::unique_ptr<char[]>(new char[capacity]), capacity};
    }

    void give(Buffer buffer) {
        const std::lock_guard<std::mutex> lock(mutex);
        if (kept + buffer.capacity > limit) return;
        kept += buffer.capacity;
        spare.push_back(std::move(buffer));
    }

private:
    static constexpr std::size_t kGrain = std::size_t{64} * 1024;
    const std::uint64_t limit;
    std::mutex mutex;
    std::vector<Buffer> spare;
    std::uint64_t kept = 0;
};

// An entry on its way from the archive to its part, created already.
struct Loaded {
    IPhysicalOutputStream* stream;
    Buffers::Buffer raw;  // the entry's data as it lies in the archive
    bool read = false;
};

// Inflates the entry, checks it and writes it to its part, which it closes.
// False, with nothing written, when the entry does not inflate to exactly
// what it declares.
bool writeInflated(Session& session, Buffers& buffers, const ZipEntry& entry, Loaded& loaded) {
    const bool deflated = entry.method == ZIP_CM_DEFLATE;
    Buffers::Buffer inflated;
    if (loaded.read && deflated) inflated = buffers.take(entry.size + 1);
    const bool good = loaded.read && inflateEntry(loaded.raw.bytes.get(), entry.compressedSize, deflated, entry.size,
                                                  entry.crc32, inflated.bytes.get());
    if (good) {
        const char* bytes = deflated ? inflated.bytes.get() : loaded.raw.bytes.get();
        const std::string partName = "/" + entry.name;
        // In pieces: one write of a whole 2 MiB entry cost three times the
        // system time of the same bytes in 64 KiB writes.
        for (std::uint64_t at = 0; at < entry.size; at += kPiece) {
            writeAll(session, partName, loaded.stream, bytes + at,
                     static_cast<std::size_t>(std::min<std::uint64_t>(kPiece, entry.size - at)));
        }
        finishPart(session, partName, loaded.stream);
    }
    buffers.give(std::move(loaded.raw));
    if (inflated.bytes) buffers.give(std::move(inflated));
    return good;
}

}  // namespace

void unpackCommand(const Arguments& args, Io& io, opc::FileSystemOps& fileSystem) {
    const std::string& archiveName = args.operands[0];
    const std::string& packageName = args.operands[1];
    const Limits limits = limitsOf(args);
    const auto jobs = static_cast<unsigned>(countOption(args, "unpack", "--jobs", defaultJobs(), 1, 256));

    ZipReader reader(fileSystem, archiveName, archiveName);
    const std::vector<const ZipEntry*> files = checkEntries(archiveName, reader, limits);
    reader.checkConsistency();
    NewParentFolders parents(fileSystem, packageName);
    parents.make(io);
    recoverPackage(fileSystem, packageName);
    if (!args.has("--force") && !isFreeTarget(fileSystem, packageName))
        throw Failure(packageName, "already exists and is not an empty folder (use --force to replace it)");

    // Create mode: whatever is at the path is replaced by the commit alone, so
    // a failure on the way leaves it as it was.
    Session session(fileSystem, packageName, OpenMode::Create);
    checkPathLengths(archiveName, files,
                     std::max(toUtf8(session->getPackageRoot()).size(), toUtf8(session->getTempPackageRoot()).size()));
    std::uint64_t declared = 0;
    for (const ZipEntry* entry : files) declared += entry->size;
    Progress progress(io, "unpack", declared);

    // Entries go to worker threads, which inflate each and write it to its
    // part, so that copying bytes into files, much of the work, is spread
    // over the cores. The package and the archive's libzip handle admit one
    // thread at a time: the pipeline's loader, which creates each part and
    // reads its raw data in entry order, or this thread while no entry loads.
    // An entry that does not inflate to exactly what it declares, and every
    // larger one, is streamed through libzip here, which says what is wrong
    // as it always did; failures are reported in entry order.
    std::vector<std::size_t> whole;
    std::vector<std::uint64_t> costs;
    for (std::size_t i = 0; i < files.size(); ++i) {
        const ZipEntry& entry = *files[i];
        if (entry.size > kInflatedEntryLimit || entry.compressedSize > kInflatedEntryLimit ||
            !reader.inflatesAlike(entry))
            continue;
        whole.push_back(i);
        const std::uint64_t inflated = entry.method == ZIP_CM_DEFLATE ? entry.size : 0;
        costs.push_back(entry.compressedSize + inflated);
    }
    Buffers buffers(kUnpackBytes);
    struct Unpacked {
        IPhysicalOutputStream* stream;
        bool written;  // false: to be streamed through libzip
    };
    OrderedPipeline<Loaded, Unpacked> pipeline(
        costs,
        [&](std::size_t k) {
            const ZipEntry& entry = *files[whole[k]];
            Loaded loaded{createPartFor(session, entry), buffers.take(entry.compressedSize)};
            loaded.read = reader.readRaw(entry, loaded.raw.bytes.get());
            return loaded;
        },
        [&](Loaded loaded, std::size_t k) {
            return Unpacked{loaded.stream, writeInflated(session, buffers, *files[whole[k]], loaded)};
        },
        jobs, kUnpackBytes);
    std::uint64_t total = 0;
    std::size_t next = 0;
    for (std::size_t i = 0; i < files.size(); ++i) {
        const ZipEntry& entry = *files[i];
        std::optional<Unpacked> unpacked;
        if (next < whole.size() && whole[next] == i) unpacked = pipeline.take(next++);
        if (!unpacked || !unpacked->written) {
            const std::string partName = "/" + entry.name;
            std::uint64_t written = 0;
            pipeline.whileNotLoading([&] {
                IPhysicalOutputStream* stream = unpacked ? unpacked->stream : createPartFor(session, entry);
                reader.read(entry, [&](const char* data, std::size_t count) {
                    written += count;
                    checkInflated(archiveName, entry, written);
                    writeAll(session, partName, stream, data, count);
                    progress.update(total + written);
                });
                checkComplete(archiveName, entry, written);
                finishPart(session, partName, stream);
            });
        }
        total += entry.size;
        progress.update(total);
    }
    session.commit();
    parents.keep();
}

void packCommand(const Arguments& args, Io& io, opc::FileSystemOps& fileSystem) {
    const std::string& packageName = args.operands[0];
    const std::string& archiveName = args.operands[1];
    const int level = static_cast<int>(countOption(args, "pack", "--level", 6, 0, 9));
    const auto jobs = static_cast<unsigned>(countOption(args, "pack", "--jobs", defaultJobs(), 1, 256));
    Session session(fileSystem, packageName, OpenMode::Read);
    const std::u16string archivePath = archivePathFor(session, archiveName);

    const std::vector<Listed> listed = listParts(session);
    // What unpack would refuse is not written: a name it cannot take, or two
    // names that are one file where case does not count.
    NameTree names;
    for (const Listed& entry : listed) {
        const std::string reason = unsafeNameReason(entry.name.substr(1));
        if (!reason.empty()) throw Failure(packageName, "cannot pack part " + quoteName(entry.name) + ": " + reason);
        const NameTree::Result clash = names.add(entry.name);
        if (clash.clash != NameTree::Clash::None) {
            throw Failure(packageName, "cannot pack part " + quoteName(entry.name) + ": differs only in case from " +
                                           quoteName(clash.other));
        }
    }
    std::vector<std::uint64_t> sizes;
    std::uint64_t total = 0;
    for (const Listed& entry : listed) {
        sizes.push_back(session.sizeOf(entry.name));
        total += sizes.back();
    }
    Progress progress(io, "pack", total);
    std::vector<Prepared> prepared = prepareEntries(session, listed, sizes, level, jobs, progress);

    std::vector<std::unique_ptr<PartSource>> sources;
    ZipWriter writer(fileSystem, archiveName, archivePath);
    writer.setLevel(level);
    for (std::size_t i = 0; i < listed.size(); ++i) {
        const std::string name = listed[i].name.substr(1);
        if (!prepared[i].whole) {
            sources.push_back(std::make_unique<PartSource>(session, listed[i]));
            writer.add(name, sizes[i], *sources.back());
            continue;
        }
        writer.addCompressed(
            name,
            [&, i] {
                CompressedEntry entry = std::move(prepared[i].entry);
                if (!entry.data.empty() || entry.size == 0) return entry;
                // Not kept in memory: read again, and deflated again to the
                // same bytes when it was deflated.
                CompressedEntry again = compressEntry(readPart(session, listed[i]), entry.deflated ? level : 0);
                if (again.size != entry.size || again.crc != entry.crc || again.deflated != entry.deflated)
                    throw Failure(archiveName, "part " + quoteName(listed[i].name) + " changed while it was packed");
                return again;
            },
            prepared[i].entry.deflated);
    }
    writer.commit();
    session.commit();
}

}  // namespace opcdir
