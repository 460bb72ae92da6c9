#pragma once

#include <opccore/RecoveryReport.h>

#include <boost/system/error_code.hpp>

#include <sys/types.h>

#include <functional>
#include <memory>
#include <optional>
#include <ostream>
#include <set>
#include <string>
#include <vector>

namespace opc::detail {

using boost::system::error_code;

// A file descriptor that closes itself.
class Fd {
public:
    explicit Fd(int descriptor = -1) : fd(descriptor) {}
    Fd(Fd&& other) noexcept : fd(other.release()) {}
    Fd& operator=(Fd&& other) noexcept;
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    ~Fd();
    int get() const { return fd; }
    int release();
    explicit operator bool() const { return fd >= 0; }

private:
    int fd;
};

error_code systemError(int value);
error_code lastError();
std::string parentOf(const std::string& path);
std::string baseNameOf(const std::string& path);
// A folder opened for flock, fsync and the *at calls.
error_code openFolder(const std::string& path, Fd& folder);
// A hidden name beside a package: ".opc-" and 16 random hex digits, drawn
// afresh from the system each time, so that a forked child does not repeat
// its parent's names.
std::string randomHiddenName();

// What a swap journal says: the package's name and the name it was moved
// aside to, both in the folder that holds the journal, and whether the swap
// was being undone.
struct SwapJournal {
    std::string package;
    std::string aside;
    bool undoing = false;

    std::string encode() const;
    static std::optional<SwapJournal> decode(const std::string& bytes);
    static bool isJournalName(const std::string& name);
};

// The commit-time state of one LocalFileSystemOps: names handed out, staging
// folders with their locks and write errors, and swaps in progress. Paths are
// native (bytes).
class StagingArea {
public:
    using Operation = std::function<error_code()>;

    StagingArea();
    StagingArea(const StagingArea&) = delete;
    StagingArea& operator=(const StagingArea&) = delete;
    ~StagingArea();

    bool durable = true;

    void handedOut(const std::string& path);

    // makeFolders does the plain creation of path and the folders above it.
    error_code createFolders(const std::string& path, const Operation& makeFolders);
    // Wraps a freshly opened output file; its errors go to the staging
    // folder that holds it.
    std::shared_ptr<std::ostream> outputStream(const std::string& path, int fd);
    // Whether a copy to path is made into a staging folder.
    bool isStaged(const std::string& path) const;
    error_code rename(const std::string& from, const std::string& to, const Operation& plainRename);
    error_code removeAll(const std::string& path, const Operation& plainRemove);

private:
    struct Staging;
    struct Swap;

    std::shared_ptr<Staging> stagingAt(const std::string& root) const;
    std::shared_ptr<Staging> stagingHolding(const std::string& path) const;
    Swap* swapOf(const std::string& package, const std::string& aside);
    error_code createStaging(const std::string& path);
    error_code moveAside(const std::string& package, const std::string& aside, const Operation& plainRename);
    error_code publish(const std::shared_ptr<Staging>& staged, const std::string& to, const Operation& plainRename);
    error_code keepAttributes(const Staging& staged, const std::string& asidePath);
    error_code endSwap(const Swap& swap, bool restored);
    void dropSwap(const Swap& swap);
    void forget(const std::shared_ptr<Staging>& staged);

    // A vector, not a deque: a service is made for every lock taken, and an
    // empty deque already allocates.
    std::vector<std::string> names;
    std::vector<std::shared_ptr<Staging>> stagings;
    std::vector<std::unique_ptr<Swap>> swaps;
};

// Recovery of the package at path (native, normalised); see
// LocalFileSystemOps.
error_code recoverPackage(const std::string& path, bool durable, RecoveryReport& report);

}  // namespace opc::detail
