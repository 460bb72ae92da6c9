#include "ArchivePolicy.h"

#include "Errors.h"
#include "PartNames.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

namespace opcdir {
namespace {

// Whether size bytes from compressed bytes expand more than ratio times,
// without the overflow of ratio * compressed.
bool expandsPast(std::uint64_t size, std::uint64_t compressed, std::uint64_t ratio) {
    const std::uint64_t divisor = std::max<std::uint64_t>(compressed, 1);
    return size / divisor > ratio || (size / divisor == ratio && size % divisor != 0);
}

Failure ratioFailure(const std::string& archiveName, const ZipEntry& entry, const Limits& limits) {
    return Failure(archiveName, "entry " + quoteName(entry.name) + " expands more than " +
                                    std::to_string(limits.maxRatio) + " times (see --max-ratio)");
}

// The name rules of every package, as they apply to one entry.
void checkName(const std::string& archiveName, const ZipEntry& entry, NameTree& names) {
    const bool isFolder = !entry.name.empty() && entry.name.back() == '/';
    const std::string name = isFolder ? entry.name.substr(0, entry.name.size() - 1) : entry.name;
    if (const std::string reason = unsafeNameReason(name); !reason.empty())
        throw Failure(archiveName, "unsafe entry name " + quoteName(entry.name) + ": " + reason);
    const NameTree::Result result = names.add(entry.name);
    switch (result.clash) {
        case NameTree::Clash::None: return;
        case NameTree::Clash::Duplicate: throw Failure(archiveName, "duplicate entry " + quoteName(entry.name));
        case NameTree::Clash::IsFolder:
            throw Failure(archiveName,
                          "entry " + quoteName(entry.name) + " is also a folder of entry " + quoteName(result.other));
        case NameTree::Clash::InFile:
            throw Failure(archiveName,
                          "entry " + quoteName(result.other) + " is also a folder of entry " + quoteName(entry.name));
    }
}

// Entries whose data meet would inflate the same compressed bytes again and
// again, past every per-entry limit.
void checkExtents(const std::string& archiveName, const ZipReader& reader) {
    std::vector<const ZipEntry*> byOffset;
    byOffset.reserve(reader.entries().size());
    for (const ZipEntry& entry : reader.entries()) byOffset.push_back(&entry);
    std::sort(byOffset.begin(), byOffset.end(),
              [](const ZipEntry* a, const ZipEntry* b) { return a->headerOffset < b->headerOffset; });
    for (std::size_t i = 1; i < byOffset.size(); ++i) {
        if (byOffset[i]->headerOffset < byOffset[i - 1]->dataEnd) {
            throw Failure(archiveName, "entries " + quoteName(byOffset[i - 1]->name) + " and " +
                                           quoteName(byOffset[i]->name) + " share or overlap compressed data");
        }
    }
}

}  // namespace

std::vector<const ZipEntry*> checkEntries(const std::string& archiveName,
                                          const ZipReader& reader,
                                          const Limits& limits) {
    std::vector<const ZipEntry*> files;
    NameTree names;
    std::uint64_t declared = 0;
    bool hasContentTypes = false;
    for (const ZipEntry& entry : reader.entries()) {
        checkName(archiveName, entry, names);
        if (entry.name.back() != '/') {
            files.push_back(&entry);
            hasContentTypes = hasContentTypes || entry.name == kContentTypesName;
            declared += entry.size;
        }
        if (expandsPast(entry.size, entry.compressedSize, limits.maxRatio))
            throw ratioFailure(archiveName, entry, limits);
    }
    checkExtents(archiveName, reader);
    if (!hasContentTypes) throw Failure(archiveName, "not a package: no " + quoteName(kContentTypesName) + " entry");
    if (declared > limits.maxSize) {
        throw Failure(archiveName, "expands to " + std::to_string(declared) + " bytes, more than the limit of " +
                                       std::to_string(limits.maxSize) + " bytes (see --max-size)");
    }
    return files;
}

void checkInflated(const std::string& archiveName, const ZipEntry& entry, std::uint64_t written) {
    if (written > entry.size) {
        throw Failure(archiveName, "entry " + quoteName(entry.name) + " inflates to more than the " +
                                       std::to_string(entry.size) + " bytes it declares");
    }
}

void checkComplete(const std::string& archiveName, const ZipEntry& entry, std::uint64_t written) {
    if (written != entry.size) {
        throw Failure(archiveName, "entry " + quoteName(entry.name) + " inflates to " + std::to_string(written) +
                                       " bytes, not the " + std::to_string(entry.size) + " it declares");
    }
}

void checkPathLengths(const std::string& archiveName,
                      const std::vector<const ZipEntry*>& files,
                      std::size_t folderLength) {
    for (const ZipEntry* entry : files) {
        if (folderLength + 1 + entry->name.size() >= PATH_MAX) {
            throw Failure(archiveName, "unsafe entry name " + quoteName(entry->name) + ": " +
                                           std::strerror(ENAMETOOLONG) + ": more than " + std::to_string(PATH_MAX - 1) +
                                           " bytes below the package's folder");
        }
    }
}

}  // namespace opcdir
