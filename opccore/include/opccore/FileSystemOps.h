#pragma once

#include <opccore/Export.h>

#include <boost/system/error_code.hpp>

#include <cstdint>
#include <ios>
#include <istream>
#include <memory>
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

// Everything the OPC libraries do to a disk goes through this service.
//
// Paths are UTF-16 with "/" between segments and no trailing separator.
//
// Operations taking a boost::system::error_code& are the reporting forms: they
// never throw, set the code when they fail and may leave it untouched when
// they succeed. All other operations that can fail throw opc::Exception with a
// code that reports the failure.
//
// Each public operation forwards to the protected virtual hook of the same
// name plus "Impl". A test double derives from LocalFileSystemOps and
// overrides only the hooks it wants to fail or observe.
class OPCCORE_EXPORT FileSystemOps {
public:
    FileSystemOps(const FileSystemOps&) = delete;
    FileSystemOps& operator=(const FileSystemOps&) = delete;
    virtual ~FileSystemOps();

    // folder and relativePath joined by one "/":
    //   ("/data/pkg", "word/x.xml") => "/data/pkg/word/x.xml"
    std::u16string appendPath(const std::u16string& folder, const std::u16string& relativePath);

    // The canonical spelling of a folder path, exactly the prefix getFiles()
    // puts in front of what it lists for that folder.
    std::u16string normalizePath(const std::u16string& path);

    // path without its last segment: "/data/pkg" => "/data".
    std::u16string getParentPath(const std::u16string& path);

    // appendPath(folder, name) for a name under which nothing exists in folder
    // now. folder need not exist. The caller creates the entry.
    std::u16string getTempName(const std::u16string& folder);

    // True when a file or a folder exists at path.
    bool exists(const std::u16string& path);

    // True when path is a folder.
    bool isFolder(const std::u16string& path);

    // Appends the path of every file (not folder) in folder, and with recursive
    // true in its subfolders at any depth; each entry is folder spelled as
    // passed, then "/" and the relative path. Order is not promised.
    void getFiles(const std::u16string& folder, std::vector<std::u16string>& files, bool recursive);

    // Creates the folder path and every missing folder above it.
    void createFolders(const std::u16string& path);
    void createFolders(const std::u16string& path, boost::system::error_code& errorCode) noexcept;

    // Opens the file at path. On failure the result may be empty.
    std::shared_ptr<std::istream> createInputStream(const std::u16string& path,
                                                    std::ios_base::openmode openMode,
                                                    boost::system::error_code& errorCode) noexcept;

    // Opens or creates the file at path; without app or in in openMode an
    // existing file is emptied. The file's folder must exist. The last release
    // of the stream flushes and closes the file.
    std::shared_ptr<std::ostream> createOutputStream(const std::u16string& path,
                                                     std::ios_base::openmode openMode,
                                                     boost::system::error_code& errorCode) noexcept;

    // Copies the file from to the path to, whose folder exists.
    void copy(const std::u16string& from, const std::u16string& to, ExistsMode existsMode);

    // Renames from to to. Never replaces an existing destination.
    void rename(const std::u16string& from, const std::u16string& to);

    // Removes path and everything below it. A missing path is no failure.
    void removeAll(const std::u16string& path);
    void removeAll(const std::u16string& path, boost::system::error_code& errorCode) noexcept;

protected:
    FileSystemOps() = default;

    virtual std::u16string appendPathImpl(const std::u16string& folder, const std::u16string& relativePath) = 0;
    virtual std::u16string normalizePathImpl(const std::u16string& path) = 0;
    virtual std::u16string getParentPathImpl(const std::u16string& path) = 0;
    virtual std::u16string getTempNameImpl(const std::u16string& folder) = 0;
    virtual bool existsImpl(const std::u16string& path) = 0;
    virtual bool isFolderImpl(const std::u16string& path) = 0;
    virtual void getFilesImpl(const std::u16string& folder, std::vector<std::u16string>& files, bool recursive) = 0;
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
};

}  // namespace opc
