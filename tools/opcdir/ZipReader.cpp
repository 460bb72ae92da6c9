#include "Zip.h"

#include "Errors.h"
#include "PartNames.h"

#include <zip.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <memory>

namespace opcdir {
namespace {

constexpr std::size_t kPiece = std::size_t{64} * 1024;

std::uint64_t little(const unsigned char* bytes, int count) {
    std::uint64_t value = 0;
    for (int i = count - 1; i >= 0; --i) value = (value << 8) | bytes[i];
    return value;
}

class RawFile {
public:
    explicit RawFile(const std::string& path) : stream(path, std::ios::binary) {}
    bool good() const { return static_cast<bool>(stream); }
    std::uint64_t size() {
        stream.seekg(0, std::ios::end);
        return static_cast<std::uint64_t>(stream.tellg());
    }
    bool readAt(std::uint64_t offset, std::size_t count, std::vector<unsigned char>& out) {
        out.resize(count);
        stream.clear();
        stream.seekg(static_cast<std::streamoff>(offset));
        stream.read(reinterpret_cast<char*>(out.data()), static_cast<std::streamsize>(count));
        return static_cast<std::size_t>(stream.gcount()) == count;
    }

private:
    std::ifstream stream;
};

struct CentralDirectory {
    std::vector<ZipEntry> entries;  // name, headerOffset and dataEnd set
    std::uint64_t offset = 0;
    std::uint64_t size = 0;
};

// A field of 0xffff... in a central record stands for the value of the same
// name in its ZIP64 extra field, where the present ones follow in a fixed
// order.
void readZip64Extra(const unsigned char* extra, std::size_t length, std::uint64_t* const fields[], int count) {
    for (std::size_t at = 0; at + 4 <= length;) {
        const std::uint64_t id = little(extra + at, 2);
        const std::size_t size = little(extra + at + 2, 2);
        if (at + 4 + size > length) return;
        if (id == 0x0001) {
            std::size_t field = at + 4;
            for (int i = 0; i < count; ++i) {
                if (*fields[i] != 0xffffffff || field + 8 > at + 4 + size) continue;
                *fields[i] = little(extra + field, 8);
                field += 8;
            }
            return;
        }
        at += 4 + size;
    }
}

// libzip replaces a NUL in an entry name by a space, which would turn a
// hostile name into a harmless-looking one; the names are therefore read from
// the central directory's own bytes, as are the offsets of the local headers
// that tell where each entry's data lies.
CentralDirectory readCentralDirectory(const std::string& subject, const std::string& path) {
    RawFile file(path);
    if (!file.good()) throw Failure(subject, std::string("cannot open: ") + std::strerror(errno));
    const std::uint64_t fileSize = file.size();
    const auto notZip = [&]() {
        return Failure(subject, "not a ZIP archive, or truncated (no end of central directory)");
    };
    const auto corrupt = [&](const std::string& what) { return Failure(subject, "corrupt ZIP archive: " + what); };

    constexpr std::uint64_t kEndSize = 22;
    if (fileSize < kEndSize) throw notZip();
    const std::uint64_t tailSize = std::min<std::uint64_t>(fileSize, kEndSize + 0xffff);
    std::vector<unsigned char> tail;
    if (!file.readAt(fileSize - tailSize, static_cast<std::size_t>(tailSize), tail)) throw notZip();
    std::size_t end = tail.size() - kEndSize + 1;
    bool found = false;
    while (end-- > 0) {
        if (little(&tail[end], 4) == 0x06054b50 && end + kEndSize + little(&tail[end + 20], 2) <= tail.size()) {
            found = true;
            break;
        }
    }
    if (!found) throw notZip();
    std::uint64_t count = little(&tail[end + 10], 2);
    CentralDirectory result;
    result.size = little(&tail[end + 12], 4);
    result.offset = little(&tail[end + 16], 4);
    const std::uint64_t endOffset = fileSize - tailSize + end;

    if (count == 0xffff || result.size == 0xffffffff || result.offset == 0xffffffff) {
        std::vector<unsigned char> locator;
        if (endOffset < 20 || !file.readAt(endOffset - 20, 20, locator) || little(&locator[0], 4) != 0x07064b50) {
            throw corrupt("missing ZIP64 end of central directory locator");
        }
        std::vector<unsigned char> record;
        if (!file.readAt(little(&locator[8], 8), 56, record) || little(&record[0], 4) != 0x06064b50) {
            throw corrupt("missing ZIP64 end of central directory");
        }
        count = little(&record[32], 8);
        result.size = little(&record[40], 8);
        result.offset = little(&record[48], 8);
    }
    if (result.offset > fileSize || result.size > fileSize - result.offset)
        throw corrupt("central directory out of bounds");
    // Each record takes 46 bytes at least: a count the directory cannot hold
    // is refused before anything is reserved for it.
    if (count > result.size / 46) throw corrupt("bad central directory entry");

    std::vector<unsigned char> directory;
    if (!file.readAt(result.offset, static_cast<std::size_t>(result.size), directory))
        throw corrupt("central directory unreadable");
    result.entries.reserve(static_cast<std::size_t>(count));
    std::size_t position = 0;
    std::vector<unsigned char> header;
    for (std::uint64_t i = 0; i < count; ++i) {
        if (position + 46 > directory.size() || little(&directory[position], 4) != 0x02014b50) {
            throw corrupt("bad central directory entry");
        }
        const unsigned char* record = &directory[position];
        const std::size_t nameLength = little(record + 28, 2);
        const std::size_t extraLength = little(record + 30, 2);
        const std::size_t commentLength = little(record + 32, 2);
        if (position + 46 + nameLength + extraLength > directory.size()) throw corrupt("bad central directory entry");
        ZipEntry& entry = result.entries.emplace_back();
        entry.index = i;
        entry.name.assign(reinterpret_cast<const char*>(record + 46), nameLength);
        entry.size = little(record + 24, 4);
        entry.compressedSize = little(record + 20, 4);
        entry.headerOffset = little(record + 42, 4);
        std::uint64_t* const zip64Fields[] = {&entry.size, &entry.compressedSize, &entry.headerOffset};
        readZip64Extra(record + 46 + nameLength, extraLength, zip64Fields, 3);

        // The data follows the local header, whose name and extra field may
        // differ in length from the central record's.
        if (entry.headerOffset > result.offset || result.offset - entry.headerOffset < 30 ||
            !file.readAt(entry.headerOffset, 30, header) || little(&header[0], 4) != 0x04034b50) {
            throw corrupt("entry " + quoteName(entry.name) + " has no local header");
        }
        const std::uint64_t dataStart = entry.headerOffset + 30 + little(&header[26], 2) + little(&header[28], 2);
        if (dataStart > result.offset || entry.compressedSize > result.offset - dataStart)
            throw corrupt("entry " + quoteName(entry.name) + " runs into the central directory");
        entry.dataEnd = dataStart + entry.compressedSize;
        position += 46 + nameLength + extraLength + commentLength;
    }
    return result;
}

}  // namespace

std::string zipErrorText(int code) {
    zip_error_t error;
    zip_error_init_with_code(&error, code);
    std::string text = zip_error_strerror(&error);
    zip_error_fini(&error);
    return text;
}

ZipReader::ZipReader(std::string subjectName, const std::string& archivePath)
    : subject(std::move(subjectName)), path(archivePath) {
    CentralDirectory directory = readCentralDirectory(subject, path);
    directoryBytes = directory.size;
    directoryStart = directory.offset;
    int error = 0;
    // Owned here until the constructor returns: a refusal below must not
    // leak it, as the destructor does not run then.
    std::unique_ptr<zip_t, void (*)(zip_t*)> opened(zip_open(path.c_str(), ZIP_RDONLY, &error), &zip_discard);
    if (opened == nullptr) throw Failure(subject, "corrupt ZIP archive: " + zipErrorText(error));
    zip_t* const zip = opened.get();
    const zip_int64_t count = zip_get_num_entries(zip, 0);
    if (count < 0 || static_cast<std::uint64_t>(count) != directory.entries.size()) {
        throw Failure(subject, "corrupt ZIP archive: inconsistent entry count");
    }
    // Sizes as libzip reads them, so that the limits hold for what it inflates.
    for (ZipEntry& entry : directory.entries) {
        zip_stat_t stat;
        if (zip_stat_index(zip, entry.index, ZIP_FL_ENC_RAW, &stat) != 0) {
            throw Failure(subject, "corrupt ZIP archive: " + std::string(zip_strerror(zip)));
        }
        if ((stat.valid & ZIP_STAT_SIZE) == 0 || stat.size != entry.size || (stat.valid & ZIP_STAT_COMP_SIZE) == 0 ||
            stat.comp_size != entry.compressedSize) {
            throw Failure(subject, "corrupt ZIP archive: inconsistent sizes of entry " + quoteName(entry.name));
        }
    }
    all = std::move(directory.entries);
    archive = opened.release();
}

ZipReader::~ZipReader() {
    if (archive != nullptr) zip_discard(archive);
}

void ZipReader::checkConsistency() {
    int error = 0;
    zip_t* checked = zip_open(path.c_str(), ZIP_RDONLY | ZIP_CHECKCONS, &error);
    if (checked == nullptr) throw Failure(subject, "corrupt ZIP archive: " + zipErrorText(error));
    zip_discard(checked);
}

void ZipReader::read(const ZipEntry& entry, const std::function<void(const char*, std::size_t)>& sink) {
    const auto corrupt = [&](const std::string& what) {
        return Failure(subject, "corrupt entry " + quoteName(entry.name) + ": " + what);
    };
    std::unique_ptr<zip_file_t, int (*)(zip_file_t*)> file(zip_fopen_index(archive, entry.index, 0), &zip_fclose);
    if (!file) throw corrupt(zip_strerror(archive));
    std::vector<char> buffer(kPiece);
    for (;;) {
        const zip_int64_t got = zip_fread(file.get(), buffer.data(), buffer.size());
        if (got < 0) throw corrupt(zip_file_strerror(file.get()));
        if (got == 0) return;
        sink(buffer.data(), static_cast<std::size_t>(got));
    }
}

}  // namespace opcdir
