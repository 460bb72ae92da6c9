#pragma once

#include <opccore/Export.h>
#include <opccore/FileSystemOps.h>

#include <string>
#include <string_view>

namespace opc {

// FileSystemOps on the local disk (Linux).
//
// Names: UTF-16 in the API, the bytes of the file name on disk, mapped by
// NameCodec, so every file name on disk round-trips exactly. A path holding
// U+0000 names no file (EINVAL).
//
// Failures carry the errno value in boost::system::system_category(), so
// code().message() is the operating system's wording; the throwing forms'
// messages name the operation and the path(s) in NameCodec's display form.
//
// - normalizePath: absolute (a relative path is taken against the current
//   folder), "." and ".." resolved lexically, repeated "/" collapsed, no
//   trailing "/"; symbolic links are not resolved:
//     "a/./b//../c/" => <current folder>/a/c
// - getFiles: every regular file, hidden ones included. No symbolic link (to a
//   file or a folder), FIFO, socket or device is listed and no linked folder
//   entered, so a listing always ends and never leads outside the folder.
// - createInputStream, and the source of copy: only a regular file is opened,
//   without blocking. A symbolic link as the last component is not followed
//   (ELOOP), a folder is refused with EISDIR, a FIFO, socket or device with
//   ENXIO.
// - getTempName: a hidden, random name not in use when it is returned.
// - rename: fails with EEXIST rather than replace an existing destination.
// - createOutputStream: does not create missing folders.
// - copy: in-kernel (copy_file_range, sendfile), so data does not pass through
//   user space; a destination left half-written by a failure is removed.
class OPCCORE_EXPORT LocalFileSystemOps : public FileSystemOps {
public:
    LocalFileSystemOps();
    ~LocalFileSystemOps() override;

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
};

}  // namespace opc
