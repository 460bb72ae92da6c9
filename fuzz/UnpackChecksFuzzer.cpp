// The checks unpack makes of an archive before and while it inflates it, over
// any bytes: each input ends in a Failure or passes, and any other exception,
// crash, leak or hang is a finding.
#include "ArchivePolicy.h"
#include "Errors.h"
#include "Zip.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace {

// The archive lives in memory; both readers open it by this path.
int archiveFile() {
    static const int fd = ::memfd_create("archive", MFD_CLOEXEC);
    return fd;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const int fd = archiveFile();
    if (fd < 0 || ::ftruncate(fd, 0) != 0) return 0;
    if (::pwrite(fd, data, size, 0) != static_cast<ssize_t>(size)) return 0;
    const std::string path = "/proc/self/fd/" + std::to_string(fd);
    try {
        opcdir::ZipReader reader("archive", path);
        opcdir::Limits limits;
        limits.maxSize = std::uint64_t{1} << 20;  // keeps each input's work small
        const std::vector<const opcdir::ZipEntry*> files = opcdir::checkEntries("archive", reader, limits);
        reader.checkConsistency();
        for (const opcdir::ZipEntry* entry : files) {
            std::uint64_t written = 0;
            reader.read(*entry, [&](const char*, std::size_t count) {
                written += count;
                opcdir::checkInflated("archive", *entry, written);
            });
            opcdir::checkComplete("archive", *entry, written);
        }
    } catch (const opcdir::Failure&) {
    }
    return 0;
}
