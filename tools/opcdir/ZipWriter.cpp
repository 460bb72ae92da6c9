#include "Zip.h"

#include "Errors.h"
#include "PartNames.h"
#include "Session.h"

#include <opccore/Exception.h>

#include <zip.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace opcdir {
namespace {

bool isAscii(const std::string& name) {
    return std::all_of(name.begin(), name.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

// Only the byte structure is checked; libzip validates the rest when the
// name is marked UTF-8.
bool isUtf8(const std::string& name) {
    for (std::size_t i = 0; i < name.size();) {
        const auto byte = static_cast<unsigned char>(name[i]);
        const std::size_t length = byte < 0x80           ? 1
                                   : (byte >> 5) == 0x6  ? 2
                                   : (byte >> 4) == 0xe  ? 3
                                   : (byte >> 3) == 0x1e ? 4
                                                         : 0;
        if (length == 0 || i + length > name.size()) return false;
        for (std::size_t k = 1; k < length; ++k) {
            if ((static_cast<unsigned char>(name[i + k]) & 0xc0) != 0x80) return false;
        }
        i += length;
    }
    return true;
}

// 1980-01-01 00:00:00, the first moment a ZIP timestamp can hold.
constexpr zip_uint16_t kDosDate = (0 << 9) | (1 << 5) | 1;
constexpr zip_uint16_t kDosTime = 0;

}  // namespace

struct ZipWriter::Context {
    ZipWriter* writer = nullptr;
    EntrySource* source = nullptr;
    std::string name;
    std::uint64_t size = 0;
    std::uint64_t done = 0;
    bool opened = false;
    zip_error_t error{};

    // Exceptions must not cross libzip's C frames: each becomes the writer's
    // first error and a failed read.
    zip_int64_t fail(const std::string& message) {
        if (writer->firstError.empty()) writer->firstError = message;
        zip_error_set(&error, ZIP_ER_READ, 0);
        return -1;
    }

    zip_int64_t call(void* data, zip_uint64_t length, zip_source_cmd_t command) {
        try {
            switch (command) {
                case ZIP_SOURCE_OPEN:
                    done = 0;
                    source->open();
                    opened = true;
                    return 0;
                case ZIP_SOURCE_READ: {
                    const std::size_t got = source->read(static_cast<char*>(data), static_cast<std::size_t>(length));
                    done += got;
                    writer->bytesRead += got;
                    if (writer->progress) writer->progress(writer->bytesRead);
                    if (done > size || (got == 0 && done != size))
                        return fail("part " + quoteName(name) + " changed while it was packed");
                    return static_cast<zip_int64_t>(got);
                }
                case ZIP_SOURCE_CLOSE:
                    if (opened) source->close();
                    opened = false;
                    return 0;
                case ZIP_SOURCE_STAT: {
                    auto* stat = static_cast<zip_stat_t*>(data);
                    zip_stat_init(stat);
                    stat->valid = ZIP_STAT_SIZE;
                    stat->size = size;
                    return sizeof(zip_stat_t);
                }
                case ZIP_SOURCE_ERROR: return zip_error_to_data(&error, data, length);
                case ZIP_SOURCE_FREE: return 0;
                case ZIP_SOURCE_SUPPORTS:
                    return zip_source_make_command_bitmap(ZIP_SOURCE_OPEN, ZIP_SOURCE_READ, ZIP_SOURCE_CLOSE,
                                                          ZIP_SOURCE_STAT, ZIP_SOURCE_ERROR, ZIP_SOURCE_FREE, -1);
                default: zip_error_set(&error, ZIP_ER_OPNOTSUPP, 0); return -1;
            }
        } catch (const std::exception& e) {
            return fail(e.what());
        }
    }

    static zip_int64_t callback(void* state, void* data, zip_uint64_t length, zip_source_cmd_t command) {
        return static_cast<Context*>(state)->call(data, length, command);
    }
};

ZipWriter::ZipWriter(opc::FileSystemOps& fileSystem, std::string subjectName, const std::string& archivePath)
    : subject(std::move(subjectName)), path(archivePath) {
    try {
        temporaryPath = toUtf8(fileSystem.getTempName(fileSystem.getParentPath(toUtf16(path))));
    } catch (const opc::Exception& e) {
        throw Failure(subject, "cannot create: " + libraryCause(e));
    }
    int error = 0;
    archive = zip_open(temporaryPath.c_str(), ZIP_CREATE | ZIP_EXCL, &error);
    if (archive == nullptr) throw Failure(subject, "cannot create: " + zipErrorText(error));
}

ZipWriter::~ZipWriter() {
    if (archive != nullptr) zip_discard(archive);
    if (!committed) ::unlink(temporaryPath.c_str());
    for (auto& context : contexts) zip_error_fini(&context->error);
}

void ZipWriter::add(const std::string& name, std::uint64_t size, EntrySource& source) {
    auto context = std::make_unique<Context>();
    context->writer = this;
    context->source = &source;
    context->name = name;
    context->size = size;
    zip_error_init(&context->error);
    zip_source_t* zipSource = zip_source_function(archive, &Context::callback, context.get());
    contexts.push_back(std::move(context));
    if (zipSource == nullptr)
        throw Failure(subject, std::string("cannot add ") + quoteName(name) + ": " + zip_strerror(archive));

    describe(name, zipSource, level != 0, std::max(level, 0));
}

void ZipWriter::addCompressed(const std::string& name, std::function<CompressedEntry()> produce, bool deflated) {
    zip_source_t* zipSource = compressedSource(archive, std::move(produce), &firstError);
    if (zipSource == nullptr)
        throw Failure(subject, std::string("cannot add ") + quoteName(name) + ": " + zip_strerror(archive));
    describe(name, zipSource, deflated, 0);
}

// Adds the entry with its method, a fixed timestamp and fixed attributes;
// takes zipSource over.
void ZipWriter::describe(const std::string& name, zip_source_t* zipSource, bool deflated, int entryLevel) {
    const zip_flags_t encoding = isAscii(name) ? ZIP_FL_ENC_GUESS : isUtf8(name) ? ZIP_FL_ENC_UTF_8 : ZIP_FL_ENC_RAW;
    const zip_int64_t index = zip_file_add(archive, name.c_str(), zipSource, encoding);
    if (index < 0) {
        zip_source_free(zipSource);
        throw Failure(subject, std::string("cannot add ") + quoteName(name) + ": " + zip_strerror(archive));
    }
    const auto entry = static_cast<zip_uint64_t>(index);
    if (zip_set_file_compression(archive, entry, deflated ? ZIP_CM_DEFLATE : ZIP_CM_STORE,
                                 static_cast<zip_uint32_t>(entryLevel)) != 0 ||
        zip_file_set_dostime(archive, entry, kDosTime, kDosDate, 0) != 0 ||
        zip_file_set_external_attributes(archive, entry, 0, ZIP_OPSYS_DOS, 0) != 0) {
        throw Failure(subject, std::string("cannot add ") + quoteName(name) + ": " + zip_strerror(archive));
    }
}

void ZipWriter::commit() {
    if (zip_close(archive) != 0) {
        const std::string cause = !firstError.empty() ? firstError : zip_strerror(archive);
        throw Failure(subject, cause);
    }
    archive = nullptr;

    // The data reaches the disk before the name does, so that a crash right
    // after the rename cannot leave an archive of holes.
    const int descriptor = ::open(temporaryPath.c_str(), O_RDONLY | O_CLOEXEC);
    if (descriptor < 0 || ::fsync(descriptor) != 0) {
        const int error = errno;
        if (descriptor >= 0) ::close(descriptor);
        throw Failure(subject, std::string("cannot write: ") + std::strerror(error));
    }
    ::close(descriptor);
    if (::rename(temporaryPath.c_str(), path.c_str()) != 0) {
        throw Failure(subject, std::string("cannot write: ") + std::strerror(errno));
    }
    committed = true;
    // The new name reaches the disk with its folder.
    const std::string folder = path.substr(0, path.rfind('/') + 1);
    const int folderDescriptor = ::open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folderDescriptor < 0 || ::fsync(folderDescriptor) != 0) {
        const int error = errno;
        if (folderDescriptor >= 0) ::close(folderDescriptor);
        throw Failure(subject, std::string("cannot write: ") + std::strerror(error));
    }
    ::close(folderDescriptor);
}

}  // namespace opcdir
