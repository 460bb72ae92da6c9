#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "DeflatePipeline.h"

#include <opccore/FileSystemOps.h>

struct zip;

namespace opcdir {

// The text libzip gives an error code.
std::string zipErrorText(int code);

struct ZipEntry {
    std::uint64_t index = 0;
    std::string name;        // the bytes the central directory holds
    std::uint64_t size = 0;  // as declared; reading checks the truth
    std::uint64_t compressedSize = 0;
    // Where the entry's local header begins and its compressed data ends in
    // the archive file: entries whose extents meet share data.
    std::uint64_t headerOffset = 0;
    std::uint64_t dataEnd = 0;
};

// A ZIP archive read entry by entry. Every failure is a Failure whose subject
// is the archive as the user named it.
class ZipReader {
public:
    // Reads the central directory. Entry names are taken from its raw bytes,
    // so that a NUL in a name is seen rather than silently replaced.
    ZipReader(std::string subject, const std::string& path);
    ~ZipReader();
    ZipReader(const ZipReader&) = delete;
    ZipReader& operator=(const ZipReader&) = delete;

    // Every entry, folder entries included, in central-directory order.
    const std::vector<ZipEntry>& entries() const { return all; }

    // The size of the central directory, and where it begins: every entry's
    // data lies before it.
    std::uint64_t directorySize() const { return directoryBytes; }
    std::uint64_t directoryOffset() const { return directoryStart; }

    // Checks that local headers agree with the central directory.
    // REQUIRES: no two entries share a name (the check counts them corrupt).
    void checkConsistency();

    // Passes the entry's bytes to sink piece by piece, as they are inflated;
    // the data is never held whole. Fails on bad data or a bad checksum.
    void read(const ZipEntry& entry, const std::function<void(const char*, std::size_t)>& sink);

private:
    std::string subject;
    std::string path;
    struct zip* archive = nullptr;
    std::vector<ZipEntry> all;
    std::uint64_t directoryBytes = 0;
    std::uint64_t directoryStart = 0;
};

// The bytes of one entry to be written, pulled in pieces while the archive is
// written.
class EntrySource {
public:
    virtual ~EntrySource() = default;
    virtual void open() = 0;
    // Up to count bytes; 0 at the end. Throws to abort the archive.
    virtual std::size_t read(char* buffer, std::size_t count) = 0;
    virtual void close() = 0;
};

// A ZIP archive written to a hidden temporary file beside its path (named by
// fileSystem) and renamed into place by commit(), so that the path never holds a half-written
// archive. Entries are deflated, with a fixed timestamp and fixed attributes,
// and ZIP64 records only where sizes or offsets need them: the same entries
// give the same bytes.
class ZipWriter {
public:
    ZipWriter(opc::FileSystemOps& fileSystem, std::string subject, const std::string& path);
    // Removes the temporary file unless commit() succeeded.
    ~ZipWriter();
    ZipWriter(const ZipWriter&) = delete;
    ZipWriter& operator=(const ZipWriter&) = delete;

    // Adds an entry of exactly size bytes; source is pulled during commit()
    // and deflated by libzip at the level of setLevel(), or stored at level 0.
    // REQUIRES: source outlives commit().
    void add(const std::string& name, std::uint64_t size, EntrySource& source);

    // Adds an entry compressed beforehand: produce() is called during
    // commit(), and libzip copies what it returns as it is.
    // REQUIRES: produce() returns an entry deflated exactly when deflated is true.
    void addCompressed(const std::string& name, std::function<CompressedEntry()> produce, bool deflated);

    // The deflate level of entries added by add(): 0 stores, 1 to 9 deflate;
    // libzip's own default (9) until set.
    void setLevel(int deflateLevel) { level = deflateLevel; }

    // Called with the count of bytes read from sources so far.
    void onProgress(std::function<void(std::uint64_t)> callback) { progress = std::move(callback); }

    // Writes the archive and renames it to the path.
    void commit();

private:
    struct Context;
    void describe(const std::string& name, struct zip_source* zipSource, bool deflated, int entryLevel);

    std::string subject;
    std::string path;
    std::string temporaryPath;
    struct zip* archive = nullptr;
    std::vector<std::unique_ptr<Context>> contexts;
    std::function<void(std::uint64_t)> progress;
    std::uint64_t bytesRead = 0;
    std::string firstError;
    bool committed = false;
    int level = -1;  // libzip's default
};

}  // namespace opcdir
