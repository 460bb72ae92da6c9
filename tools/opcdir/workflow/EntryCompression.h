#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

struct zip;
struct zip_source;

namespace opcdir {

// One entry as it goes into the archive: deflated, or stored when deflating
// does not make it smaller.
struct CompressedEntry {
    bool deflated = false;
    std::uint32_t crc = 0;   // of the uncompressed bytes
    std::uint64_t size = 0;  // uncompressed
    std::string data;        // raw deflate stream, or the bytes themselves
};

// Deflates one entry's bytes at level (0 stores, 1 to 9 deflate). The result
// depends on the bytes and the level only. An entry whose first 128 KiB do
// not shrink by 2% is taken for already compressed and stored without
// deflating the rest.
CompressedEntry compressEntry(std::string bytes, int level);

// Whether data of dataSize bytes, as an entry's data lies in the archive (a
// raw deflate stream when deflated, else the bytes themselves), gives exactly
// size bytes with checksum crc: a stream that ends where the data does,
// neither more nor fewer bytes, the same checksum. Inflated bytes go to out,
// which has room for size + 1 of them; stored ones are checked where they lie.
bool inflateEntry(
    const char* data, std::size_t dataSize, bool deflated, std::uint64_t size, std::uint32_t crc, char* out);

// A libzip source that hands an entry to the archive as it is, with its
// method, sizes and checksum, so that libzip copies it without compressing
// again. produce() is called when libzip first asks for the entry, and its
// bytes are dropped once libzip has read them, so that only the entry being
// written is held. The caller sets the entry's compression to the method
// produce() will choose. What produce() throws fails the archive, its message
// kept in *firstError unless one is there. Returns null on failure, with the
// archive's error set.
zip_source* compressedSource(zip* archive, std::function<CompressedEntry()> produce, std::string* firstError);

}  // namespace opcdir
