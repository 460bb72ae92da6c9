#pragma once

#include <opccore/Export.h>
#include <opccore/FileLock.h>
#include <opccore/RecoveryReport.h>

#include <boost/system/error_code.hpp>

#include <chrono>
#include <cstdint>
#include <ios>
#include <istream>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace opc {

// What copy() does when its destination exists.
enum class ExistsMode : std::int32_t {
    Fail = 0,       // throw
    Overwrite = 1,  // replace the destination's content
    Skip = 2,       // leave the destination as it is
};

// What lockFile() asks for.
enum class LockMode : std::int32_t {
    Shared = 0,     // held by any number of holders at once, none of them exclusive
    Exclusive = 1,  // held by one holder alone
};

// What getIrregularEntries() finds: an entry that is neither a file nor a
// folder, so that getFiles() does not list it.
enum class IrregularKind : std::int32_t {
    SymbolicLink = 0,  // to a file, to a folder, or dangling
    Fifo = 1,
    Socket = 2,
    Device = 3,  // block or character
};

struct IrregularEntry {
    std::u16string path;  // folder, "/" and the relative path, as getFiles() spells its entries
    IrregularKind kind = IrregularKind::SymbolicLink;
};

// Everything the OPC libraries do to a disk goes through one object of this
// class, so a caller can substitute, observe or fail any of it.
//
// For the whole class:
// - Paths are UTF-16 with "/" between segments and no trailing separator.
// - Operations taking a boost::system::error_code& are the reporting forms:
//   noexcept; on failure they set errorCode to a code that reports it; on
//   success they may leave errorCode untouched, so a caller clears it first.
// - Every other operation that can fail throws opc::Exception whose code()
//   reports the failure and whose code().message() names the cause, since
//   callers append that text to their own messages. Other exceptions (such as
//   std::bad_alloc) pass through unchanged.
// - No operation retries or sleeps, but lockFile, which waits for its lock.
//   An operation that fails part-way may have changed the disk; what it
//   leaves is stated below and in the implementation.
// - Each public operation forwards to the protected virtual hook of the same
//   name plus "Impl", with the same parameters; the reporting forms' hooks are
//   noexcept too. A test double derives from LocalFileSystemOps and overrides
//   only the hooks it wants to fail or observe.
// - One thread at a time uses an object unless its class says otherwise. A
//   stream made by createInputStream or createOutputStream shares nothing
//   with the service: one thread may use it while another uses the service.
//
// The contracts below are what every implementation keeps and what the
// package relies on; LocalFileSystemOps.h states the codes the local disk
// gives.
class OPCCORE_EXPORT FileSystemOps {
public:
    FileSystemOps(const FileSystemOps&) = delete;
    FileSystemOps& operator=(const FileSystemOps&) = delete;
    virtual ~FileSystemOps();

    // folder and relativePath joined by one "/":
    //   ("/data/pkg", "word/x.xml") => "/data/pkg/word/x.xml"
    // relativePath may hold "/" and never begins with one. Path arithmetic
    // only: the disk is not consulted and nothing is checked.
    std::u16string appendPath(const std::u16string& folder, const std::u16string& relativePath);

    // The canonical spelling of a folder path: exactly the prefix getFiles()
    // puts in front of what it lists for that folder, with no trailing "/".
    // The path need not exist. Throws only when the implementation must ask
    // the disk and that fails.
    std::u16string normalizePath(const std::u16string& path);

    // path without its last segment and the "/" before it:
    //   "/data/pkg" => "/data"
    // Path arithmetic only, as appendPath.
    std::u16string getParentPath(const std::u16string& path);

    // appendPath(folder, name) for a name under which nothing exists in
    // folder at the time of the call; the caller then creates the entry.
    // folder need not exist (then any name is free). Throws when it cannot
    // tell whether a name is free.
    std::u16string getTempName(const std::u16string& folder);

    // True when a file or a folder exists at path; false when it does not.
    // May throw when the implementation cannot tell.
    bool exists(const std::u16string& path);

    // True when path is a folder; false when it is missing or something else.
    // May throw when the implementation cannot tell.
    bool isFolder(const std::u16string& path);

    // Appends the path of every file (not folder) in folder, and with recursive
    // true in its subfolders at any depth; each entry is folder spelled as
    // passed, then "/" and the relative path. Order is not promised; no entry
    // lies outside folder.
    // Throws when folder is missing, is not a folder, or cannot be read, and
    // when any subfolder cannot be read; files may then hold some entries
    // already appended.
    void getFiles(const std::u16string& folder, std::vector<std::u16string>& files, bool recursive);

    // Appends every entry below folder, at any depth, that getFiles() passes
    // over because it is neither a file nor a folder, such as a symbolic link
    // or a FIFO, so that a caller can say what a commit of the folder would
    // drop. Linked folders are not entered. Order is not promised. Fails
    // where a recursive getFiles() of folder would; entries may then hold
    // some entries already appended.
    void getIrregularEntries(const std::u16string& folder, std::vector<IrregularEntry>& entries);

    // Creates the folder path and every missing folder above it. Fails when
    // something that is not a folder is in the way; folders made before a
    // failure may stay.
    void createFolders(const std::u16string& path);
    void createFolders(const std::u16string& path, boost::system::error_code& errorCode) noexcept;

    // Opens the file at path for reading with openMode (the package passes
    // in|binary). Fails when path is missing or is not a file that can be
    // read. On failure the result may be empty.
    std::shared_ptr<std::istream> createInputStream(const std::u16string& path,
                                                    std::ios_base::openmode openMode,
                                                    boost::system::error_code& errorCode) noexcept;

    // Opens or creates the file at path with openMode (the package passes
    // out|binary); without app or in in openMode an existing file is emptied.
    // The file's folder must exist: a missing one is a failure, never
    // created. The last release of the stream flushes and closes the file.
    // On failure the result may be empty.
    std::shared_ptr<std::ostream> createOutputStream(const std::u16string& path,
                                                     std::ios_base::openmode openMode,
                                                     boost::system::error_code& errorCode) noexcept;

    // Copies the file from to the path to, whose folder exists. When to
    // exists, existsMode decides (see ExistsMode). Fails when from is missing
    // or is not a file that can be read, and when to is from itself.
    void copy(const std::u16string& from, const std::u16string& to, ExistsMode existsMode);

    // Renames from to to, both in the same parent folder. Never replaces an
    // existing destination: that is a failure, and both stay as they were.
    void rename(const std::u16string& from, const std::u16string& to);

    // Removes path and everything below it. A missing path is no failure.
    // A failure part-way may leave some of it removed.
    void removeAll(const std::u16string& path);
    void removeAll(const std::u16string& path, boost::system::error_code& errorCode) noexcept;

    // Locks the file at path in mode, creating it empty when it is missing;
    // its folder must exist. Two locks on one file conflict when either is
    // exclusive, also when both are held by this process. Without a timeout
    // waits until the lock is granted; with one, returns null when it ran out
    // first (zero: only tries). The lock lasts until the result is destroyed
    // or the process ends, however it ends. Never removes the file. What is
    // granted is a lock on the file at path when it is granted: one removed
    // or replaced while this waited is let go and the file at path taken
    // instead, so the holder of an exclusive lock may remove its file before
    // it lets go.
    std::unique_ptr<FileLock> lockFile(const std::u16string& path,
                                       LockMode mode,
                                       std::optional<std::chrono::nanoseconds> timeout);

    // What a client of the service needs beyond what the package does, such
    // as a tool writing an archive file beside a package.

    // The size in bytes of the file at path that createInputStream would
    // read; fails where createInputStream would.
    std::uint64_t fileSize(const std::u16string& path);

    // Moves the file from to to in one step, replacing a file at to but never
    // a folder (EISDIR); from is a file createInputStream would read. Its
    // content is on stable storage before the move, so that no crash leaves
    // to naming a file without its data.
    void replaceFile(const std::u16string& from, const std::u16string& to);

    // Makes the package at packagePath whole again after a process died in
    // the middle of a commit, and removes the hidden staging and moved-aside
    // folders beside it whose process is gone. Never touches what a live
    // process is still using, nor what another package's unfinished commit
    // left beside it (its old folder moved aside may be its only copy). Safe
    // to call at any time; a package that was left whole is not changed.
    RecoveryReport recover(const std::u16string& packagePath);

protected:
    FileSystemOps() = default;

    virtual std::u16string appendPathImpl(const std::u16string& folder, const std::u16string& relativePath) = 0;
    virtual std::u16string normalizePathImpl(const std::u16string& path) = 0;
    virtual std::u16string getParentPathImpl(const std::u16string& path) = 0;
    virtual std::u16string getTempNameImpl(const std::u16string& folder) = 0;
    virtual bool existsImpl(const std::u16string& path) = 0;
    virtual bool isFolderImpl(const std::u16string& path) = 0;
    virtual void getFilesImpl(const std::u16string& folder, std::vector<std::u16string>& files, bool recursive) = 0;
    virtual void getIrregularEntriesImpl(const std::u16string& folder, std::vector<IrregularEntry>& entries) = 0;
    virtual void createFoldersImpl(const std::u16string& path) = 0;
    virtual void createFoldersImpl(const std::u16string& path, boost::system::error_code& errorCode) noexcept = 0;
    virtual std::shared_ptr<std::istream> createInputStreamImpl(const std::u16string& path,
                                                                std::ios_base::openmode openMode,
                                                                boost::system::error_code& errorCode) noexcept = 0;
    virtual std::shared_ptr<std::ostream> createOutputStreamImpl(const std::u16string& path,
                                                                 std::ios_base::openmode openMode,
                                                                 boost::system::error_code& errorCode) noexcept = 0;
    virtual void copyImpl(const std::u16string& from, const std::u16string& to, ExistsMode existsMode) = 0;
    virtual void renameImpl(const std::u16string& from, const std::u16string& to) = 0;
    virtual void removeAllImpl(const std::u16string& path) = 0;
    virtual void removeAllImpl(const std::u16string& path, boost::system::error_code& errorCode) noexcept = 0;
    virtual std::unique_ptr<FileLock> lockFileImpl(const std::u16string& path,
                                                   LockMode mode,
                                                   std::optional<std::chrono::nanoseconds> timeout) = 0;
    virtual std::uint64_t fileSizeImpl(const std::u16string& path) = 0;
    virtual void replaceFileImpl(const std::u16string& from, const std::u16string& to) = 0;
    virtual RecoveryReport recoverImpl(const std::u16string& packagePath) = 0;
};

}  // namespace opc
