#include "Zip.h"

#include "ArchiveFile.h"
#include "Errors.h"
#include "PartNames.h"

#include <zip.h>

namespace opcdir {
namespace {

constexpr std::size_t kPiece = std::size_t{64} * 1024;

}  // namespace

ZipReader::ZipReader(opc::FileSystemOps& fileSystem, std::string subjectName, const std::string& path)
    : subject(std::move(subjectName)), file(ArchiveFile::openExisting(fileSystem, toUtf16(path), subject)) {
    // libzip would replace a NUL in an entry name by a space, which would
    // turn a hostile name into a harmless-looking one: the names come from
    // the central directory's own bytes.
    directory = readCentralDirectory(file->input(), file->size(), subject);
}

ZipReader::~ZipReader() {
    if (archive != nullptr) zip_discard(archive);
}

void ZipReader::checkConsistency() {
    if (archive != nullptr) return;
    zip_error_t error;
    zip_error_init(&error);
    archive = file->openArchive(ZIP_RDONLY | ZIP_CHECKCONS, &error);
    const std::string cause = file->serviceFailure().empty() ? zip_error_strerror(&error) : file->serviceFailure();
    zip_error_fini(&error);
    if (archive == nullptr) throw Failure(subject, "corrupt ZIP archive: " + cause);
    const zip_int64_t count = zip_get_num_entries(archive, 0);
    if (count < 0 || static_cast<std::uint64_t>(count) != directory.entries.size())
        throw Failure(subject, "corrupt ZIP archive: inconsistent entry count");
}

void ZipReader::read(const ZipEntry& entry, const std::function<void(const char*, std::size_t)>& sink) {
    const auto corrupt = [&](const std::string& what) {
        return Failure(subject, "corrupt entry " + quoteName(entry.name) + ": " + what);
    };
    std::unique_ptr<zip_file_t, int (*)(zip_file_t*)> data(zip_fopen_index(archive, entry.index, 0), &zip_fclose);
    if (!data) throw corrupt(zip_strerror(archive));
    std::vector<char> buffer(kPiece);
    for (;;) {
        const zip_int64_t got = zip_fread(data.get(), buffer.data(), buffer.size());
        if (got < 0) throw corrupt(zip_file_strerror(data.get()));
        if (got == 0) return;
        sink(buffer.data(), static_cast<std::size_t>(got));
    }
}

}  // namespace opcdir
