#include "ArchiveFile.h"

#include "Errors.h"
#include "Session.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace opcdir {

std::unique_ptr<ArchiveFile> ArchiveFile::openExisting(opc::FileSystemOps& fileSystem,
                                                       const std::u16string& path,
                                                       const std::string& subject) {
    std::unique_ptr<ArchiveFile> file(new ArchiveFile(fileSystem, path));
    boost::system::error_code code;
    file->in = fileSystem.createInputStream(path, std::ios_base::in | std::ios_base::binary, code);
    if (!file->in || code) throw Failure(subject, "cannot open: " + (code ? code.message() : "unknown error"));
    file->in->seekg(0, std::ios_base::end);
    const std::streamoff end = file->in->tellg();
    if (end < 0) throw Failure(subject, "cannot open: cannot tell its size");
    file->inSize = static_cast<std::uint64_t>(end);
    return file;
}

std::unique_ptr<ArchiveFile> ArchiveFile::createNew(opc::FileSystemOps& fileSystem, const std::u16string& path) {
    return std::unique_ptr<ArchiveFile>(new ArchiveFile(fileSystem, path));
}

ArchiveFile::ArchiveFile(opc::FileSystemOps& fileSystem, std::u16string path)
    : service(fileSystem), filePath(std::move(path)) {
    zip_error_init(&error);
}

ArchiveFile::~ArchiveFile() { zip_error_fini(&error); }

zip_t* ArchiveFile::openArchive(int flags, zip_error_t* openError) {
    zip_source_t* source = zip_source_function_create(&ArchiveFile::callback, this, openError);
    if (source == nullptr) return nullptr;
    zip_t* archive = zip_open_from_source(source, flags, openError);
    if (archive == nullptr) zip_source_free(source);
    return archive;
}

zip_int64_t ArchiveFile::callback(void* state, void* data, zip_uint64_t length, zip_source_cmd_t command) {
    return static_cast<ArchiveFile*>(state)->call(data, length, command);
}

zip_int64_t ArchiveFile::fail(int zipError, int systemError, std::string why) {
    zip_error_set(&error, zipError, systemError);
    if (failure.empty()) failure = std::move(why);
    return -1;
}

// Exceptions must not cross libzip's C frames; an allocation failure is the
// only one that can reach here.
zip_int64_t ArchiveFile::call(void* data, zip_uint64_t length, zip_source_cmd_t command) try {
    switch (command) {
        case ZIP_SOURCE_OPEN: readPosition = 0; return in ? 0 : fail(ZIP_ER_OPEN, ENOENT, "cannot open: no such file");
        case ZIP_SOURCE_READ: return read(data, length);
        case ZIP_SOURCE_CLOSE: return 0;
        case ZIP_SOURCE_STAT: {
            // A new archive is one that does not exist yet, as libzip sees it.
            if (!in) return fail(ZIP_ER_READ, ENOENT, {});
            auto* stat = static_cast<zip_stat_t*>(data);
            zip_stat_init(stat);
            stat->valid = ZIP_STAT_SIZE;
            stat->size = inSize;
            return sizeof(zip_stat_t);
        }
        case ZIP_SOURCE_SEEK: {
            const zip_int64_t target = zip_source_seek_compute_offset(readPosition, inSize, data, length, &error);
            if (target >= 0) readPosition = static_cast<zip_uint64_t>(target);
            return target < 0 ? -1 : 0;
        }
        case ZIP_SOURCE_TELL: return static_cast<zip_int64_t>(readPosition);
        case ZIP_SOURCE_BEGIN_WRITE: return beginWrite();
        case ZIP_SOURCE_WRITE: return write(data, length);
        case ZIP_SOURCE_SEEK_WRITE: return seekWrite(data, length);
        case ZIP_SOURCE_TELL_WRITE: return static_cast<zip_int64_t>(writePosition);
        case ZIP_SOURCE_COMMIT_WRITE: return commitWrite();
        case ZIP_SOURCE_ROLLBACK_WRITE:
        case ZIP_SOURCE_REMOVE: {
            out.reset();
            boost::system::error_code code;
            service.removeAll(filePath, code);
            fileCreated = code.failed();  // what is left is removed later
            return 0;
        }
        case ZIP_SOURCE_ERROR: return zip_error_to_data(&error, data, length);
        case ZIP_SOURCE_FREE: return 0;
        case ZIP_SOURCE_SUPPORTS: return in ? ZIP_SOURCE_SUPPORTS_SEEKABLE : ZIP_SOURCE_SUPPORTS_WRITABLE;
        default: return fail(ZIP_ER_OPNOTSUPP, 0, {});
    }
} catch (const std::exception& e) {
    return fail(ZIP_ER_MEMORY, 0, e.what());
}

zip_int64_t ArchiveFile::read(void* data, zip_uint64_t length) {
    if (!in) return fail(ZIP_ER_READ, EBADF, "cannot read: not open");
    const zip_uint64_t count = std::min(length, inSize - std::min(readPosition, inSize));
    auto* const target = static_cast<char*>(data);
    for (zip_uint64_t done = 0; done < count;) {
        const zip_uint64_t at = readPosition + done;
        const zip_uint64_t rest = count - done;
        if (at >= windowStart && at - windowStart < windowSize) {
            const zip_uint64_t piece = std::min(rest, windowSize - (at - windowStart));
            std::memcpy(target + done, window.get() + (at - windowStart), piece);
            done += piece;
        } else if (rest >= kWindowSize) {  // large reads go straight to libzip's buffer
            if (!readAt(at, target + done, rest)) return fail(ZIP_ER_READ, EIO, "cannot read: the file ended early");
            done = count;
        } else {
            if (!window) window.reset(new char[kWindowSize]);
            windowStart = at;
            windowSize = std::min(kWindowSize, inSize - at);
            if (!readAt(at, window.get(), windowSize)) {
                windowSize = 0;
                return fail(ZIP_ER_READ, EIO, "cannot read: the file ended early");
            }
        }
    }
    readPosition += count;
    return static_cast<zip_int64_t>(count);
}

bool ArchiveFile::readAt(zip_uint64_t position, char* data, zip_uint64_t length) {
    if (position != streamPosition) {
        in->clear();
        in->seekg(static_cast<std::streamoff>(position));
    }
    in->read(data, static_cast<std::streamsize>(length));
    if (static_cast<zip_uint64_t>(in->gcount()) != length) {
        streamPosition = kUnknown;
        return false;
    }
    streamPosition = position + length;
    return true;
}

zip_int64_t ArchiveFile::beginWrite() {
    boost::system::error_code code;
    out = service.createOutputStream(filePath, std::ios_base::out | std::ios_base::trunc | std::ios_base::binary, code);
    if (!out || code) {
        out.reset();
        return fail(ZIP_ER_OPEN, code.value(), "cannot create: " + (code ? code.message() : "unknown error"));
    }
    fileCreated = true;
    writePosition = writeEnd = 0;
    return 0;
}

zip_int64_t ArchiveFile::write(const void* data, zip_uint64_t length) {
    if (!out->write(static_cast<const char*>(data), static_cast<std::streamsize>(length)))
        return fail(ZIP_ER_WRITE, EIO, "cannot write: write failed");
    writePosition += length;
    writeEnd = std::max(writeEnd, writePosition);
    return static_cast<zip_int64_t>(length);
}

zip_int64_t ArchiveFile::seekWrite(void* data, zip_uint64_t length) {
    const zip_int64_t target = zip_source_seek_compute_offset(writePosition, writeEnd, data, length, &error);
    if (target < 0) return -1;
    if (!out->seekp(static_cast<std::streamoff>(target))) return fail(ZIP_ER_SEEK, EIO, "cannot write: seek failed");
    writePosition = static_cast<zip_uint64_t>(target);
    return 0;
}

zip_int64_t ArchiveFile::commitWrite() {
    const bool written = static_cast<bool>(out->flush());
    out.reset();
    return written ? 0 : fail(ZIP_ER_WRITE, EIO, "cannot write: write failed");
}

}  // namespace opcdir
