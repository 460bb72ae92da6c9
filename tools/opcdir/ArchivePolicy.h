#pragma once

#include "Zip.h"

#include <cstdint>
#include <string>
#include <vector>

namespace opcdir {

// How far an archive may expand when it is unpacked: in all (maxSize bytes)
// and per entry (maxRatio times its compressed size).
struct Limits {
    std::uint64_t maxSize = std::uint64_t{4} << 30;
    std::uint64_t maxRatio = 1000;
};

// Every entry of the archive checked before anything is written: unsafe
// names, duplicates, a file that is also a folder, a missing content-types
// entry and declared sizes past the limits. Returns the file entries, in
// central-directory order; folder entries are checked and left out. Throws
// Failure about archiveName.
std::vector<const ZipEntry*> checkEntries(const std::string& archiveName,
                                          const ZipReader& reader,
                                          const Limits& limits);

// Declared sizes can lie: the limits hold for the bytes actually inflated.
// Throws Failure about archiveName once written bytes of entry, or total
// bytes of the whole archive, are past the limits.
void checkInflated(const std::string& archiveName,
                   const ZipEntry& entry,
                   std::uint64_t written,
                   std::uint64_t total,
                   const Limits& limits);

}  // namespace opcdir
