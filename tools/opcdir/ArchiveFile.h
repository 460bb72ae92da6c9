#pragma once

#include <opccore/FileSystemOps.h>

#include <zip.h>

#include <cstdint>
#include <istream>
#include <memory>
#include <ostream>
#include <string>

namespace opcdir {

// An archive file reached through the file-system service, as libzip's
// source of bytes: libzip reads and writes the archive only through this, so
// the service sees every access to it.
class ArchiveFile {
public:
    // An existing archive, opened once through fileSystem for all reading.
    // Throws Failure(subject, "cannot open: ...").
    static std::unique_ptr<ArchiveFile> openExisting(opc::FileSystemOps& fileSystem,
                                                     const std::u16string& path,
                                                     const std::string& subject);
    // An archive libzip is to write at path, where nothing is yet.
    static std::unique_ptr<ArchiveFile> createNew(opc::FileSystemOps& fileSystem, const std::u16string& path);

    ArchiveFile(const ArchiveFile&) = delete;
    ArchiveFile& operator=(const ArchiveFile&) = delete;
    ~ArchiveFile();

    // The open archive (openExisting only) and its size.
    std::istream& input() {
        streamPosition = kUnknown;  // the caller moves it
        return *in;
    }
    std::uint64_t size() const { return inSize; }

    // Opens the archive in libzip with flags; the result reads or writes
    // through this object, which must outlive it. Null on failure, error set.
    zip_t* openArchive(int flags, zip_error_t* error);

    // Whether libzip has written a file at the path that is still there.
    bool created() const { return fileCreated; }

    // Why the service failed libzip's last request, in words; empty when it
    // did not.
    const std::string& serviceFailure() const { return failure; }

private:
    ArchiveFile(opc::FileSystemOps& fileSystem, std::u16string path);

    static zip_int64_t callback(void* state, void* data, zip_uint64_t length, zip_source_cmd_t command);
    zip_int64_t call(void* data, zip_uint64_t length, zip_source_cmd_t command);
    zip_int64_t read(void* data, zip_uint64_t length);
    bool readAt(zip_uint64_t position, char* data, zip_uint64_t length);
    zip_int64_t beginWrite();
    zip_int64_t write(const void* data, zip_uint64_t length);
    zip_int64_t seekWrite(void* data, zip_uint64_t length);
    zip_int64_t commitWrite();
    zip_int64_t fail(int zipError, int systemError, std::string why);

    opc::FileSystemOps& service;
    std::u16string filePath;
    std::shared_ptr<std::istream> in;
    std::uint64_t inSize = 0;
    zip_uint64_t readPosition = 0;
    static constexpr zip_uint64_t kUnknown = ~zip_uint64_t{0};
    zip_uint64_t streamPosition = kUnknown;  // where in stands, when known
    // The archive's bytes from windowStart on, as last read: libzip reads an
    // entry's local header, then seeks back to its data, in pieces smaller
    // than an entry of a document, and a stream empties its buffer on every
    // seek.
    static constexpr zip_uint64_t kWindowSize = zip_uint64_t{64} * 1024;
    std::unique_ptr<char[]> window;
    zip_uint64_t windowStart = 0;
    zip_uint64_t windowSize = 0;
    std::shared_ptr<std::ostream> out;
    zip_uint64_t writePosition = 0;
    zip_uint64_t writeEnd = 0;
    bool fileCreated = false;
    zip_error_t error{};
    std::string failure;
};

}  // namespace opcdir
