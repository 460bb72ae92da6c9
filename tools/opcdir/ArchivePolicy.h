#pragma once

#include "Zip.h"

#include <cstdint>
#include <string>
#include <vector>

namespace opcdir {

// How far an archive may expand when it is unpacked: in all (maxSize bytes)
// and per entry (maxRatio times its compressed size). As no two entries may
// share compressed data, the whole archive then expands at most maxRatio
// times too.
struct Limits {
    std::uint64_t maxSize = std::uint64_t{4} << 30;
    std::uint64_t maxRatio = 1000;
};

// Every entry of the archive checked before anything is written: unsafe
// names, duplicates, a file that is also a folder, entries that share or
// overlap compressed data, a missing content-types entry and declared sizes
// past the limits. Time and memory are linear in the size of the central
// directory (but for a sort of the entries by offset). Returns the file
// entries, in central-directory order; folder entries are checked and left
// out. Throws Failure about archiveName.
std::vector<const ZipEntry*> checkEntries(const std::string& archiveName,
                                          const ZipReader& reader,
                                          const Limits& limits);

// Declared sizes can lie, and the limits were checked on them: an entry that
// inflates to more than it declares is refused (Failure about archiveName) as
// soon as written, the bytes inflated so far, passes its declared size.
void checkInflated(const std::string& archiveName, const ZipEntry& entry, std::uint64_t written);

// Throws Failure about archiveName when entry, inflated whole, gave fewer
// bytes than it declares.
void checkComplete(const std::string& archiveName, const ZipEntry& entry, std::uint64_t written);

// Throws Failure about archiveName when a file entry's path below the longest
// of the package folder and its staging folder (folderLength bytes) would be
// longer than Linux allows.
void checkPathLengths(const std::string& archiveName,
                      const std::vector<const ZipEntry*>& files,
                      std::size_t folderLength);

}  // namespace opcdir
