#include "CentralDirectory.h"
#include "Errors.h"
#include "support/OpcAssertions.h"
#include "support/RawZip.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

namespace opcdir {
namespace {

constexpr auto le = &opc::test::littleEndian;

// One deflated entry "big.bin" of compressedSize bytes after its local
// header, whose sizes and offset only its ZIP64 extra field holds (extraSize
// bytes of it), and, with zip64End, the end record's values only the ZIP64 end
// record.
std::string archiveWithZip64(bool zip64End, std::uint16_t extraSize = 24, std::uint64_t compressedSize = 3) {
    const std::string local = "PK\3\4" + std::string(22, '\0') + le(7, 2) + le(0, 2) + "big.bin" + "abc";
    const std::string extra =
        le(1, 2) + le(extraSize, 2) + (le(5'000'000'000, 8) + le(compressedSize, 8) + le(0, 8)).substr(0, extraSize);
    const std::string directory = "PK\1\2" + le(45, 2) + le(45, 2) + le(8, 2) + le(8, 2) + le(0, 4) +
                                  le(0x12345678, 4) + std::string(8, '\xff') + le(7, 2) + le(extra.size(), 2) +
                                  std::string(10, '\0') + le(0xffffffff, 4) + "big.bin" + extra;
    const std::size_t start = local.size();
    const std::size_t size = directory.size();
    if (!zip64End)
        return local + directory + "PK\5\6" + le(0, 4) + le(0x10001, 4) + le(size, 4) + le(start, 4) + le(0, 2);
    const std::string record = "PK\6\6" + le(44, 8) + le(45, 2) + le(45, 2) + std::string(8, '\0') + le(1, 8) +
                               le(1, 8) + le(size, 8) + le(start, 8);
    const std::string locator = "PK\6\7" + le(0, 4) + le(start + size, 8) + le(1, 4);
    return local + directory + record + locator + "PK\5\6" + le(0, 4) + std::string(12, '\xff') + le(0, 2);
}

CentralDirectory read(const std::string& bytes) {
    std::istringstream file(bytes);
    return readCentralDirectory(file, bytes.size(), "a.zip");
}

TEST(CentralDirectory, Zip64ValuesReplaceTheMarkedOnesInEntriesAndTheEndRecord) {
    for (const auto& [zip64End, comment] : {std::pair(false, 0), std::pair(true, 0), std::pair(true, 0xffff)}) {
        SCOPED_TRACE(std::to_string(zip64End) + " comment " + std::to_string(comment));
        std::string bytes = archiveWithZip64(zip64End);
        bytes.replace(bytes.size() - 2, 2, le(comment, 2) + std::string(comment, 'c'));  // the longest is found too
        const CentralDirectory directory = read(bytes);
        EXPECT_EQ(directory.offset, 40u);
        EXPECT_EQ(directory.size, 46u + 7 + 28);
        ASSERT_EQ(directory.entries.size(), 1u);
        const ZipEntry& e = directory.entries.front();
        EXPECT_EQ(
            std::make_tuple(e.name, e.method, e.flags, e.crc32, e.size, e.compressedSize, e.headerOffset, e.dataEnd),
            std::make_tuple(std::string("big.bin"), 8u, 8u, 0x12345678u, 5'000'000'000u, 3u, 0u, 40u));
    }
}

TEST(CentralDirectory, RecordsThatDoNotHoldTogetherAreCorrupt) {
    const std::string valid = archiveWithZip64(true);
    const std::size_t record = valid.find("PK\6\6");
    std::string badRecord = valid;
    badRecord.replace(record, 4, "PK\0\0", 4);
    std::string badEntry = valid;
    badEntry[40] = 'X';
    std::string badLocal = valid;
    badLocal[0] = 'X';
    const std::string corrupt = "corrupt ZIP archive: ";
    const std::vector<std::pair<std::string, std::string>> cases = {
        {archiveWithZip64(false, 16), corrupt + "bad ZIP64 extra field"},
        {badRecord, corrupt + "missing ZIP64 end of central directory"},
        {valid.substr(record), corrupt + "missing ZIP64 end of central directory"},
        {badEntry, corrupt + "bad central directory entry"},
        {badLocal, corrupt + "entry 'big.bin' has no local header"},
        {archiveWithZip64(true, 24, 4), corrupt + "entry 'big.bin' runs into the central directory"},
        {valid.substr(0, valid.size() - 1), "not a ZIP archive, or truncated (no end of central directory)"},
    };
    for (const auto& [bytes, message] : cases) EXPECT_EQ(opc::test::thrownWhat<Failure>([&] { read(bytes); }), message);
}

}  // namespace
}  // namespace opcdir
