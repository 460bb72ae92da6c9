#include "StagingArea.h"

#include "OutputFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <random>
#include <utility>

namespace opc::detail {

Fd& Fd::operator=(Fd&& other) noexcept {
    if (this != &other) {
        if (fd >= 0) ::close(fd);
        fd = other.release();
    }
    return *this;
}

Fd::~Fd() {
    if (fd >= 0) ::close(fd);
}

int Fd::release() { return std::exchange(fd, -1); }

error_code systemError(int value) { return error_code(value, boost::system::system_category()); }

error_code lastError() { return systemError(errno); }

std::string parentOf(const std::string& path) {
    const std::size_t slash = path.find_last_of('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

std::string baseNameOf(const std::string& path) { return path.substr(path.find_last_of('/') + 1); }

error_code openFolder(const std::string& path, Fd& folder) {
    folder = Fd(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return folder ? error_code() : lastError();
}

std::string randomHiddenName() {
    std::random_device random;
    const std::uint64_t bits = (std::uint64_t{random()} << 32) ^ random();
    std::string name = ".opc-";
    for (int shift = 60; shift >= 0; shift -= 4) name += "0123456789abcdef"[(bits >> shift) & 0xF];
    return name;
}

namespace {

constexpr char kMagic[] = "OPCSWAP1";
constexpr std::size_t kStateOffset = sizeof kMagic - 1;
constexpr char kSwapping = 'S';
constexpr char kUndoing = 'U';
constexpr std::size_t kRememberedNames = 64;

bool startsWith(const std::string& text, const std::string& prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

bool endsWith(const std::string& text, const std::string& suffix) {
    return text.size() >= suffix.size() && text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

bool isPlainName(const std::string& name) {
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos &&
           name.find('\0') == std::string::npos;
}

error_code syncFolder(const std::string& path) {
    Fd folder;
    if (error_code code = openFolder(path, folder)) return code;
    return ::fsync(folder.get()) == 0 ? error_code() : lastError();
}

// Owner and group are copied where the process may set them; a refusal is
// no failure.
void copyOwner(int folder, const char* name, const struct stat& from, const struct stat& to) {
    if (from.st_uid != to.st_uid || from.st_gid != to.st_gid) {
        (void)::fchownat(folder, name, from.st_uid, from.st_gid, AT_SYMLINK_NOFOLLOW | AT_EMPTY_PATH);
    }
}

}  // namespace

std::string SwapJournal::encode() const {
    std::string bytes(kMagic);
    bytes += undoing ? kUndoing : kSwapping;
    bytes.append(package).append(1, '\0').append(aside).append(1, '\0');
    return bytes;
}

std::optional<SwapJournal> SwapJournal::decode(const std::string& bytes) {
    if (bytes.size() <= kStateOffset || bytes.compare(0, kStateOffset, kMagic) != 0) return std::nullopt;
    const char state = bytes[kStateOffset];
    const std::size_t first = bytes.find('\0', kStateOffset + 1);
    if ((state != kSwapping && state != kUndoing) || first == std::string::npos || bytes.back() != '\0') {
        return std::nullopt;
    }
    SwapJournal journal;
    journal.undoing = state == kUndoing;
    journal.package = bytes.substr(kStateOffset + 1, first - kStateOffset - 1);
    journal.aside = bytes.substr(first + 1, bytes.size() - first - 2);
    if (!isPlainName(journal.package) || !isPlainName(journal.aside) || !startsWith(journal.aside, ".opc-")) {
        return std::nullopt;
    }
    return journal;
}

bool SwapJournal::isJournalName(const std::string& name) {
    return startsWith(name, ".opc-") && endsWith(name, ".journal");
}

struct StagingArea::Staging {
    std::string root;
    Fd folder;  // holds the lock
    mode_t createdMode = 0;
    std::vector<std::string> createdAbove;  // folders made to hold it, outermost first
    error_code writeError;
    std::set<std::string> files;    // written through output streams, relative to root
    std::set<std::string> folders;  // made in it, relative to root

    std::string relative(const std::string& path) const { return path.substr(root.size() + 1); }
};

struct StagingArea::Swap {
    std::string package;
    std::string aside;
    std::string journalName;
    Fd parent;
    Fd journal;  // holds the lock
    bool published = false;
};

StagingArea::StagingArea() = default;

StagingArea::~StagingArea() = default;

void StagingArea::handedOut(const std::string& path) {
    if (names.size() == kRememberedNames) names.erase(names.begin());
    names.push_back(path);
}

std::shared_ptr<StagingArea::Staging> StagingArea::stagingAt(const std::string& root) const {
    for (const auto& staged : stagings) {
        if (staged->root == root) return staged;
    }
    return nullptr;
}

std::shared_ptr<StagingArea::Staging> StagingArea::stagingHolding(const std::string& path) const {
    for (const auto& staged : stagings) {
        if (path.size() > staged->root.size() + 1 && startsWith(path, staged->root) &&
            path[staged->root.size()] == '/') {
            return staged;
        }
    }
    return nullptr;
}

StagingArea::Swap* StagingArea::swapOf(const std::string& package, const std::string& aside) {
    for (const auto& swap : swaps) {
        if (swap->package == package && swap->aside == aside) return swap.get();
    }
    return nullptr;
}

void StagingArea::forget(const std::shared_ptr<Staging>& staged) {
    stagings.erase(std::remove(stagings.begin(), stagings.end(), staged), stagings.end());
}

bool StagingArea::isStaged(const std::string& path) const { return stagingHolding(path) != nullptr; }

error_code StagingArea::createFolders(const std::string& path, const Operation& makeFolders) {
    if (const auto name = std::find(names.begin(), names.end(), path); name != names.end()) {
        names.erase(name);
        return createStaging(path);
    }
    error_code code = makeFolders();
    if (const auto staged = code ? nullptr : stagingHolding(path)) {
        for (std::string folder = staged->relative(path);; folder = parentOf(folder)) {
            if (!staged->folders.insert(folder).second || folder.find('/') == std::string::npos) break;
        }
    }
    return code;
}

error_code StagingArea::createStaging(const std::string& path) {
    auto staged = std::make_shared<Staging>();
    staged->root = path;
    // In mode Create the package's own folder may be missing; what is made
    // here is synced with the package.
    for (std::string above = parentOf(path); above != "/" && above != ".";) {
        struct stat info {};
        if (::lstat(above.c_str(), &info) == 0 || errno != ENOENT) break;
        staged->createdAbove.insert(staged->createdAbove.begin(), above);
        above = parentOf(above);
    }
    for (const std::string& above : staged->createdAbove) {
        if (::mkdir(above.c_str(), 0777) != 0 && errno != EEXIST) return lastError();
    }
    // recover() lists the folder under an exclusive lock on it, so it never
    // finds this folder made but not yet locked.
    Fd parent;
    if (error_code code = openFolder(parentOf(path), parent)) return code;
    if (::flock(parent.get(), LOCK_SH) != 0) return lastError();
    if (::mkdir(path.c_str(), 0777) != 0) return lastError();
    staged->folder = Fd(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat info {};
    error_code code;
    if (!staged->folder || ::flock(staged->folder.get(), LOCK_EX | LOCK_NB) != 0 ||
        ::fstat(staged->folder.get(), &info) != 0 || ::fchmod(staged->folder.get(), 0700) != 0) {
        code = lastError();
        ::rmdir(path.c_str());
        return code;
    }
    staged->createdMode = info.st_mode & 07777;
    stagings.push_back(std::move(staged));
    return {};
}

std::shared_ptr<std::ostream> StagingArea::outputStream(const std::string& path, int fd) {
    std::unique_ptr<OutputFile> file;
    try {
        file = std::make_unique<OutputFile>(fd);
    } catch (...) {
        ::close(fd);
        throw;
    }
    const auto staged = stagingHolding(path);
    if (staged) staged->files.insert(staged->relative(path));
    std::weak_ptr<Staging> owner = staged;
    return std::shared_ptr<std::ostream>(file.release(), [owner](OutputFile* released) {
        const error_code code = released->finish();
        if (const auto holder = owner.lock(); holder && code && !holder->writeError) holder->writeError = code;
        delete released;
    });
}

error_code StagingArea::rename(const std::string& from, const std::string& to, const Operation& plainRename) {
    if (const auto staged = stagingAt(from)) return publish(staged, to, plainRename);
    if (const auto name = std::find(names.begin(), names.end(), to); name != names.end()) {
        names.erase(name);
        if (parentOf(from) == parentOf(to)) return moveAside(from, to, plainRename);
    }
    if (Swap* swap = swapOf(to, from)) {
        if (error_code code = plainRename()) {
            dropSwap(*swap);
            return code;
        }
        return endSwap(*swap, true);
    }
    return plainRename();
}

error_code StagingArea::moveAside(const std::string& package, const std::string& aside, const Operation& plainRename) {
    auto swap = std::make_unique<Swap>();
    swap->package = package;
    swap->aside = aside;
    if (error_code code = openFolder(parentOf(package), swap->parent)) return code;
    const int parent = swap->parent.get();
    // As for staging folders: recover() never sees the journal unlocked.
    if (::flock(parent, LOCK_SH) != 0) return lastError();
    // Named after the aside, so that a journal cut short still says which
    // folder it guards.
    for (std::string name = baseNameOf(aside);; name = randomHiddenName()) {
        swap->journalName = name + ".journal";
        swap->journal =
            Fd(::openat(parent, swap->journalName.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
        if (swap->journal || errno != EEXIST) break;
    }
    if (!swap->journal) return lastError();
    error_code code;
    if (::flock(swap->journal.get(), LOCK_EX | LOCK_NB) != 0) code = lastError();
    (void)::flock(parent, LOCK_UN);

    const std::string bytes = SwapJournal{baseNameOf(package), baseNameOf(aside), false}.encode();
    if (!code && ::write(swap->journal.get(), bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) {
        code = errno != 0 ? lastError() : systemError(EIO);
    }
    if (!code && durable && (::fsync(swap->journal.get()) != 0 || ::fsync(parent) != 0)) code = lastError();
    if (!code) code = plainRename();
    if (code) {
        ::unlinkat(parent, swap->journalName.c_str(), 0);
        return code;
    }
    swaps.push_back(std::move(swap));
    return {};
}

// A commit that cannot be made durable fails like any other: the package
// undoes it and the old package comes back.
error_code StagingArea::publish(const std::shared_ptr<Staging>& staged,
                                const std::string& to,
                                const Operation& plainRename) {
    if (staged->writeError) return staged->writeError;
    Swap* swap = nullptr;
    for (const auto& candidate : swaps) {
        if (candidate->package == to && !candidate->published) swap = candidate.get();
    }
    if (error_code code = keepAttributes(*staged, swap != nullptr ? swap->aside : std::string())) return code;
    if (durable && ::syncfs(staged->folder.get()) != 0) return lastError();
    if (error_code code = plainRename()) return code;
    if (swap != nullptr) swap->published = true;
    const std::vector<std::string> createdAbove = staged->createdAbove;
    forget(staged);
    if (!durable) return {};
    if (error_code code = syncFolder(parentOf(to))) return code;
    for (const std::string& above : createdAbove) {
        if (error_code code = syncFolder(parentOf(above))) return code;
    }
    return {};
}

// The staging folder takes the mode, owner and group of the folder moved
// aside, and each entry made in it those of the entry it replaces. Without
// an old package the folder gets the mode it was made with.
error_code StagingArea::keepAttributes(const Staging& staged, const std::string& asidePath) {
    const int root = staged.folder.get();
    Fd aside;
    struct stat old {};
    const bool hasOld = !asidePath.empty() && !openFolder(asidePath, aside) && ::fstat(aside.get(), &old) == 0;
    if (!hasOld) return ::fchmod(root, staged.createdMode) == 0 ? error_code() : lastError();

    struct stat mine {};
    if (::fstat(root, &mine) != 0) return lastError();
    copyOwner(root, "", old, mine);
    if (::fchmod(root, old.st_mode & 07777) != 0) return lastError();
    for (const auto* entries : {&staged.folders, &staged.files}) {
        for (const std::string& entry : *entries) {
            struct stat before {};
            if (::fstatat(root, entry.c_str(), &mine, AT_SYMLINK_NOFOLLOW) != 0) continue;
            if (::fstatat(aside.get(), entry.c_str(), &before, AT_SYMLINK_NOFOLLOW) == 0 &&
                (before.st_mode & S_IFMT) == (mine.st_mode & S_IFMT)) {
                copyOwner(root, entry.c_str(), before, mine);
                if (::fchmodat(root, entry.c_str(), before.st_mode & 07777, 0) != 0) return lastError();
            } else if ((old.st_mode & S_ISGID) != 0 && mine.st_gid != old.st_gid) {
                // What a new entry of a set-group-ID folder gets.
                (void)::fchownat(root, entry.c_str(), static_cast<uid_t>(-1), old.st_gid, AT_SYMLINK_NOFOLLOW);
                if (S_ISDIR(mine.st_mode)) (void)::fchmodat(root, entry.c_str(), (mine.st_mode & 07777) | S_ISGID, 0);
            }
        }
    }
    return {};
}

error_code StagingArea::removeAll(const std::string& path, const Operation& plainRemove) {
    for (const auto& swap : swaps) {
        if (swap->aside == path) {
            if (error_code code = plainRemove()) return code;
            return endSwap(*swap, false);
        }
        if (swap->package == path) {
            // Whatever lies at the package path goes, and the old package
            // comes back: recover() must finish that, not the swap.
            const char state = kUndoing;
            if (::pwrite(swap->journal.get(), &state, 1, kStateOffset) != 1) return lastError();
            if (durable && ::fsync(swap->journal.get()) != 0) return lastError();
            error_code code = plainRemove();
            if (code) dropSwap(*swap);
            return code;
        }
    }
    // A folder that could not be removed is given up all the same: unlocked,
    // it is left to recover().
    if (const auto staged = stagingAt(path)) {
        error_code code = plainRemove();
        forget(staged);
        return code;
    }
    return plainRemove();
}

error_code StagingArea::endSwap(const Swap& swap, bool restored) {
    // The old package must be back for good before the journal that would
    // put it back goes.
    if (restored && durable && ::fsync(swap.parent.get()) != 0) {
        const error_code code = lastError();
        dropSwap(swap);
        return code;
    }
    ::unlinkat(swap.parent.get(), swap.journalName.c_str(), 0);
    dropSwap(swap);
    return {};
}

// Once an undo step failed, nothing more comes of the swap in this process;
// its journal, unlocked, is left to recover().
void StagingArea::dropSwap(const Swap& swap) {
    swaps.erase(std::find_if(swaps.begin(), swaps.end(), [&](const auto& entry) { return entry.get() == &swap; }));
}

}  // namespace opc::detail
