#include "CentralDirectory.h"
#include "Errors.h"
#include "OpcdirHarness.h"

#include <gtest/gtest.h>

#include <sstream>

namespace opc::test {
namespace {

using opcdir::ZipEntry;

std::string le64(std::uint64_t value) { return littleEndian(value & 0xffffffffu, 4) + littleEndian(value >> 32, 4); }

// One deflated entry "big.bin" of compressedSize bytes after its local
// header, whose sizes and offset only its ZIP64 extra field holds (extraSize
// bytes of it), and, with zip64End, the end record's values only the ZIP64 end
// record.
std::string archiveWithZip64(bool zip64End, std::uint16_t extraSize = 24, std::uint64_t compressedSize = 3) {
    const std::string name = "big.bin";
    const std::string local = "PK\3\4" + std::string(22, '\0') + littleEndian(7, 2) + littleEndian(0, 2) + name + "abc";
    const auto start = static_cast<std::uint32_t>(local.size());
    const std::string extra = littleEndian(1, 2) + littleEndian(extraSize, 2) +
                              (le64(5'000'000'000) + le64(compressedSize) + le64(0)).substr(0, extraSize);
    const std::string directory = "PK\1\2" + littleEndian(45, 2) + littleEndian(45, 2) + littleEndian(8, 2) +
                                  littleEndian(8, 2) + littleEndian(0, 4) + littleEndian(0x12345678, 4) +
                                  littleEndian(0xffffffff, 4) + littleEndian(0xffffffff, 4) +
                                  littleEndian(static_cast<std::uint32_t>(name.size()), 2) +
                                  littleEndian(static_cast<std::uint32_t>(extra.size()), 2) + std::string(10, '\0') +
                                  littleEndian(0xffffffff, 4) + name + extra;
    const auto size = static_cast<std::uint32_t>(directory.size());
    if (!zip64End)
        return local + directory + "PK\5\6" + littleEndian(0, 4) + littleEndian(0x10001, 4) + littleEndian(size, 4) +
               littleEndian(start, 4) + littleEndian(0, 2);
    const std::string record = "PK\6\6" + le64(44) + littleEndian(45, 2) + littleEndian(45, 2) + std::string(8, '\0') +
                               le64(1) + le64(1) + le64(size) + le64(start);
    const std::string locator = "PK\6\7" + littleEndian(0, 4) + le64(start + size) + littleEndian(1, 4);
    return local + directory + record + locator + "PK\5\6" + littleEndian(0, 4) + littleEndian(0xffffffff, 4) +
           littleEndian(0xffffffff, 4) + littleEndian(0xffffffff, 4) + littleEndian(0, 2);
}

opcdir::CentralDirectory read(const std::string& bytes) {
    std::istringstream file(bytes);
    return opcdir::readCentralDirectory(file, bytes.size(), "a.zip");
}

TEST(CentralDirectory, Zip64ValuesReplaceTheMarkedOnesInEntriesAndTheEndRecord) {
    for (const bool zip64End : {false, true}) {
        SCOPED_TRACE(zip64End);
        const opcdir::CentralDirectory directory = read(archiveWithZip64(zip64End));
        EXPECT_EQ(directory.offset, 40u);
        EXPECT_EQ(directory.size, 46u + 7 + 28);
        ASSERT_EQ(directory.entries.size(), 1u);
        const ZipEntry& entry = directory.entries.front();
        EXPECT_EQ(entry.name, "big.bin");
        EXPECT_EQ(entry.method, 8u);
        EXPECT_EQ(entry.flags, 8u);
        EXPECT_EQ(entry.crc32, 0x12345678u);
        EXPECT_EQ(entry.size, 5'000'000'000u);
        EXPECT_EQ(entry.compressedSize, 3u);
        EXPECT_EQ(entry.headerOffset, 0u);
        EXPECT_EQ(entry.dataEnd, 40u);
    }
}

TEST(CentralDirectory, RecordsThatDoNotHoldTogetherAreCorrupt) {
    const std::string valid = archiveWithZip64(true);
    const std::string record = "PK\6\6";
    std::string badRecord = valid;
    badRecord.replace(badRecord.find(record), 4, "PK\0\0", 4);
    std::string badEntry = valid;
    badEntry[40] = 'X';
    std::string badLocal = valid;
    badLocal[0] = 'X';
    const std::vector<std::pair<std::string, std::string>> cases = {
        {archiveWithZip64(false, 16), "corrupt ZIP archive: bad ZIP64 extra field"},
        {badRecord, "corrupt ZIP archive: missing ZIP64 end of central directory"},
        {valid.substr(valid.find(record)), "corrupt ZIP archive: missing ZIP64 end of central directory"},
        {badEntry, "corrupt ZIP archive: bad central directory entry"},
        {badLocal, "corrupt ZIP archive: entry 'big.bin' has no local header"},
        {archiveWithZip64(true, 24, 4), "corrupt ZIP archive: entry 'big.bin' runs into the central directory"},
        {valid.substr(0, valid.size() - 1), "not a ZIP archive, or truncated (no end of central directory)"},
    };
    for (const auto& [bytes, message] : cases) {
        try {
            read(bytes);
            ADD_FAILURE() << "nothing thrown; expected " << message;
        } catch (const opcdir::Failure& e) {
            EXPECT_EQ(e.subject(), "a.zip");
            EXPECT_EQ(std::string(e.what()), message);
        }
    }
}

}  // namespace
}  // namespace opc::test
