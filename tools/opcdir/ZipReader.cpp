#include "Zip.h"

#include "ArchiveFile.h"
#include "Errors.h"
#include "PartNames.h"

#include <zip.h>

#include <memory>

namespace opcdir {
namespace {

constexpr std::size_t kPiece = std::size_t{64} * 1024;

}  // namespace

ZipReader::ZipReader(opc::FileSystemOps& fileSystem, std::string subjectName, const std::string& path)
    : subject(std::move(subjectName)), file(ArchiveFile::openExisting(fileSystem, toUtf16(path), subject)) {
    // libzip would replace a NUL in an entry name by a space, which would
    // turn a hostile name into a harmless-looking one: the names come from
    // the central directory's own bytes, as do the offsets of the local
    // headers that tell where each entry's data lies.
    directory = readCentralDirectory(file->input(), file->size(), subject);
    // Owned here until the constructor returns: a refusal below must not
    // leak it, as the destructor does not run then.
    std::unique_ptr<zip_t, void (*)(zip_t*)> opened(open(ZIP_RDONLY), &zip_discard);
    zip_t* const zip = opened.get();
    const zip_int64_t count = zip_get_num_entries(zip, 0);
    if (count < 0 || static_cast<std::uint64_t>(count) != directory.entries.size())
        throw Failure(subject, "corrupt ZIP archive: inconsistent entry count");
    // Sizes as libzip reads them, so that the limits hold for what it inflates.
    for (const ZipEntry& entry : directory.entries) {
        zip_stat_t stat;
        if (zip_stat_index(zip, entry.index, ZIP_FL_ENC_RAW, &stat) != 0)
            throw Failure(subject, "corrupt ZIP archive: " + std::string(zip_strerror(zip)));
        if ((stat.valid & ZIP_STAT_SIZE) == 0 || stat.size != entry.size || (stat.valid & ZIP_STAT_COMP_SIZE) == 0 ||
            stat.comp_size != entry.compressedSize) {
            throw Failure(subject, "corrupt ZIP archive: inconsistent sizes of entry " + quoteName(entry.name));
        }
        checksummed.push_back((stat.valid & ZIP_STAT_CRC) != 0 && stat.crc == entry.crc32);
    }
    archive = opened.release();
}

ZipReader::~ZipReader() {
    if (archive != nullptr) zip_discard(archive);
}

zip_t* ZipReader::open(int flags) {
    zip_error_t error;
    zip_error_init(&error);
    zip_t* opened = file->openArchive(flags, &error);
    const std::string cause = file->serviceFailure().empty() ? zip_error_strerror(&error) : file->serviceFailure();
    zip_error_fini(&error);
    if (opened == nullptr) throw Failure(subject, "corrupt ZIP archive: " + cause);
    return opened;
}

void ZipReader::checkConsistency() { zip_discard(open(ZIP_RDONLY | ZIP_CHECKCONS)); }

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

bool ZipReader::inflatesAlike(const ZipEntry& entry) const {
    // Bit 0: encrypted; bit 6: strongly encrypted.
    const bool plain = (entry.flags & 0x41) == 0;
    const bool stored = entry.method == ZIP_CM_STORE && entry.size == entry.compressedSize;
    return plain && (stored || entry.method == ZIP_CM_DEFLATE) && checksummed[entry.index];
}

bool ZipReader::readRaw(const ZipEntry& entry, char* data) {
    const std::unique_ptr<zip_file_t, int (*)(zip_file_t*)> raw(
        zip_fopen_index(archive, entry.index, ZIP_FL_COMPRESSED), &zip_fclose);
    return raw && zip_fread(raw.get(), data, entry.compressedSize) == static_cast<zip_int64_t>(entry.compressedSize);
}

}  // namespace opcdir
