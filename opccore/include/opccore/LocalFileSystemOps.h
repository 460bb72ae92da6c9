#pragma once

#include <opccore/Export.h>
#include <opccore/FileSystemOps.h>

#include <memory>
#include <string>
#include <string_view>

namespace opc {

namespace detail {
class ListedFolders;
class StagingArea;
}  // namespace detail

// FileSystemOps on the local disk (Linux).
//
// For the whole class, beyond what FileSystemOps promises:
// - Names: UTF-16 in the API, the bytes of the file name on disk, mapped by
//   NameCodec, so every file name on disk round-trips exactly. A path holding
//   U+0000 names no file: operations on it fail with EINVAL (exists and
//   isFolder answer false).
// - Codes carry the errno value in boost::system::system_category(), so
//   code().message() is the operating system's wording. A reporting form
//   that runs out of memory reports ENOMEM.
// - The throwing forms' messages name the operation and the path(s), each
//   quoted and in NameCodec's display form (written <path> below), e.g.
//     Cannot rename "/data/a" to "/data/b"
// - Codes named below are those of the usual causes; any other errno the
//   kernel gives passes on unchanged.
//
// Per operation:
// - appendPath, getParentPath: text only; never fail.
//     appendPath("", "x") => "/x"      getParentPath("/a") => "/"
//     getParentPath("a") => ""
// - normalizePath: absolute (a relative path is taken against the current
//   folder), "." and ".." resolved lexically, repeated "/" collapsed, no
//   trailing "/"; symbolic links are not resolved and the disk is not read
//   for an absolute path:
//     "a/./b//../c/" => <current folder>/a/c      "/.." => "/"
//   Throws "Cannot read the current folder" when a relative path meets a
//   current folder that cannot be named (removed: ENOENT).
// - getTempName: appendPath(folder, ".opc-" + 16 random hex digits), drawn
//   afresh from the system each call; a name that exists (also as a dangling
//   link) is never returned. A missing folder is no failure. Throws "Cannot
//   make a temporary name in <folder>" when the test itself fails (EACCES on
//   a folder above, ELOOP, ENAMETOOLONG).
// - exists, isFolder: follow symbolic links (a dangling link does not exist;
//   a link to a folder is a folder) and never throw. They answer false for a
//   missing path and whenever the path cannot be resolved at all: a file in
//   place of a folder above (ENOTDIR), search permission denied on a folder
//   above (EACCES), too many links (ELOOP), a name too long (ENAMETOOLONG).
//   A caller that must tell these apart opens or lists the path and reads the
//   code.
//   After getFiles, exists on a path in a folder that listing read files from
//   tests the last component in that folder, opened at the first such test
//   (one folder open at a time), as `find -readable` tests what it lists.
//   Within one listing's tests the answer so refers to the folder that
//   listing read, which is the full path's answer as long as the folder
//   stays where it was listed. So every operation of this service that could move or remove a
//   folder (rename, removeAll, createFolders, replaceFile, recover) and the
//   next getFiles first forget the listing; a folder is also forgotten after
//   as many tests as the listing found files in it, or at a test that finds
//   nothing, and its paths are then tested in full again. A folder moved by
//   another process (or by this one without the service) between the listing
//   and the tests is outside this promise, as any concurrent writer is
//   without the package lock. The open folder is closed when it is
//   forgotten, when tests move to another folder, or with the service.
// - getFiles: only regular files, hidden ones included, appended in the
//   order of std::less on their paths (UTF-16 code unit by code unit), so a
//   caller keeping them in a std::map inserts each at its end. No symbolic
//   link (to a file, to a folder, or dangling), FIFO, socket or device is
//   listed and no linked folder is entered, so a listing always ends and
//   never reads outside folder; folder itself may be a link to a folder.
//   Throws "Cannot list folder <folder>" naming the folder that failed,
//   which may be a subfolder (also one swapped for a link while the listing
//   ran): missing (ENOENT), not a folder (ENOTDIR), not readable (EACCES).
// - getIrregularEntries: walks folder as getFiles does, with the same
//   failures and message, and reports the symbolic links (never followed),
//   FIFOs, sockets and devices it meets.
// - createFolders: each missing folder made with mode 0777 less the umask; an
//   existing folder (or link to one) is no failure. Something else at path
//   fails with EEXIST, a file above it with ENOTDIR, an empty path with
//   ENOENT. Throwing form: "Cannot create folder <path>". Folders made before
//   a failure stay.
// - createInputStream: opened read-only (read-write with out in openMode; no
//   in is EINVAL). A symbolic link in the last component is never followed
//   (ELOOP), a folder is refused with EISDIR, and a FIFO, socket or device
//   with ENXIO, without blocking. Missing: ENOENT; not readable: EACCES. The
//   result is empty on failure.
// - createOutputStream: out, or out with trunc, creates or empties the file;
//   in|out updates an existing file in place (ENOENT when missing); app
//   appends, creating a missing file (app with trunc is EINVAL); neither out
//   nor app is EINVAL. A new file gets mode 0666 less the umask. A missing
//   folder is ENOENT, a folder at path EISDIR. The result is empty on failure.
// - copy: in-kernel (copy_file_range, else sendfile), so data does not pass
//   through user space. The source is opened as createInputStream opens it.
//   Existing destination: Fail gives EEXIST (also for a link at to), Skip
//   leaves it and succeeds, Overwrite empties the file and rewrites it in
//   place. A new destination gets the source's permission bits less the
//   umask. from and to the same file: EINVAL, nothing changes. A failure
//   after the destination was opened removes it, so no half-written copy
//   stays. Throws "Cannot copy <from> to <to>".
// - rename: files and folders alike; an existing destination fails with
//   EEXIST (renameat2 with RENAME_NOREPLACE; on a file system without it a
//   test then a rename, which never clobbers what it can see). Missing from:
//   ENOENT; another file system: EXDEV. Throws "Cannot rename <from> to <to>".
// - removeAll: removes links, not what they point to. A missing path is no
//   failure. Throwing form: "Cannot remove <path>"; what was removed before a
//   failure stays removed.
// - lockFile: flock(2) on the file opened read-only, made with mode 0666 less
//   the umask when missing, so a lock held by a process that dies is released
//   by the kernel at once. A link (ELOOP), folder (EISDIR) or other file that
//   is not regular (ENXIO) at the path is refused; a missing folder is ENOENT.
//   Throws "Cannot lock <path>". A file removed from under a waiter is made
//   anew (ENOENT when its folder went too). A bounded wait polls, so it may end up to a
//   few milliseconds after a release; an unbounded one is woken by the
//   release itself.
// - fileSize: answers for the file createInputStream would open, without
//   opening it (lstat): a link in the last component is ELOOP, a folder
//   EISDIR, a FIFO, socket or device ENXIO, a missing file ENOENT. Throws
//   "Cannot read the size of <path>".
// - replaceFile: from is opened as createInputStream opens it and synced
//   (fsync) before rename(2), and the folder of to after it; a folder at to
//   fails with EISDIR, a missing from with ENOENT. A failed sync after the
//   rename still fails the call. setDurable(false) drops both syncs. Throws
//   "Cannot replace <to> by <from>".
//
// Commits. The service remembers the names getTempName() handed out:
// - createFolders() at such a name makes a staging folder: private (0700)
//   while it is filled, and locked (flock) for as long as this service keeps
//   it, so that recover() in any process sees it is in use. Copies into it
//   keep the source's mode and, where permitted, owner and group.
// - rename(P, A) with A such a name moves the package P aside. Before it, a
//   journal naming P and A is written beside P (".opc-<random>.journal") and
//   locked until the swap ends: after the removal of A, or after A is renamed
//   back to P. A removeAll() of P during the swap marks the journal as an undo.
// - rename(S, P) with S a staging folder publishes S at P. It fails with the
//   first write error any output stream into S met, at its last bytes
//   included, so a lost write never reaches the package path. The new folder
//   gets the permission bits, owner and group (where permitted) of the folder
//   moved aside from P, a rewritten file those of the file it replaces; what
//   is new gets what a new entry in P would get.
// - Durable (the default): before the publishing rename everything in S is
//   on stable storage (one syncfs of its file system rather than a sync per
//   file: a device flush costs milliseconds, and a package holds thousands of
//   files), and after it the parent folder is synced; the journal is synced
//   before the package is moved aside. setDurable(false) drops every sync,
//   keeping what survives a killed process but not a power cut.
// - recover(): see FileSystemOps. A journal whose lock is free belongs to a
//   dead process: with P missing and A present, A is renamed back to P; with
//   both present, the swap is finished by removing A (or, after an undo
//   mark, P is removed and A renamed back). A journal is named after the
//   folder it moves aside (A + ".journal"), so one cut short still guards
//   that folder; it and the folder stay, and one that guards nothing goes.
//   Then the folders beside P with names of getTempName's form that are
//   neither locked nor named by any journal are removed: staging folders of
//   dead processes, which hold copies only, never a package's last one.
//   Another package's journal and the folder it names are left to that
//   package's recovery, and hidden folders of other names are never touched.
// A forked child shares its parent's locks.
class OPCCORE_EXPORT LocalFileSystemOps : public FileSystemOps {
public:
    LocalFileSystemOps();
    ~LocalFileSystemOps() override;

    // Whether commits sync to stable storage (see above). On by default.
    void setDurable(bool durable);
    bool isDurable() const;

    // NameCodec::encode and NameCodec::decode, kept for existing callers.
    static std::string toNativePath(std::u16string_view path);
    static std::u16string fromNativePath(std::string_view nativePath);

protected:
    std::u16string appendPathImpl(const std::u16string& folder, const std::u16string& relativePath) override;
    std::u16string normalizePathImpl(const std::u16string& path) override;
    std::u16string getParentPathImpl(const std::u16string& path) override;
    std::u16string getTempNameImpl(const std::u16string& folder) override;
    bool existsImpl(const std::u16string& path) override;
    bool isFolderImpl(const std::u16string& path) override;
    void getFilesImpl(const std::u16string& folder, std::vector<std::u16string>& files, bool recursive) override;
    void getIrregularEntriesImpl(const std::u16string& folder, std::vector<IrregularEntry>& entries) override;
    void createFoldersImpl(const std::u16string& path) override;
    void createFoldersImpl(const std::u16string& path, boost::system::error_code& errorCode) noexcept override;
    std::shared_ptr<std::istream> createInputStreamImpl(const std::u16string& path,
                                                        std::ios_base::openmode openMode,
                                                        boost::system::error_code& errorCode) noexcept override;
    std::shared_ptr<std::ostream> createOutputStreamImpl(const std::u16string& path,
                                                         std::ios_base::openmode openMode,
                                                         boost::system::error_code& errorCode) noexcept override;
    void copyImpl(const std::u16string& from, const std::u16string& to, ExistsMode existsMode) override;
    void renameImpl(const std::u16string& from, const std::u16string& to) override;
    void removeAllImpl(const std::u16string& path) override;
    void removeAllImpl(const std::u16string& path, boost::system::error_code& errorCode) noexcept override;
    std::unique_ptr<FileLock> lockFileImpl(const std::u16string& path,
                                           LockMode mode,
                                           std::optional<std::chrono::nanoseconds> timeout) override;
    std::uint64_t fileSizeImpl(const std::u16string& path) override;
    void replaceFileImpl(const std::u16string& from, const std::u16string& to) override;
    RecoveryReport recoverImpl(const std::u16string& packagePath) override;

private:
    boost::system::error_code createFoldersTracked(const std::u16string& path);
    boost::system::error_code removeAllTracked(const std::u16string& path);
    void dropListing() noexcept;

    std::unique_ptr<detail::StagingArea> staging;
    std::unique_ptr<detail::ListedFolders> listed;  // made by the first getFiles
};

}  // namespace opc
