#pragma once

#include <cstdint>
#include <istream>
#include <string>
#include <vector>

namespace opcdir {

// One entry of a ZIP archive's central directory, with its ZIP64 extra field
// applied.
struct ZipEntry {
    std::uint64_t index = 0;  // position in the central directory
    std::string name;         // the bytes the central directory holds
    std::uint16_t flags = 0;
    std::uint16_t method = 0;
    std::uint32_t crc32 = 0;
    std::uint64_t compressedSize = 0;
    std::uint64_t size = 0;  // as declared; reading checks the truth
    // Where the entry's local header begins and its compressed data ends in
    // the archive file: entries whose extents meet share data.
    std::uint64_t headerOffset = 0;
    std::uint64_t dataEnd = 0;
};

// Where the central directory lies in the archive, and what it says.
struct CentralDirectory {
    std::uint64_t offset = 0;
    std::uint64_t size = 0;
    std::vector<ZipEntry> entries;
};

// Reads the central directory of the archive of fileSize bytes in file,
// ZIP64 records included. Entry names are the directory's raw bytes, so that
// a NUL in a name is seen rather than silently replaced. Throws Failure about
// subject when there is no end record or the directory does not hold
// together, or when an entry's local header or data is not where it says,
// before the directory; reads no more than the directory, the records that
// find it and the fixed part of each local header.
CentralDirectory readCentralDirectory(std::istream& file, std::uint64_t fileSize, const std::string& subject);

}  // namespace opcdir
