// The checks unpack makes of an archive before and while it inflates it, over
// any bytes: each input ends in a Failure or passes, and any other exception,
// crash, leak or hang is a finding.
#include "ArchivePolicy.h"
#include "Errors.h"
#include "Zip.h"

#include <opccore/LocalFileSystemOps.h>

#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

namespace {

// The archive lives in one temporary file, rewritten for each input: the
// tool reads archives through the file-system service, which opens regular
// files only.
class ArchiveFile {
public:
    ArchiveFile() {
        const char* folder = std::getenv("TMPDIR");
        path = std::string(folder != nullptr && *folder != '\0' ? folder : "/tmp") + "/opc-fuzz-XXXXXX";
        fd = ::mkstemp(path.data());
    }
    ArchiveFile(const ArchiveFile&) = delete;
    ArchiveFile& operator=(const ArchiveFile&) = delete;
    ~ArchiveFile() {
        if (fd < 0) return;
        ::close(fd);
        ::unlink(path.c_str());
    }
    bool hold(const std::uint8_t* data, std::size_t size) const {
        return fd >= 0 && ::ftruncate(fd, 0) == 0 && ::pwrite(fd, data, size, 0) == static_cast<ssize_t>(size);
    }
    const std::string& name() const { return path; }

private:
    std::string path;
    int fd = -1;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static ArchiveFile file;
    static opc::LocalFileSystemOps fileSystem;
    if (!file.hold(data, size)) return 0;
    const std::string& path = file.name();
    try {
        opcdir::ZipReader reader(fileSystem, "archive", path);
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
