#include "CentralDirectory.h"
#include "Errors.h"
#include "OpcdirHarness.h"

#include <gtest/gtest.h>

#include <sstream>

namespace opc::test {
namespace {

using opcdir::ZipEntry;

std::string le64(std::uint64_t value) { return littleEndian(value & 0xffffffffu, 4) + littleEndian(value >> 32, 4); }

// One deflated entry "big.bin" whose sizes and offset only its ZIP64 extra
// field holds (extraSize bytes of it), and, with zip64End, the end record's
// values only the ZIP64 end record.
std::string archiveWithZip64(bool zip64End, std::uint16_t extraSize = 24) {
    const std::string name = "big.bin";
    const std::string extra = littleEndian(1, 2) + littleEndian(extraSize, 2) +
                              (le64(5'000'000'000) + le64(4'000'000) + le64(0x100000000)).substr(0, extraSize);
    const std::string directory = "PK\1\2" + littleEndian(45, 2) + littleEndian(45, 2) + littleEndian(8, 2) +
                                  littleEndian(8, 2) + littleEndian(0, 4) + littleEndian(0x12345678, 4) +
                                  littleEndian(0xffffffff, 4) + littleEndian(0xffffffff, 4) +
                                  littleEndian(static_cast<std::uint32_t>(name.size()), 2) +
                                  littleEndian(static_cast<std::uint32_t>(extra.size()), 2) + std::string(10, '\0') +
                                  littleEndian(0xffffffff, 4) + name + extra;
    const auto size = static_cast<std::uint32_t>(directory.size());
    if (!zip64End)
        return directory + "PK\5\6" + littleEndian(0, 4) + littleEndian(0x10001, 4) + littleEndian(size, 4) +
               littleEndian(0, 4) + littleEndian(0, 2);
    const std::string record = "PK\6\6" + le64(44) + littleEndian(45, 2) + littleEndian(45, 2) + std::string(8, '\0') +
                               le64(1) + le64(1) + le64(size) + le64(0);
    const std::string locator = "PK\6\7" + littleEndian(0, 4) + le64(size) + littleEndian(1, 4);
    return directory + record + locator + "PK\5\6" + littleEndian(0, 4) + littleEndian(0xffffffff, 4) +
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
        EXPECT_EQ(directory.offset, 0u);
        EXPECT_EQ(directory.size, 46u + 7 + 28);
        ASSERT_EQ(directory.entries.size(), 1u);
        const ZipEntry& entry = directory.entries.front();
        EXPECT_EQ(entry.name, "big.bin");
        EXPECT_EQ(entry.method, 8u);
        EXPECT_EQ(entry.flags, 8u);
        EXPECT_EQ(entry.crc32, 0x12345678u);
        EXPECT_EQ(entry.size, 5'000'000'000u);
        EXPECT_EQ(entry.compressedSize, 4'000'000u);
        EXPECT_EQ(entry.localHeaderOffset, 0x100000000u);
    }
}

TEST(CentralDirectory, RecordsThatDoNotHoldTogetherAreCorrupt) {
    const std::string valid = archiveWithZip64(true);
    const std::string record = "PK\6\6";
    std::string badRecord = valid;
    badRecord.replace(badRecord.find(record), 4, "PK\0\0", 4);
    std::string badEntry = valid;
    badEntry[0] = 'X';
    const std::vector<std::pair<std::string, std::string>> cases = {
        {archiveWithZip64(false, 16), "corrupt ZIP archive: bad ZIP64 extra field"},
        {badRecord, "corrupt ZIP archive: missing ZIP64 end of central directory"},
        {valid.substr(valid.find(record)), "corrupt ZIP archive: missing ZIP64 end of central directory"},
        {badEntry, "corrupt ZIP archive: bad central directory entry"},
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
