#include "Zip.h"

#include "ArchiveFile.h"
#include "Errors.h"
#include "PartNames.h"
#include "Session.h"
#include "ZipSource.h"

#include <opccore/Exception.h>
#include <opccore/NameCodec.h>

#include <zip.h>

#include <algorithm>

namespace opcdir {
namespace {

bool isAscii(const std::string& name) {
    return std::all_of(name.begin(), name.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
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
                default: return answerReadOnlySource(error, data, length, command);
            }
        } catch (const std::exception& e) {
            return fail(e.what());
        }
    }

    static zip_int64_t callback(void* state, void* data, zip_uint64_t length, zip_source_cmd_t command) {
        return static_cast<Context*>(state)->call(data, length, command);
    }
};

ZipWriter::ZipWriter(opc::FileSystemOps& fileSystem, std::string subjectName, std::u16string archivePath)
    : service(fileSystem), subject(std::move(subjectName)), path(std::move(archivePath)) {
    try {
        temporaryPath = service.getTempName(service.getParentPath(path));
    } catch (const opc::Exception& e) {
        throw Failure(subject, "cannot create: " + libraryCause(e));
    }
    file = ArchiveFile::createNew(service, temporaryPath);
    zip_error_t error;
    zip_error_init(&error);
    archive = file->openArchive(ZIP_CREATE | ZIP_TRUNCATE, &error);
    const std::string cause = zip_error_strerror(&error);
    zip_error_fini(&error);
    if (archive == nullptr) throw Failure(subject, "cannot create: " + cause);
}

ZipWriter::~ZipWriter() {
    if (archive != nullptr) zip_discard(archive);
    if (!committed && file->created()) {
        boost::system::error_code ignored;  // a hidden file beside the archive is all a failure leaves
        service.removeAll(temporaryPath, ignored);
    }
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
    const zip_flags_t encoding = isAscii(name)                  ? ZIP_FL_ENC_GUESS
                                 : opc::NameCodec::isUtf8(name) ? ZIP_FL_ENC_UTF_8
                                                                : ZIP_FL_ENC_RAW;
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
        const std::string cause = !firstError.empty()               ? firstError
                                  : !file->serviceFailure().empty() ? file->serviceFailure()
                                                                    : zip_strerror(archive);
        throw Failure(subject, cause);
    }
    archive = nullptr;
    try {
        service.replaceFile(temporaryPath, path);
    } catch (const opc::Exception& e) {
        throw Failure(subject, "cannot write: " + libraryCause(e));
    }
    committed = true;
}

}  // namespace opcdir
