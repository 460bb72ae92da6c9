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

// Paths are looked up only while recording: readlink is no call to count.
template <class Paths>
void enter(const char* call, Paths paths) {
    if (killNumber != 0 && ++counted == killNumber) ::raise(SIGKILL);
    if (events != nullptr) {
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
}

std::vector<SyscallEvent> SyscallTrace::stopRecording() {
    std::vector<SyscallEvent> result = events != nullptr ? std::move(*events) : std::vector<SyscallEvent>();
    delete events;
    events = nullptr;
    return result;
}

void SyscallTrace::killAt(std::size_t n) {
    killNumber = n;
    counted = 0;
}

}  // namespace opc::test

using opc::test::enter;
using opc::test::pathAt;
using opc::test::pathOf;
using opc::test::real;
using opc::test::SyscallEvent;

// NOLINTBEGIN: these replace the C library's functions of the same names.
// TRACE(result, name, (parameters), (arguments), path, second) defines name
// to record itself, with the paths it names, then call the C library's.
#define TRACE(Result, name, parameters, arguments, path, second)      \
    Result name parameters {                                          \
        enter(#name, [&] { return SyscallEvent{"", path, second}; }); \
        return real<Result(*) parameters>(#name) arguments;           \
    }
extern "C" {
// clang-format off
TRACE(int, mkdir, (const char* p, mode_t m), (p, m), p, "")
TRACE(int, rename, (const char* from, const char* to), (from, to), from, to)
TRACE(int, renameat2, (int fromAt, const char* from, int toAt, const char* to, unsigned flags),
      (fromAt, from, toAt, to, flags), pathAt(fromAt, from), pathAt(toAt, to))
TRACE(int, unlink, (const char* p), (p), p, "")
TRACE(int, unlinkat, (int at, const char* p, int flags), (at, p, flags), pathAt(at, p), "")
TRACE(int, rmdir, (const char* p), (p), p, "")
TRACE(int, remove, (const char* p), (p), p, "")
TRACE(int, fsync, (int fd), (fd), pathOf(fd), "")
TRACE(int, syncfs, (int fd), (fd), pathOf(fd), "")
TRACE(int, flock, (int fd, int operation), (fd, operation), pathOf(fd), "")
TRACE(int, fchmod, (int fd, mode_t m), (fd, m), pathOf(fd), "")
TRACE(int, fchmodat, (int at, const char* p, mode_t m, int flags), (at, p, m, flags), pathAt(at, p), "")
TRACE(int, fchown, (int fd, uid_t owner, gid_t group), (fd, owner, group), pathOf(fd), "")
TRACE(int, fchownat, (int at, const char* p, uid_t owner, gid_t group, int flags), (at, p, owner, group, flags),
      pathAt(at, p), "")
TRACE(ssize_t, copy_file_range, (int from, off64_t* fromOffset, int to, off64_t* toOffset, size_t size, unsigned flags),
      (from, fromOffset, to, toOffset, size, flags), pathOf(from), pathOf(to))
// clang-format on
}  // extern "C"
// NOLINTEND
