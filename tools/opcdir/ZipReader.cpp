#include "Zip.h"

#include "Errors.h"
#include "PartNames.h"

#include <zip.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>

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

// libzip replaces a NUL in an entry name by a space, which would turn a
// hostile name into a harmless-looking one; the names are therefore read from
// the central directory's own bytes.
std::vector<std::string> centralDirectoryNames(const std::string& subject, const std::string& path) {
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
    std::uint64_t directorySize = little(&tail[end + 12], 4);
    std::uint64_t directoryOffset = little(&tail[end + 16], 4);
    const std::uint64_t endOffset = fileSize - tailSize + end;

    if (count == 0xffff || directorySize == 0xffffffff || directoryOffset == 0xffffffff) {
        std::vector<unsigned char> locator;
        if (endOffset < 20 || !file.readAt(endOffset - 20, 20, locator) || little(&locator[0], 4) != 0x07064b50) {
            throw corrupt("missing ZIP64 end of central directory locator");
        }
        std::vector<unsigned char> record;
        if (!file.readAt(little(&locator[8], 8), 56, record) || little(&record[0], 4) != 0x06064b50) {
            throw corrupt("missing ZIP64 end of central directory");
        }
        count = little(&record[32], 8);
        directorySize = little(&record[40], 8);
        directoryOffset = little(&record[48], 8);
    }
    if (directoryOffset > fileSize || directorySize > fileSize - directoryOffset)
        throw corrupt("central directory out of bounds");

    std::vector<unsigned char> directory;
    if (!file.readAt(directoryOffset, static_cast<std::size_t>(directorySize), directory))
        throw corrupt("central directory unreadable");
    std::vector<std::string> names;
    std::size_t position = 0;
    for (std::uint64_t i = 0; i < count; ++i) {
        if (position + 46 > directory.size() || little(&directory[position], 4) != 0x02014b50) {
            throw corrupt("bad central directory entry");
        }
        const std::size_t nameLength = little(&directory[position + 28], 2);
        const std::size_t extraLength = little(&directory[position + 30], 2);
        const std::size_t commentLength = little(&directory[position + 32], 2);
        if (position + 46 + nameLength > directory.size()) throw corrupt("bad central directory entry");
        names.emplace_back(reinterpret_cast<const char*>(&directory[position + 46]), nameLength);
        position += 46 + nameLength + extraLength + commentLength;
    }
    return names;
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
    const std::vector<std::string> names = centralDirectoryNames(subject, path);
    int error = 0;
    archive = zip_open(path.c_str(), ZIP_RDONLY, &error);
    if (archive == nullptr) throw Failure(subject, "corrupt ZIP archive: " + zipErrorText(error));
    const zip_int64_t count = zip_get_num_entries(archive, 0);
    if (count < 0 || static_cast<std::uint64_t>(count) != names.size()) {
        throw Failure(subject, "corrupt ZIP archive: inconsistent entry count");
    }
    for (zip_int64_t i = 0; i < count; ++i) {
        zip_stat_t stat;
        if (zip_stat_index(archive, static_cast<zip_uint64_t>(i), ZIP_FL_ENC_RAW, &stat) != 0) {
            throw Failure(subject, "corrupt ZIP archive: " + std::string(zip_strerror(archive)));
        }
        ZipEntry entry;
        entry.index = static_cast<std::uint64_t>(i);
        entry.name = names[static_cast<std::size_t>(i)];
        entry.size = (stat.valid & ZIP_STAT_SIZE) != 0 ? stat.size : 0;
        entry.compressedSize = (stat.valid & ZIP_STAT_COMP_SIZE) != 0 ? stat.comp_size : 0;
        all.push_back(std::move(entry));
    }
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
