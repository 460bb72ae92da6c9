#include "StagingArea.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <set>

namespace opc::detail {
namespace {

// An entry beside the package whose lock recovery took: its process is gone.
struct Abandoned {
    std::string name;
    Fd file;
    dev_t device = 0;
    ino_t inode = 0;
};

struct Survey {
    std::vector<Abandoned> folders;
    std::vector<Abandoned> journals;
    std::vector<std::string> liveJournals;
};

bool isHiddenEntry(const char* name) { return std::string(name).rfind(".opc-", 0) == 0; }

// The form of the names getTempName() hands out: ".opc-" and 16 lowercase
// hexadecimal digits. A hidden folder of any other name is not the library's.
bool isTemporaryName(const std::string& name) {
    return name.size() == 21 && name.rfind(".opc-", 0) == 0 &&
           name.find_first_not_of("0123456789abcdef", 5) == std::string::npos;
}

// The folder a journal guards by its own name: ".opc-x.journal" => ".opc-x".
std::string asideOfJournalName(const std::string& journalName) {
    return journalName.substr(0, journalName.size() - std::string(".journal").size());
}

// Takes the lock of every ".opc-" folder and journal in the folder that no
// live process holds. Runs under the folder's exclusive lock, which those
// that make such entries hold shared until they have locked them.
error_code survey(int parent, Survey& found) {
    if (::flock(parent, LOCK_EX) != 0) return lastError();
    Fd listing(::openat(parent, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    DIR* stream = listing ? ::fdopendir(listing.get()) : nullptr;
    if (stream == nullptr) return lastError();
    listing.release();
    error_code code;
    for (;;) {
        errno = 0;
        const dirent* entry = ::readdir(stream);
        if (entry == nullptr) {
            if (errno != 0) code = lastError();
            break;
        }
        if (!isHiddenEntry(entry->d_name)) continue;
        struct stat info {};
        if (::fstatat(parent, entry->d_name, &info, AT_SYMLINK_NOFOLLOW) != 0) continue;
        const bool isJournal = S_ISREG(info.st_mode) && SwapJournal::isJournalName(entry->d_name);
        if (!isJournal && !S_ISDIR(info.st_mode)) continue;
        Fd file(::openat(parent, entry->d_name,
                         (isJournal ? O_RDWR : O_RDONLY | O_DIRECTORY) | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
        if (!file) continue;
        if (::flock(file.get(), LOCK_EX | LOCK_NB) != 0) {
            if (isJournal) found.liveJournals.emplace_back(entry->d_name);
            continue;
        }
        (isJournal ? found.journals : found.folders)
            .push_back({entry->d_name, std::move(file), info.st_dev, info.st_ino});
    }
    ::closedir(stream);
    (void)::flock(parent, LOCK_UN);
    return code;
}

std::optional<SwapJournal> readJournal(int file) {
    std::string bytes(std::size_t{8192}, '\0');
    const ssize_t got = ::pread(file, bytes.data(), bytes.size(), 0);
    if (got < 0) return std::nullopt;
    bytes.resize(static_cast<std::size_t>(got));
    return SwapJournal::decode(bytes);
}

bool isFolderAt(int parent, const std::string& name) {
    struct stat info {};
    return ::fstatat(parent, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(info.st_mode);
}

error_code removeTree(const std::string& path) {
    std::error_code code;
    std::filesystem::remove_all(std::filesystem::path(path), code);
    return code ? systemError(code.value()) : error_code();
}

// Ends the swap a dead process left: the old package back, or the new one
// kept. The parent is synced before the journal goes.
error_code finishSwap(
    int parent, const std::string& folder, const SwapJournal& journal, bool durable, RecoveryReport& report) {
    const std::string package = folder + "/" + journal.package;
    const std::string aside = folder + "/" + journal.aside;
    struct stat info {};
    const bool hasPackage = ::fstatat(parent, journal.package.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0;
    const bool hasAside = isFolderAt(parent, journal.aside);
    if (hasAside && (journal.undoing || !hasPackage)) {
        if (hasPackage) {
            if (error_code code = removeTree(package)) return code;
        }
        if (::renameat2(parent, journal.aside.c_str(), parent, journal.package.c_str(), RENAME_NOREPLACE) != 0) {
            return lastError();
        }
        report.swap = RecoveryReport::Swap::RestoredOld;
    } else if (hasAside) {
        if (error_code code = removeTree(aside)) return code;
        report.swap = RecoveryReport::Swap::CompletedNew;
    }
    if (durable && ::fsync(parent) != 0) return lastError();
    return {};
}

}  // namespace

error_code recoverPackage(const std::string& path, bool durable, RecoveryReport& report) {
    report = RecoveryReport();
    const std::string folder = parentOf(path);
    const std::string name = baseNameOf(path);
    Fd parent;
    if (error_code code = openFolder(folder, parent)) {
        return code == systemError(ENOENT) ? error_code() : code;
    }
    Survey found;
    if (error_code code = survey(parent.get(), found)) return code;

    // Folders that a journal still names are a package moved aside: never
    // removed here unless the swap of this very package is being ended.
    std::set<std::string> named;
    for (const std::string& live : found.liveJournals) {
        Fd file(::openat(parent.get(), live.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
        const auto journal = file ? readJournal(file.get()) : std::nullopt;
        named.insert(journal ? journal->aside : asideOfJournalName(live));
        if (!journal) continue;
        if (journal->package == name) report.swap = RecoveryReport::Swap::InProgress;
    }
    for (const Abandoned& entry : found.journals) {
        const auto journal = readJournal(entry.file.get());
        if (journal && journal->package != name) {
            named.insert(journal->aside);  // another package's, for its own recovery
            continue;
        }
        if (!journal) {
            // Cut short: whose it is cannot be told. With the folder its name
            // guards still there it stays, and so does that folder, which
            // may be some package's only copy; otherwise it names nothing.
            const std::string aside = asideOfJournalName(entry.name);
            if (isFolderAt(parent.get(), aside)) {
                named.insert(aside);
                continue;
            }
        } else if (error_code code = finishSwap(parent.get(), folder, *journal, durable, report)) {
            return code;
        }
        if (::unlinkat(parent.get(), entry.name.c_str(), 0) != 0 && errno != ENOENT) return lastError();
    }
    for (const Abandoned& entry : found.folders) {
        struct stat info {};
        if (named.count(entry.name) != 0 || !isTemporaryName(entry.name) ||
            ::fstatat(parent.get(), entry.name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0 ||
            info.st_dev != entry.device || info.st_ino != entry.inode) {
            continue;  // named by a journal, not the library's, or renamed since it was surveyed
        }
        if (error_code code = removeTree(folder + "/" + entry.name)) return code;
        ++report.removedFolders;
    }
    if (durable && report.removedFolders > 0 && ::fsync(parent.get()) != 0) return lastError();
    report.packageExists = isFolderAt(parent.get(), name);
    return {};
}

}  // namespace opc::detail
