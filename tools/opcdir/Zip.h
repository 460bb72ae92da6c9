#pragma once

#include "CentralDirectory.h"

#include <opccore/FileSystemOps.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "EntryCompression.h"

struct zip;

namespace opcdir {

class ArchiveFile;

// A ZIP archive read entry by entry, through the file-system service. Every
// failure is a Failure whose subject is the archive as the user named it.
class ZipReader {
public:
    // Opens the archive and reads its central directory.
    ZipReader(opc::FileSystemOps& fileSystem, std::string subject, const std::string& path);
    ~ZipReader();
    ZipReader(const ZipReader&) = delete;
    ZipReader& operator=(const ZipReader&) = delete;

    // Every entry, folder entries included, in central-directory order.
    const std::vector<ZipEntry>& entries() const { return directory.entries; }

    // Checks that the local headers agree with the central directory.
    // REQUIRES: no two entries share a name (the check counts them corrupt).
    void checkConsistency();

    // Passes the entry's bytes to sink piece by piece, as they are inflated;
    // the data is never held whole. Fails on bad data or a bad checksum.
    // REQUIRES: checkConsistency() passed.
    void read(const ZipEntry& entry, const std::function<void(const char*, std::size_t)>& sink);

    // Whether inflateEntry() of readRaw()'s bytes may stand for read() of
    // entry: stored or deflated, not encrypted, with the checksum libzip
    // checks.
    bool inflatesAlike(const ZipEntry& entry) const;

    // Reads the entry's data as it lies in the archive, not inflated, into
    // data (room for entry.compressedSize bytes). False when it cannot be
    // read, for read() to say why.
    // REQUIRES: checkConsistency() passed.
    bool readRaw(const ZipEntry& entry, char* data);

private:
    // The archive in libzip, reading through file. Throws Failure.
    struct zip* open(int flags);

    std::string subject;
    std::unique_ptr<ArchiveFile> file;
    CentralDirectory directory;
    struct zip* archive = nullptr;
    std::vector<bool> checksummed;  // by index: libzip checks the directory's CRC
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

// A ZIP archive written through the file-system service to a hidden
// temporary file beside its path and put in its place by commit(), so that
// the path never holds a half-written archive. Entries are deflated, with a fixed timestamp and fixed attributes,
// and ZIP64 records only where sizes or offsets need them: the same entries
// give the same bytes.
class ZipWriter {
public:
    ZipWriter(opc::FileSystemOps& fileSystem, std::string subject, std::u16string path);
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

    // Writes the archive and puts it in place of whatever file is at the
    // path.
    void commit();

private:
    struct Context;
    void describe(const std::string& name, struct zip_source* zipSource, bool deflated, int entryLevel);

    opc::FileSystemOps& service;
    std::string subject;
    std::u16string path;
    std::u16string temporaryPath;
    std::unique_ptr<ArchiveFile> file;
    struct zip* archive = nullptr;
    std::vector<std::unique_ptr<Context>> contexts;
    std::function<void(std::uint64_t)> progress;
    std::uint64_t bytesRead = 0;
    std::string firstError;
    bool committed = false;
    int level = -1;  // libzip's default
};

}  // namespace opcdir
