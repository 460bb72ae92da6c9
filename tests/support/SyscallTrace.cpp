#include "support/SyscallTrace.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <utility>

namespace opc::test {
namespace {

bool recording = false;
std::size_t killNumber = 0;
std::size_t counted = 0;
std::vector<SyscallEvent>* events = nullptr;

std::string pathOf(int fd) {
    if (fd == AT_FDCWD) return ".";
    char link[64];
    std::snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    std::string target(4096, '\0');
    const ssize_t size = ::readlink(link, target.data(), target.size());
    target.resize(size < 0 ? 0 : static_cast<std::size_t>(size));
    return target;
}

std::string pathAt(int folder, const char* path) {
    if (path == nullptr) return pathOf(folder);
    if (path[0] == '/' || folder == AT_FDCWD) return path;
    return path[0] == '\0' ? pathOf(folder) : pathOf(folder) + "/" + path;
}

// Paths are looked up only while recording.
template <class Paths>
void enter(const char* call, Paths paths) {
    if (killNumber != 0 && ++counted == killNumber) ::raise(SIGKILL);
    if (recording && events != nullptr) {
        SyscallEvent event = paths();
        event.call = call;
        events->push_back(std::move(event));
    }
}

template <class Function>
Function real(const char* name) {
    return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
}

}  // namespace

void SyscallTrace::startRecording() {
    delete events;
    events = new std::vector<SyscallEvent>();
    recording = true;
}

std::vector<SyscallEvent> SyscallTrace::stopRecording() {
    recording = false;
    std::vector<SyscallEvent> result = events != nullptr ? std::move(*events) : std::vector<SyscallEvent>();
    delete events;
    events = nullptr;
    return result;
}

void SyscallTrace::killAt(std::size_t n) {
    killNumber = n;
    counted = 0;
}

std::size_t SyscallTrace::calls() { return counted; }

}  // namespace opc::test

using opc::test::enter;
using opc::test::pathAt;
using opc::test::pathOf;
using opc::test::real;
using opc::test::SyscallEvent;

// NOLINTBEGIN: these replace the C library's functions of the same names.
extern "C" {

int mkdir(const char* path, mode_t mode) {
    enter("mkdir", [&] { return SyscallEvent{"", path, ""}; });
    return real<int (*)(const char*, mode_t)>("mkdir")(path, mode);
}

int rename(const char* from, const char* to) {
    enter("rename", [&] { return SyscallEvent{"", from, to}; });
    return real<int (*)(const char*, const char*)>("rename")(from, to);
}

int renameat2(int fromFolder, const char* from, int toFolder, const char* to, unsigned flags) {
    enter("renameat2", [&] { return SyscallEvent{"", pathAt(fromFolder, from), pathAt(toFolder, to)}; });
    return real<int (*)(int, const char*, int, const char*, unsigned)>("renameat2")(fromFolder, from, toFolder, to,
                                                                                    flags);
}

int unlink(const char* path) {
    enter("unlink", [&] { return SyscallEvent{"", path, ""}; });
    return real<int (*)(const char*)>("unlink")(path);
}

int unlinkat(int folder, const char* path, int flags) {
    enter("unlinkat", [&] { return SyscallEvent{"", pathAt(folder, path), ""}; });
    return real<int (*)(int, const char*, int)>("unlinkat")(folder, path, flags);
}

int rmdir(const char* path) {
    enter("rmdir", [&] { return SyscallEvent{"", path, ""}; });
    return real<int (*)(const char*)>("rmdir")(path);
}

int remove(const char* path) {
    enter("remove", [&] { return SyscallEvent{"", path, ""}; });
    return real<int (*)(const char*)>("remove")(path);
}

int fsync(int fd) {
    enter("fsync", [&] { return SyscallEvent{"", pathOf(fd), ""}; });
    return real<int (*)(int)>("fsync")(fd);
}

int fdatasync(int fd) {
    enter("fdatasync", [&] { return SyscallEvent{"", pathOf(fd), ""}; });
    return real<int (*)(int)>("fdatasync")(fd);
}

int syncfs(int fd) {
    enter("syncfs", [&] { return SyscallEvent{"", pathOf(fd), ""}; });
    return real<int (*)(int)>("syncfs")(fd);
}

int flock(int fd, int operation) {
    enter("flock", [&] { return SyscallEvent{"", pathOf(fd), ""}; });
    return real<int (*)(int, int)>("flock")(fd, operation);
}

int fchmod(int fd, mode_t mode) {
    enter("fchmod", [&] { return SyscallEvent{"", pathOf(fd), ""}; });
    return real<int (*)(int, mode_t)>("fchmod")(fd, mode);
}

int fchmodat(int folder, const char* path, mode_t mode, int flags) {
    enter("fchmodat", [&] { return SyscallEvent{"", pathAt(folder, path), ""}; });
    return real<int (*)(int, const char*, mode_t, int)>("fchmodat")(folder, path, mode, flags);
}

int fchown(int fd, uid_t owner, gid_t group) {
    enter("fchown", [&] { return SyscallEvent{"", pathOf(fd), ""}; });
    return real<int (*)(int, uid_t, gid_t)>("fchown")(fd, owner, group);
}

int fchownat(int folder, const char* path, uid_t owner, gid_t group, int flags) {
    enter("fchownat", [&] { return SyscallEvent{"", pathAt(folder, path), ""}; });
    return real<int (*)(int, const char*, uid_t, gid_t, int)>("fchownat")(folder, path, owner, group, flags);
}

ssize_t copy_file_range(int from, off64_t* fromOffset, int to, off64_t* toOffset, size_t size, unsigned flags) {
    enter("copy_file_range", [&] { return SyscallEvent{"", pathOf(from), pathOf(to)}; });
    return real<ssize_t (*)(int, off64_t*, int, off64_t*, size_t, unsigned)>("copy_file_range")(from, fromOffset, to,
                                                                                                toOffset, size, flags);
}

}  // extern "C"
// NOLINTEND
