#include "CentralDirectory.h"

#include "Errors.h"
#include "PartNames.h"

#include <algorithm>

namespace opcdir {
namespace {

// The records' layouts: each field's offset from the record's signature.
namespace endRecord {
constexpr std::uint32_t kSignature = 0x06054b50;
constexpr std::size_t kEntries = 10;
constexpr std::size_t kDirectorySize = 12;
constexpr std::size_t kDirectoryOffset = 16;
constexpr std::size_t kCommentLength = 20;
constexpr std::size_t kLength = 22;
constexpr std::uint64_t kMaxCommentLength = 0xffff;
}  // namespace endRecord

namespace zip64Locator {
constexpr std::uint32_t kSignature = 0x07064b50;
constexpr std::size_t kEndRecordOffset = 8;
constexpr std::size_t kLength = 20;
}  // namespace zip64Locator

namespace zip64EndRecord {
constexpr std::uint32_t kSignature = 0x06064b50;
constexpr std::size_t kEntries = 32;
constexpr std::size_t kDirectorySize = 40;
constexpr std::size_t kDirectoryOffset = 48;
constexpr std::size_t kLength = 56;
}  // namespace zip64EndRecord

namespace fileHeader {
constexpr std::uint32_t kSignature = 0x02014b50;
constexpr std::size_t kFlags = 8;
constexpr std::size_t kMethod = 10;
constexpr std::size_t kCrc32 = 16;
constexpr std::size_t kCompressedSize = 20;
constexpr std::size_t kSize = 24;
constexpr std::size_t kNameLength = 28;
constexpr std::size_t kExtraLength = 30;
constexpr std::size_t kCommentLength = 32;
constexpr std::size_t kLocalHeaderOffset = 42;
constexpr std::size_t kLength = 46;  // the name follows
}  // namespace fileHeader

namespace localHeader {
constexpr std::uint32_t kSignature = 0x04034b50;
constexpr std::size_t kNameLength = 26;
constexpr std::size_t kExtraLength = 28;
constexpr std::size_t kLength = 30;  // the name follows
}  // namespace localHeader

constexpr std::uint16_t kZip64ExtraId = 0x0001;
constexpr std::uint32_t kMarker32 = 0xffffffff;  // "the value is in the ZIP64 record"
constexpr std::uint16_t kMarker16 = 0xffff;

// Little-endian fields of a record held in memory.
class Record {
public:
    Record(const std::vector<unsigned char>& bytes, std::size_t start) : data(bytes), base(start) {}
    bool fits(std::size_t length) const { return base + length <= data.size(); }
    std::uint64_t field(std::size_t offset, int width) const {
        std::uint64_t value = 0;
        for (int i = width - 1; i >= 0; --i) value = (value << 8) | data[base + offset + static_cast<std::size_t>(i)];
        return value;
    }
    std::uint16_t u16(std::size_t offset) const { return static_cast<std::uint16_t>(field(offset, 2)); }
    std::uint32_t u32(std::size_t offset) const { return static_cast<std::uint32_t>(field(offset, 4)); }
    std::uint64_t u64(std::size_t offset) const { return field(offset, 8); }
    std::string text(std::size_t offset, std::size_t length) const {
        return {reinterpret_cast<const char*>(data.data() + base + offset), length};
    }

private:
    const std::vector<unsigned char>& data;
    std::size_t base;
};

class Archive {
public:
    Archive(std::istream& stream, std::uint64_t length, const std::string& subjectName)
        : file(stream), fileSize(length), subject(subjectName) {}

    std::vector<unsigned char> read(std::uint64_t offset, std::uint64_t count, const std::string& what) {
        if (offset > fileSize || count > fileSize - offset) throw corrupt(what);
        std::vector<unsigned char> bytes(static_cast<std::size_t>(count));
        file.clear();
        file.seekg(static_cast<std::streamoff>(offset));
        file.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(count));
        if (static_cast<std::uint64_t>(file.gcount()) != count) throw corrupt(what);
        return bytes;
    }
    Failure corrupt(const std::string& what) const { return Failure(subject, "corrupt ZIP archive: " + what); }
    Failure notZip() const { return Failure(subject, "not a ZIP archive, or truncated (no end of central directory)"); }

    std::istream& file;
    const std::uint64_t fileSize;
    const std::string& subject;
};

// The last end record whose comment ends within the file.
std::uint64_t findEndRecord(Archive& archive) {
    if (archive.fileSize < endRecord::kLength) throw archive.notZip();
    const std::uint64_t tailSize = std::min(archive.fileSize, endRecord::kLength + endRecord::kMaxCommentLength);
    const std::uint64_t tailStart = archive.fileSize - tailSize;
    const std::vector<unsigned char> tail = archive.read(tailStart, tailSize, "unreadable end of central directory");
    for (std::size_t at = tail.size() - endRecord::kLength + 1; at-- > 0;) {
        const Record record(tail, at);
        if (record.u32(0) == endRecord::kSignature &&
            at + endRecord::kLength + record.u16(endRecord::kCommentLength) <= tail.size())
            return tailStart + at;
    }
    throw archive.notZip();
}

// The ZIP64 values that replace the entry's marked ones, in their fixed order.
void applyZip64Extra(const Record& extra, std::size_t length, ZipEntry& entry, bool& fail) {
    std::size_t offset = 0;
    for (std::uint64_t* value : {&entry.size, &entry.compressedSize, &entry.headerOffset}) {
        if (*value != kMarker32) continue;
        if (offset + 8 > length) {
            fail = true;
            return;
        }
        *value = extra.u64(offset);
        offset += 8;
    }
}

void readExtraFields(
    const std::vector<unsigned char>& bytes, std::size_t start, std::size_t length, ZipEntry& entry, Archive& archive) {
    for (std::size_t at = 0; at + 4 <= length;) {
        const Record header(bytes, start + at);
        const std::size_t size = header.u16(2);
        if (at + 4 + size > length) break;
        if (header.u16(0) == kZip64ExtraId) {
            bool fail = false;
            applyZip64Extra(Record(bytes, start + at + 4), size, entry, fail);
            if (fail) throw archive.corrupt("bad ZIP64 extra field");
            return;
        }
        at += 4 + size;
    }
}

// Sets where the entry's data ends. The data follows the local header, whose
// name and extra field may differ in length from the central record's, and
// all of it lies before the central directory.
void locateData(Archive& archive, std::uint64_t directoryOffset, ZipEntry& entry) {
    const std::string noHeader = "entry " + quoteName(entry.name) + " has no local header";
    if (entry.headerOffset > directoryOffset || directoryOffset - entry.headerOffset < localHeader::kLength)
        throw archive.corrupt(noHeader);
    const std::vector<unsigned char> bytes = archive.read(entry.headerOffset, localHeader::kLength, noHeader);
    const Record header(bytes, 0);
    if (header.u32(0) != localHeader::kSignature) throw archive.corrupt(noHeader);
    const std::uint64_t dataStart = entry.headerOffset + localHeader::kLength + header.u16(localHeader::kNameLength) +
                                    header.u16(localHeader::kExtraLength);
    if (dataStart > directoryOffset || entry.compressedSize > directoryOffset - dataStart)
        throw archive.corrupt("entry " + quoteName(entry.name) + " runs into the central directory");
    entry.dataEnd = dataStart + entry.compressedSize;
}

}  // namespace

CentralDirectory readCentralDirectory(std::istream& file, std::uint64_t fileSize, const std::string& subject) {
    Archive archive(file, fileSize, subject);
    const std::uint64_t endOffset = findEndRecord(archive);
    const std::vector<unsigned char> endBytes = archive.read(endOffset, endRecord::kLength, "unreadable end record");
    const Record end(endBytes, 0);
    std::uint64_t count = end.u16(endRecord::kEntries);
    CentralDirectory directory;
    directory.size = end.u32(endRecord::kDirectorySize);
    directory.offset = end.u32(endRecord::kDirectoryOffset);

    if (count == kMarker16 || directory.size == kMarker32 || directory.offset == kMarker32) {
        if (endOffset < zip64Locator::kLength) throw archive.corrupt("missing ZIP64 end of central directory locator");
        const std::vector<unsigned char> locatorBytes = archive.read(
            endOffset - zip64Locator::kLength, zip64Locator::kLength, "missing ZIP64 end of central directory locator");
        const Record locator(locatorBytes, 0);
        if (locator.u32(0) != zip64Locator::kSignature)
            throw archive.corrupt("missing ZIP64 end of central directory locator");
        const std::vector<unsigned char> recordBytes =
            archive.read(locator.u64(zip64Locator::kEndRecordOffset), zip64EndRecord::kLength,
                         "missing ZIP64 end of central directory");
        const Record record(recordBytes, 0);
        if (record.u32(0) != zip64EndRecord::kSignature)
            throw archive.corrupt("missing ZIP64 end of central directory");
        count = record.u64(zip64EndRecord::kEntries);
        directory.size = record.u64(zip64EndRecord::kDirectorySize);
        directory.offset = record.u64(zip64EndRecord::kDirectoryOffset);
    }
    if (directory.offset > fileSize || directory.size > fileSize - directory.offset)
        throw archive.corrupt("central directory out of bounds");

    // A count the directory cannot hold is refused before anything is
    // reserved for it.
    if (count > directory.size / fileHeader::kLength) throw archive.corrupt("bad central directory entry");

    const std::vector<unsigned char> bytes =
        archive.read(directory.offset, directory.size, "central directory unreadable");
    directory.entries.reserve(static_cast<std::size_t>(count));
    std::size_t position = 0;
    for (std::uint64_t i = 0; i < count; ++i) {
        const Record header(bytes, position);
        if (!header.fits(fileHeader::kLength) || header.u32(0) != fileHeader::kSignature)
            throw archive.corrupt("bad central directory entry");
        const std::size_t nameLength = header.u16(fileHeader::kNameLength);
        const std::size_t extraLength = header.u16(fileHeader::kExtraLength);
        const std::size_t total =
            fileHeader::kLength + nameLength + extraLength + header.u16(fileHeader::kCommentLength);
        if (!header.fits(total)) throw archive.corrupt("bad central directory entry");
        ZipEntry& entry = directory.entries.emplace_back();
        entry.index = i;
        entry.name = header.text(fileHeader::kLength, nameLength);
        entry.flags = header.u16(fileHeader::kFlags);
        entry.method = header.u16(fileHeader::kMethod);
        entry.crc32 = header.u32(fileHeader::kCrc32);
        entry.compressedSize = header.u32(fileHeader::kCompressedSize);
        entry.size = header.u32(fileHeader::kSize);
        entry.headerOffset = header.u32(fileHeader::kLocalHeaderOffset);
        readExtraFields(bytes, position + fileHeader::kLength + nameLength, extraLength, entry, archive);
        locateData(archive, directory.offset, entry);
        position += total;
    }
    return directory;
}

}  // namespace opcdir
