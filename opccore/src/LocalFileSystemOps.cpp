#include <opccore/Exception.h>
#include <opccore/LocalFileSystemOps.h>
#include <opccore/NameCodec.h>

#include "ListedFolders.h"
#include "StagingArea.h"

#include <ext/stdio_filebuf.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <deque>
#include <filesystem>
#include <iterator>
#include <new>
#include <numeric>
#include <optional>
#include <thread>
#include <utility>

namespace opc {
namespace {

using boost::system::error_code;

error_code systemError(int value) { return error_code(value, boost::system::system_category()); }

error_code lastError() { return systemError(errno); }

// The bytes of path for a system call. U+0000 would silently cut the name
// short, so such a path names no file.
error_code nativePath(std::u16string_view path, std::string& native) {
    if (path.find(u'\0') != std::u16string_view::npos) return systemError(EINVAL);
    native = NameCodec::encode(path);
    return {};
}

std::string display(const std::u16string& path) { return "\"" + NameCodec::display(path) + "\""; }

[[noreturn]] void fail(const std::string& what, const error_code& code) { throw Exception(what, code); }

// Runs a reporting operation so that nothing escapes it, not even an
// allocation failure.
template <class Operation>
void reportInto(error_code& errorCode, Operation&& operation) noexcept {
    try {
        if (error_code code = operation()) errorCode = code;
    } catch (const std::bad_alloc&) {
        errorCode = systemError(ENOMEM);
    } catch (...) {
        errorCode = systemError(EIO);
    }
}

// ---- File descriptors ----------------------------------------------------------

class Descriptor {
public:
    explicit Descriptor(int descriptor = -1) : fd(descriptor) {}
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() {
        if (fd >= 0) ::close(fd);
    }
    int get() const { return fd; }
    void reset(int newFd) {
        if (fd >= 0) ::close(fd);
        fd = newFd;
    }
    int release() { return std::exchange(fd, -1); }
    // Closing can be where a write failure first shows, so it is checked.
    error_code close() {
        const int result = ::close(std::exchange(fd, -1));
        return result == 0 || errno == EINTR ? error_code() : lastError();
    }

private:
    int fd;
};

// A standard stream over a file descriptor that it owns. The descriptor is
// opened here, not by the standard library, so that the caller gets the
// exact errno and the file is not inherited across exec.
template <class StandardStream>
class DescriptorStream final : public StandardStream {
public:
    DescriptorStream(int fd, std::ios_base::openmode openMode)
        : StandardStream(nullptr), buffer(fd, openMode, kBufferSize) {
        this->rdbuf(&buffer);
        if (!buffer.is_open()) this->setstate(std::ios_base::badbit);
    }

private:
    // Reads and writes of a kilobyte or more go straight to the file; the
    // buffer only gathers small ones.
    static constexpr std::size_t kBufferSize = std::size_t{16} * 1024;
    __gnu_cxx::stdio_filebuf<char> buffer;
};

// A path's bytes for one system call. The usual path, all ASCII, is
// converted on the stack: opening a package tests every part's file, and a
// lock is taken and released in a few system calls, so an allocation there
// is a noticeable share.
class SystemPath {
public:
    // ascii is written up to the terminating NUL before it is read; zeroing
    // a kilobyte per call would cost more than the conversion.
    explicit SystemPath(std::u16string_view path) {  // NOLINT(cppcoreguidelines-pro-type-member-init)
        if (path.size() < sizeof ascii) {
            std::size_t i = 0;
            for (; i < path.size() && path[i] != u'\0' && path[i] < 0x80; ++i) ascii[i] = static_cast<char>(path[i]);
            ascii[i] = '\0';
            if (i == path.size()) return;
        }
        code = nativePath(path, native);
        text = native.c_str();
    }
    SystemPath(const SystemPath&) = delete;
    SystemPath& operator=(const SystemPath&) = delete;
    ~SystemPath() = default;

    const error_code& error() const { return code; }
    const char* c_str() const { return text; }

private:
    char ascii[1024];
    std::string native;
    error_code code;
    const char* text = ascii;
};

error_code openFile(const std::u16string& path, int flags, Descriptor& file, mode_t mode = 0666) {
    const SystemPath native(path);
    if (native.error()) return native.error();
    const int fd = ::open(native.c_str(), flags | O_CLOEXEC, mode);
    if (fd < 0) return lastError();
    file.reset(fd);
    return {};
}

// Only regular files are read: a folder answers EISDIR, and a FIFO, socket or
// device ENXIO, the kernel's own answer when a name has no file behind it
// that can be opened (a socket, a FIFO without reader, a device without
// driver).
error_code refuseIrregular(const struct stat& info) {
    if (S_ISREG(info.st_mode)) return {};
    return systemError(S_ISDIR(info.st_mode) ? EISDIR : ENXIO);
}

// A folder from someone else may hold a link to a file outside it, or a FIFO
// or device that would block or never end. So a file to read is opened
// without following a link in its last component (ELOOP) and without blocking,
// and checked to be a regular file before blocking is turned back on.
error_code openRegularFile(const std::u16string& path, int accessMode, Descriptor& file, struct stat& info) {
    if (error_code code = openFile(path, accessMode | O_NOFOLLOW | O_NONBLOCK, file)) return code;
    if (::fstat(file.get(), &info) != 0) return lastError();
    if (error_code code = refuseIrregular(info)) return code;
    return ::fcntl(file.get(), F_SETFL, 0) == 0 ? error_code() : lastError();
}

// open(2) flags for the standard stream modes an output stream accepts.
error_code outputFlags(std::ios_base::openmode openMode, int& flags) {
    using std::ios_base;
    const bool in = (openMode & ios_base::in) != 0;
    if (!(openMode & (ios_base::out | ios_base::app))) return systemError(EINVAL);
    if (openMode & ios_base::app) {
        if (openMode & ios_base::trunc) return systemError(EINVAL);
        flags = (in ? O_RDWR : O_WRONLY) | O_CREAT | O_APPEND;
    } else if (!in || (openMode & ios_base::trunc)) {
        flags = (in ? O_RDWR : O_WRONLY) | O_CREAT | O_TRUNC;
    } else {
        flags = O_RDWR;  // in|out: update an existing file in place
    }
    return {};
}

// ---- Folders -------------------------------------------------------------------

bool isFolderNative(const std::string& native) {
    struct stat info {};
    return ::stat(native.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

error_code createFoldersNative(const std::string& native) {
    if (::mkdir(native.c_str(), 0777) == 0) return {};
    const int error = errno;
    if (error == EEXIST) return isFolderNative(native) ? error_code() : systemError(EEXIST);
    if (error != ENOENT) return systemError(error);
    const std::size_t slash = native.find_last_of('/');
    if (slash == std::string::npos || slash == 0) return systemError(ENOENT);
    if (error_code code = createFoldersNative(native.substr(0, slash))) return code;
    if (::mkdir(native.c_str(), 0777) == 0) return {};
    return errno == EEXIST && isFolderNative(native) ? error_code() : lastError();
}

error_code createFoldersAt(const std::u16string& path) {
    std::string native{};
    if (error_code code = nativePath(path, native)) return code;
    if (native.empty()) return systemError(ENOENT);
    return createFoldersNative(native);
}

error_code removeAllAt(const std::u16string& path) {
    std::string native{};
    if (error_code code = nativePath(path, native)) return code;
    std::error_code code;
    std::filesystem::remove_all(std::filesystem::path(native), code);
    // libstdc++ reports errno values, so they keep their meaning in the
    // system category.
    return code ? systemError(code.value()) : error_code();
}

// What a listing does with an entry: enter a folder, list a regular file, and
// pass over anything else. A link is never followed (its target may lie
// outside, or make a cycle), and a FIFO, socket or device is no part.
enum class EntryKind { File, Folder, Irregular, Skip };

EntryKind kindOfMode(mode_t mode, IrregularKind& irregular) {
    if (S_ISREG(mode)) return EntryKind::File;
    if (S_ISDIR(mode)) return EntryKind::Folder;
    if (S_ISLNK(mode))
        irregular = IrregularKind::SymbolicLink;
    else if (S_ISFIFO(mode))
        irregular = IrregularKind::Fifo;
    else if (S_ISSOCK(mode))
        irregular = IrregularKind::Socket;
    else if (S_ISBLK(mode) || S_ISCHR(mode))
        irregular = IrregularKind::Device;
    else
        return EntryKind::Skip;
    return EntryKind::Irregular;
}

error_code kindOf(int folderFd, const dirent& entry, EntryKind& kind, IrregularKind& irregular) {
    kind = EntryKind::Skip;
    if (entry.d_type != DT_UNKNOWN) {  // some file systems leave the type to stat
        kind = kindOfMode(DTTOIF(entry.d_type), irregular);
        return {};
    }
    struct stat info {};
    if (::fstatat(folderFd, entry.d_name, &info, AT_SYMLINK_NOFOLLOW) != 0) {
        return errno == ENOENT ? error_code() : lastError();  // gone since it was read
    }
    kind = kindOfMode(info.st_mode, irregular);
    return {};
}

// prefix + "/" + name in one allocation: listings of many files spend more
// time growing strings than reading folders.
void appendChildPath(std::u16string& path, const std::u16string& prefix, std::string_view name) {
    path.reserve(prefix.size() + 1 + name.size());
    path.append(prefix).append(1, u'/');
    NameCodec::appendDecoded(path, name);
}

// What one listing gathers: files, irregular entries, or both, and the
// folders files came from.
struct Listing {
    std::deque<std::u16string>* files = nullptr;
    std::vector<IrregularEntry>* irregular = nullptr;
    detail::ListedFolders* folders = nullptr;
};

// One entry of a folder being walked, as the folder holds it.
struct Child {
    std::string name{};
    EntryKind kind = EntryKind::Skip;
    IrregularKind irregular = IrregularKind::SymbolicLink;
};

// What follows the first units units of a child's name in the order of its
// path: its next unit, or for a subfolder "/" (as every path below it goes
// on), or nothing.
template <typename Name>
std::int32_t unitAfter(const Name& name, std::size_t units, EntryKind kind) {
    using Unit = std::make_unsigned_t<typename Name::value_type>;
    if (units < name.size()) return static_cast<std::int32_t>(static_cast<Unit>(name[units]));
    return kind == EntryKind::Folder ? std::int32_t{'/'} : -1;
}

// The order of std::less on the paths of two entries of one folder, given
// their names (as bytes when both are ASCII alone, else decoded).
template <typename Name>
bool nameBefore(const Name& a, EntryKind aKind, const Name& b, EntryKind bKind) {
    const std::size_t common = std::min(a.size(), b.size());
    const int order = Name::traits_type::compare(a.data(), b.data(), common);
    if (order != 0) return order < 0;
    return unitAfter(a, common, aKind) < unitAfter(b, common, bKind);
}

// A folder being walked: its paths, its entries, the order to walk them in,
// and how far the walk has gone.
struct Frame {
    std::string native{};
    std::u16string prefix{};
    std::vector<Child> children{};
    std::vector<std::uint32_t> order{};
    std::size_t next = 0;
};

// ASCII names compare as bytes in the order of their UTF-16 units, and much
// faster than decoded; others are decoded to compare.
void sortChildren(Frame& frame) {
    const std::vector<Child>& children = frame.children;
    frame.order.resize(children.size());
    std::iota(frame.order.begin(), frame.order.end(), 0);
    const auto sortBy = [&](const auto& nameOf) {
        std::sort(frame.order.begin(), frame.order.end(), [&](std::uint32_t x, std::uint32_t y) {
            return nameBefore(nameOf(x), children[x].kind, nameOf(y), children[y].kind);
        });
    };
    const bool ascii = std::all_of(children.begin(), children.end(), [](const Child& child) {
        return std::all_of(child.name.begin(), child.name.end(),
                           [](char c) { return static_cast<unsigned char>(c) < 0x80; });
    });
    if (ascii) {
        sortBy([&](std::uint32_t i) -> const std::string& { return children[i].name; });
        return;
    }
    std::vector<std::u16string> decoded(children.size());
    for (std::size_t i = 0; i < children.size(); ++i) NameCodec::appendDecoded(decoded[i], children[i].name);
    sortBy([&](std::uint32_t i) -> const std::u16string& { return decoded[i]; });
}

// Reads into frame, in the order of their paths, the entries of its folder
// that listing gathers, and its subfolders when recursive.
error_code listFolder(Frame& frame, bool named, const Listing& listing, bool recursive) {
    frame.children.clear();
    frame.next = 0;
    // A subfolder swapped for a link since it was listed is not entered.
    const int fd = ::open(frame.native.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | (named ? 0 : O_NOFOLLOW));
    if (fd < 0) return lastError();
    DIR* const stream = ::fdopendir(fd);
    if (stream == nullptr) {
        const error_code code = lastError();
        ::close(fd);
        return code;
    }
    std::unique_ptr<DIR, int (*)(DIR*)> guard(stream, &::closedir);
    for (;;) {
        errno = 0;
        const dirent* entry = ::readdir(stream);
        if (entry == nullptr) break;
        const std::string_view name(entry->d_name);
        if (name == "." || name == "..") continue;
        EntryKind kind = EntryKind::Skip;
        IrregularKind irregular = IrregularKind::SymbolicLink;
        if (error_code code = kindOf(fd, *entry, kind, irregular)) return code;
        const bool wanted = (kind == EntryKind::File && listing.files != nullptr) ||
                            (kind == EntryKind::Folder && recursive) ||
                            (kind == EntryKind::Irregular && listing.irregular != nullptr);
        if (wanted) frame.children.push_back({std::string(name), kind, irregular});
    }
    if (errno != 0) return lastError();
    sortChildren(frame);
    return {};
}

// Lists folder, and with recursive its subfolders, into listing: depth
// first, each folder's entries in order, so that the paths come out in the
// order of std::less. Throws naming the folder that failed.
void listTree(const std::u16string& folder, const Listing& listing, bool recursive) {
    // Frames outlive the folders they walked, so that their memory serves the next folder at that depth.
    std::vector<Frame> frames(1);
    if (error_code code = nativePath(folder, frames.front().native))
        fail("Cannot list folder " + display(folder), code);
    frames.front().prefix = folder;
    // A relative folder would be resolved against whatever the current folder is at each test.
    detail::ListedFolders* const folders = !folder.empty() && folder.front() == u'/' ? listing.folders : nullptr;
    std::size_t depth = 0;
    const auto enter = [&](bool named) {
        Frame& frame = frames[depth];
        if (error_code code = listFolder(frame, named, listing, recursive)) {
            fail("Cannot list folder " + display(frame.prefix), code);
        }
        const auto files = static_cast<std::size_t>(std::count_if(
            frame.children.begin(), frame.children.end(), [](const Child& c) { return c.kind == EntryKind::File; }));
        if (folders != nullptr && files > 0) folders->add(frame.prefix, frame.native.size(), files);
        ++depth;
    };
    enter(true);
    while (depth > 0) {
        Frame& frame = frames[depth - 1];
        if (frame.next == frame.order.size()) {
            --depth;
            continue;
        }
        const Child& child = frame.children[frame.order[frame.next++]];
        switch (child.kind) {
            case EntryKind::File: appendChildPath(listing.files->emplace_back(), frame.prefix, child.name); break;
            case EntryKind::Folder: {
                if (depth == frames.size()) frames.emplace_back();
                const Frame& parent = frames[depth - 1];  // frame may have moved
                Frame& next = frames[depth];
                next.native.assign(parent.native).append(1, '/').append(child.name);
                next.prefix.clear();
                appendChildPath(next.prefix, parent.prefix, child.name);
                enter(false);
                break;
            }
            case EntryKind::Irregular: {
                IrregularEntry& found = listing.irregular->emplace_back();
                found.kind = child.irregular;
                appendChildPath(found.path, frame.prefix, child.name);
                break;
            }
            case EntryKind::Skip: break;
        }
    }
}

// ---- Copy ------------------------------------------------------------------------

// Moves every remaining byte from source to destination inside the kernel:
// copy_file_range where the file systems allow it (it may share extents),
// sendfile otherwise.
error_code copyContent(int source, int destination) {
    constexpr std::size_t kChunk = std::size_t{1} << 30;
    bool rangeCopyWorks = true;
    for (;;) {
        ssize_t copied = -1;
        if (rangeCopyWorks) {
            copied = ::copy_file_range(source, nullptr, destination, nullptr, kChunk, 0);
            if (copied < 0 && (errno == EXDEV || errno == ENOSYS || errno == EOPNOTSUPP || errno == EINVAL)) {
                rangeCopyWorks = false;
                continue;
            }
        } else {
            copied = ::sendfile(destination, source, nullptr, kChunk);
        }
        if (copied < 0) {
            if (errno == EINTR) continue;
            return lastError();
        }
        if (copied == 0) return {};
    }
}

// keepAttributes: the copy gets the source's exact mode and, where the
// process may set them, its owner and group (a copy into a staging folder).
error_code copyFile(const std::u16string& from, const std::u16string& to, ExistsMode existsMode, bool keepAttributes) {
    Descriptor source;
    struct stat sourceInfo {};
    if (error_code code = openRegularFile(from, O_RDONLY, source, sourceInfo)) return code;

    const bool mustBeNew = existsMode != ExistsMode::Overwrite;
    Descriptor destination;
    error_code code =
        openFile(to, O_WRONLY | O_CREAT | (mustBeNew ? O_EXCL : 0), destination, sourceInfo.st_mode & 0777);
    if (code == error_code(EEXIST, boost::system::system_category()) && existsMode == ExistsMode::Skip) return {};
    if (code) return code;

    struct stat destinationInfo {};
    if (::fstat(destination.get(), &destinationInfo) != 0) return lastError();
    if (destinationInfo.st_dev == sourceInfo.st_dev && destinationInfo.st_ino == sourceInfo.st_ino) {
        return systemError(EINVAL);  // a file copied onto itself would be emptied
    }
    if (destinationInfo.st_size != 0 && ::ftruncate(destination.get(), 0) != 0) code = lastError();
    if (!code) code = copyContent(source.get(), destination.get());
    if (!code && keepAttributes) {
        if (destinationInfo.st_uid != sourceInfo.st_uid || destinationInfo.st_gid != sourceInfo.st_gid) {
            (void)::fchown(destination.get(), sourceInfo.st_uid, sourceInfo.st_gid);
        }
        if ((destinationInfo.st_mode & 07777) != (sourceInfo.st_mode & 07777) &&
            ::fchmod(destination.get(), sourceInfo.st_mode & 07777) != 0) {
            code = lastError();
        }
    }
    if (const error_code closed = destination.close(); !code) code = closed;
    if (code) {
        std::string native;
        if (!nativePath(to, native)) ::unlink(native.c_str());  // no half-written copy stays behind
    }
    return code;
}

error_code renameNoReplace(const std::u16string& from, const std::u16string& to) {
    std::string nativeFrom;
    std::string nativeTo;
    if (error_code code = nativePath(from, nativeFrom)) return code;
    if (error_code code = nativePath(to, nativeTo)) return code;
    if (::renameat2(AT_FDCWD, nativeFrom.c_str(), AT_FDCWD, nativeTo.c_str(), RENAME_NOREPLACE) == 0) return {};
    if (errno != EINVAL && errno != ENOSYS) return lastError();
    // A file system without RENAME_NOREPLACE: test, then rename. Not atomic,
    // but it still never clobbers what it can see.
    struct stat info {};
    if (::lstat(nativeTo.c_str(), &info) == 0) return systemError(EEXIST);
    return ::rename(nativeFrom.c_str(), nativeTo.c_str()) == 0 ? error_code() : lastError();
}

// ---- Locks -----------------------------------------------------------------------

// flock(2) locks belong to the open file, not to the process: the kernel
// drops one when its last descriptor closes, also when the process dies, and
// two opens of one file in one process exclude each other as two processes do.
class DescriptorLock final : public FileLock {
public:
    explicit DescriptorLock(int descriptor) : fd(descriptor) {}
    DescriptorLock(const DescriptorLock&) = delete;
    DescriptorLock& operator=(const DescriptorLock&) = delete;
    ~DescriptorLock() override { ::close(fd); }

private:
    int fd;
};

// A link or a FIFO planted under the lock's name is refused, never followed
// or waited on.
error_code openLockFile(const std::u16string& path, Descriptor& file) {
    if (error_code code = openFile(path, O_RDONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY, file)) return code;
    struct stat info {};
    if (::fstat(file.get(), &info) != 0) return lastError();
    return refuseIrregular(info);
}

// Whether the file at path is the open file fd; a missing path is not.
error_code isFileAt(const std::u16string& path, int fd, bool& same) {
    std::string native;
    if (error_code code = nativePath(path, native)) return code;
    struct stat open {};
    struct stat atPath {};
    if (::fstat(fd, &open) != 0) return lastError();
    if (::lstat(native.c_str(), &atPath) != 0) {
        if (errno != ENOENT) return lastError();
        same = false;
        return {};
    }
    same = atPath.st_dev == open.st_dev && atPath.st_ino == open.st_ino;
    return {};
}

// flock(2) has no time-out: a bounded wait polls, pausing a little longer
// each time, so that a waiter neither spins nor sleeps long past a release.
error_code lockDescriptor(int fd, int operation, std::optional<std::chrono::nanoseconds> timeout, bool& granted) {
    using std::chrono::steady_clock;
    const auto start = steady_clock::now();
    const bool bounded = timeout && *timeout < steady_clock::time_point::max() - start;
    if (!bounded) {
        while (::flock(fd, operation) != 0) {
            if (errno != EINTR) return lastError();
        }
        granted = true;
        return {};
    }
    const auto deadline = start + std::max(*timeout, std::chrono::nanoseconds::zero());
    std::chrono::nanoseconds pause = std::chrono::microseconds(100);
    for (;;) {
        if (::flock(fd, operation | LOCK_NB) == 0) {
            granted = true;
            return {};
        }
        if (errno == EINTR) continue;
        if (errno != EWOULDBLOCK) return lastError();
        const auto now = steady_clock::now();
        if (now >= deadline) return {};
        std::this_thread::sleep_for(std::min<std::chrono::nanoseconds>(pause, deadline - now));
        pause = std::min<std::chrono::nanoseconds>(pause * 2, std::chrono::milliseconds(8));
    }
}

error_code sizeOfFile(const std::u16string& path, std::uint64_t& size) {
    std::string native;
    if (error_code code = nativePath(path, native)) return code;
    // The file an input stream would read, or the same refusal.
    struct stat info {};
    if (::lstat(native.c_str(), &info) != 0) return lastError();
    if (S_ISLNK(info.st_mode)) return systemError(ELOOP);
    if (error_code code = refuseIrregular(info)) return code;
    size = static_cast<std::uint64_t>(info.st_size);
    return {};
}

error_code replaceWithFile(const std::u16string& from, const std::u16string& to, bool durable) {
    std::string nativeFrom;
    std::string nativeTo;
    if (error_code code = nativePath(from, nativeFrom)) return code;
    if (error_code code = nativePath(to, nativeTo)) return code;
    Descriptor file;
    struct stat info {};
    if (error_code code = openRegularFile(from, O_RDONLY, file, info)) return code;
    if (durable && ::fsync(file.get()) != 0) return lastError();
    // From is a regular file, so rename(2) itself refuses a folder at to.
    if (::rename(nativeFrom.c_str(), nativeTo.c_str()) != 0) return lastError();
    if (!durable) return {};
    // The new name reaches the disk with its folder.
    const std::size_t slash = nativeTo.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : nativeTo.substr(0, slash + 1);
    const Descriptor parent(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (parent.get() < 0 || ::fsync(parent.get()) != 0) return lastError();
    return {};
}

// Absolute, without an empty, "." or ".." segment and without a trailing
// separator: what normalizing gives back unchanged. Callers mostly pass such
// paths, which then cost one copy.
bool isNormal(std::u16string_view path) {
    if (path.empty() || path.front() != u'/') return false;
    if (path.size() == 1) return true;
    for (std::size_t start = 1;;) {
        std::size_t end = path.find(u'/', start);
        if (end == std::u16string_view::npos) end = path.size();
        const std::u16string_view segment = path.substr(start, end - start);
        if (segment.empty() || segment == u"." || segment == u"..") return false;
        if (end == path.size()) return true;
        start = end + 1;
    }
}

std::u16string currentFolder() {
    std::string buffer(256, '\0');
    while (::getcwd(buffer.data(), buffer.size()) == nullptr) {
        if (errno != ERANGE) fail("Cannot read the current folder", lastError());
        buffer.resize(buffer.size() * 2);
    }
    buffer.resize(std::char_traits<char>::length(buffer.c_str()));
    return NameCodec::decode(buffer);
}

}  // namespace

LocalFileSystemOps::LocalFileSystemOps() : staging(std::make_unique<detail::StagingArea>()) {}

LocalFileSystemOps::~LocalFileSystemOps() = default;

void LocalFileSystemOps::setDurable(bool durable) { staging->durable = durable; }

bool LocalFileSystemOps::isDurable() const { return staging->durable; }

std::string LocalFileSystemOps::toNativePath(std::u16string_view path) { return NameCodec::encode(path); }

std::u16string LocalFileSystemOps::fromNativePath(std::string_view nativePath) { return NameCodec::decode(nativePath); }

std::u16string LocalFileSystemOps::appendPathImpl(const std::u16string& folder, const std::u16string& relativePath) {
    std::u16string path;
    path.reserve(folder.size() + 1 + relativePath.size());
    path = folder;
    if (path.empty() || path.back() != u'/') path += u'/';
    path += relativePath;
    return path;
}

std::u16string LocalFileSystemOps::normalizePathImpl(const std::u16string& path) {
    if (isNormal(path)) return path;
    const std::u16string absolute =
        !path.empty() && path.front() == u'/' ? path : LocalFileSystemOps::appendPathImpl(currentFolder(), path);
    std::vector<std::u16string_view> segments;
    const std::u16string_view rest(absolute);
    for (std::size_t start = 0; start < rest.size();) {
        std::size_t end = rest.find(u'/', start);
        if (end == std::u16string_view::npos) end = rest.size();
        const std::u16string_view segment = rest.substr(start, end - start);
        if (segment == u"..") {
            if (!segments.empty()) segments.pop_back();
        } else if (!segment.empty() && segment != u".") {
            segments.push_back(segment);
        }
        start = end + 1;
    }
    if (segments.empty()) return u"/";
    std::u16string normalized;
    normalized.reserve(absolute.size());
    for (const std::u16string_view segment : segments) {
        normalized += u'/';
        normalized += segment;
    }
    return normalized;
}

std::u16string LocalFileSystemOps::getParentPathImpl(const std::u16string& path) {
    const std::size_t slash = path.find_last_of(u'/');
    if (slash == std::u16string::npos) return {};
    if (slash == 0) return u"/";
    return path.substr(0, slash);
}

std::u16string LocalFileSystemOps::getTempNameImpl(const std::u16string& folder) {
    for (;;) {
        const std::string hidden = detail::randomHiddenName();
        const std::u16string name(hidden.begin(), hidden.end());  // ASCII
        std::u16string candidate = LocalFileSystemOps::appendPathImpl(folder, name);
        std::string native;
        if (error_code code = nativePath(candidate, native))
            fail("Cannot make a temporary name in " + display(folder), code);
        struct stat info {};
        if (::lstat(native.c_str(), &info) != 0) {
            if (errno == ENOENT || errno == ENOTDIR) {
                staging->handedOut(native);
                return candidate;
            }
            fail("Cannot make a temporary name in " + display(folder), lastError());
        }
    }
}

void LocalFileSystemOps::dropListing() noexcept {
    if (listed) listed->clear();
}

bool LocalFileSystemOps::existsImpl(const std::u16string& path) {
    const std::size_t slash = path.rfind(u'/');
    if (listed && !listed->empty() && slash != std::u16string::npos) {
        const std::u16string_view name = std::u16string_view(path).substr(slash + 1);
        if (!name.empty() && name != u"." && name != u"..") {
            const SystemPath nativeName(name);
            const std::optional<bool> found =
                nativeName.error() ? std::nullopt
                                   : listed->exists(std::u16string_view(path).substr(0, slash), nativeName.c_str(),
                                                    std::char_traits<char>::length(nativeName.c_str()));
            if (found) return *found;
        }
    }
    // An access test resolves the path as stat() does but fills in nothing.
    const SystemPath native(path);
    return !native.error() && ::faccessat(AT_FDCWD, native.c_str(), F_OK, AT_EACCESS) == 0;
}

bool LocalFileSystemOps::isFolderImpl(const std::u16string& path) {
    std::string native{};
    return !nativePath(path, native) && isFolderNative(native);
}

void LocalFileSystemOps::getFilesImpl(const std::u16string& folder,
                                      std::vector<std::u16string>& files,
                                      bool recursive) {
    dropListing();
    if (!listed) listed = std::make_unique<detail::ListedFolders>();
    // Gathered in blocks and moved into files at once: growing a vector of a
    // large listing step by step would touch each of its sizes in new memory.
    std::deque<std::u16string> found;
    listTree(folder, Listing{&found, nullptr, listed.get()}, recursive);
    files.reserve(files.size() + found.size());
    std::move(found.begin(), found.end(), std::back_inserter(files));
}

void LocalFileSystemOps::getIrregularEntriesImpl(const std::u16string& folder, std::vector<IrregularEntry>& entries) {
    listTree(folder, Listing{nullptr, &entries}, true);
}

error_code LocalFileSystemOps::createFoldersTracked(const std::u16string& path) {
    dropListing();  // a staging folder that cannot be locked is removed again
    std::string native;
    if (error_code code = nativePath(path, native)) return code;
    return staging->createFolders(native, [&] { return createFoldersAt(path); });
}

void LocalFileSystemOps::createFoldersImpl(const std::u16string& path) {
    if (error_code code = createFoldersTracked(path)) fail("Cannot create folder " + display(path), code);
}

void LocalFileSystemOps::createFoldersImpl(const std::u16string& path, boost::system::error_code& errorCode) noexcept {
    reportInto(errorCode, [&] { return createFoldersTracked(path); });
}

std::shared_ptr<std::istream> LocalFileSystemOps::createInputStreamImpl(const std::u16string& path,
                                                                        std::ios_base::openmode openMode,
                                                                        boost::system::error_code& errorCode) noexcept {
    std::shared_ptr<std::istream> stream;
    reportInto(errorCode, [&] {
        if (!(openMode & std::ios_base::in)) return systemError(EINVAL);
        Descriptor file;
        struct stat info {};
        if (error_code code = openRegularFile(path, (openMode & std::ios_base::out) ? O_RDWR : O_RDONLY, file, info))
            return code;
        auto opened = std::make_shared<DescriptorStream<std::istream>>(file.get(), openMode);
        if (!opened->good()) return systemError(EIO);
        file.release();  // the stream's buffer owns it now
        stream = std::move(opened);
        return error_code();
    });
    return stream;
}

std::shared_ptr<std::ostream> LocalFileSystemOps::createOutputStreamImpl(
    const std::u16string& path, std::ios_base::openmode openMode, boost::system::error_code& errorCode) noexcept {
    std::shared_ptr<std::ostream> stream;
    reportInto(errorCode, [&] {
        int flags = 0;
        if (error_code code = outputFlags(openMode, flags)) return code;
        Descriptor file;
        // No folder test here: open(2) refuses to open a folder for writing
        // (EISDIR), which saves a system call on every part written.
        if (error_code code = openFile(path, flags, file)) return code;
        stream = staging->outputStream(NameCodec::encode(path), file.release());
        return error_code();
    });
    return stream;
}

void LocalFileSystemOps::copyImpl(const std::u16string& from, const std::u16string& to, ExistsMode existsMode) {
    if (error_code code = copyFile(from, to, existsMode, staging->isStaged(NameCodec::encode(to))))
        fail("Cannot copy " + display(from) + " to " + display(to), code);
}

void LocalFileSystemOps::renameImpl(const std::u16string& from, const std::u16string& to) {
    dropListing();
    if (error_code code =
            staging->rename(NameCodec::encode(from), NameCodec::encode(to), [&] { return renameNoReplace(from, to); }))
        fail("Cannot rename " + display(from) + " to " + display(to), code);
}

error_code LocalFileSystemOps::removeAllTracked(const std::u16string& path) {
    dropListing();
    return staging->removeAll(NameCodec::encode(path), [&] { return removeAllAt(path); });
}

void LocalFileSystemOps::removeAllImpl(const std::u16string& path) {
    if (error_code code = removeAllTracked(path)) fail("Cannot remove " + display(path), code);
}

void LocalFileSystemOps::removeAllImpl(const std::u16string& path, boost::system::error_code& errorCode) noexcept {
    reportInto(errorCode, [&] { return removeAllTracked(path); });
}

RecoveryReport LocalFileSystemOps::recoverImpl(const std::u16string& packagePath) {
    dropListing();
    const std::u16string path = LocalFileSystemOps::normalizePathImpl(packagePath);
    std::string native;
    RecoveryReport report;
    error_code code = nativePath(path, native);
    if (!code) code = detail::recoverPackage(native, staging->durable, report);
    if (code) fail("Cannot recover package " + display(path), code);
    return report;
}

std::unique_ptr<FileLock> LocalFileSystemOps::lockFileImpl(const std::u16string& path,
                                                           LockMode mode,
                                                           std::optional<std::chrono::nanoseconds> timeout) {
    if (mode != LockMode::Shared && mode != LockMode::Exclusive)
        fail("Cannot lock " + display(path), systemError(EINVAL));
    const auto start = std::chrono::steady_clock::now();
    for (;;) {
        std::optional<std::chrono::nanoseconds> left = timeout;
        if (timeout) left = *timeout - (std::chrono::steady_clock::now() - start);
        Descriptor file;
        bool granted = false;
        bool current = false;
        error_code code = openLockFile(path, file);
        if (!code) code = lockDescriptor(file.get(), mode == LockMode::Exclusive ? LOCK_EX : LOCK_SH, left, granted);
        if (!code && granted) code = isFileAt(path, file.get(), current);
        if (code) fail("Cannot lock " + display(path), code);
        if (!granted) return nullptr;
        if (!current) continue;  // removed or replaced while this waited: the file at path counts
        auto lock = std::make_unique<DescriptorLock>(file.get());
        file.release();  // the lock owns it now
        return lock;
    }
}

std::uint64_t LocalFileSystemOps::fileSizeImpl(const std::u16string& path) {
    std::uint64_t size = 0;
    if (error_code code = sizeOfFile(path, size)) fail("Cannot read the size of " + display(path), code);
    return size;
}

void LocalFileSystemOps::replaceFileImpl(const std::u16string& from, const std::u16string& to) {
    dropListing();
    if (error_code code = replaceWithFile(from, to, staging->durable))
        fail("Cannot replace " + display(to) + " by " + display(from), code);
}

}  // namespace opc
