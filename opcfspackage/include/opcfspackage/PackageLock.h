#pragma once

#include <opccore/FileLock.h>
#include <opccore/FileSystemOps.h>
#include <opcfspackage/Export.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>

namespace opc::fspackage {

// A lock by which processes take turns on the package at a path: any number
// of readers hold it shared, one writer holds it exclusive. It is advisory:
// it protects a package from the processes that take it, so every process
// that may write the package must take it, exclusive, from before open until
// after close; readers take it shared.
//
// The lock is held on a hidden file beside the package folder, named
// ".opc-lock-" + the folder's name (a long name is shortened and completed
// by a fingerprint of the whole, so the file's name stays within NAME_MAX).
// That file is made on first use and never renamed or removed, so the lock
// is the same before the package exists and across every commit that
// replaces the package folder. The folder that holds the package must exist.
//
// The kernel releases the lock when its holder dies, however it dies. Locks
// conflict within one process as between processes: a thread that holds the
// lock exclusive and takes it again waits for itself.
class OPCFSPACKAGE_EXPORT PackageLock {
public:
    // Takes the lock on the package at the normalised packagePath, through
    // service. Without a timeout waits as long as it takes; with one, at most
    // that long (zero: only tries).
    //
    // Throws "Timed out waiting for the package lock"
    // (errc::timed_out, generic category) when the time ran out; "Could not
    // lock the package: " + the code's text, carrying the code, when the
    // service failed. Either way nothing is held and nothing was written
    // beyond the lock file.
    PackageLock(const std::u16string& packagePath,
                opc::LockMode mode,
                opc::FileSystemOps& service,
                std::optional<std::chrono::nanoseconds> timeout = std::nullopt);
    // The same through a LocalFileSystemOps of its own.
    PackageLock(const std::u16string& packagePath,
                opc::LockMode mode,
                std::optional<std::chrono::nanoseconds> timeout = std::nullopt);

    PackageLock(const PackageLock&) = delete;
    PackageLock& operator=(const PackageLock&) = delete;

    // Releases the lock; the lock file stays.
    ~PackageLock();

    opc::LockMode getMode() const;
    // The lock file: "/data/report" => "/data/.opc-lock-report".
    const std::u16string& getLockPath() const;

private:
    void acquire(opc::FileSystemOps& service,
                 const std::u16string& packagePath,
                 std::optional<std::chrono::nanoseconds> timeout);

    opc::LockMode mode;
    std::u16string lockPath;
    std::unique_ptr<opc::FileLock> lock;
};

}  // namespace opc::fspackage
