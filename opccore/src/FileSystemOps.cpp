#include <opccore/FileSystemOps.h>

namespace opc {

FileLock::~FileLock() = default;

FileSystemOps::~FileSystemOps() = default;

std::u16string FileSystemOps::appendPath(const std::u16string& folder, const std::u16string& relativePath) {
    return appendPathImpl(folder, relativePath);
}

std::u16string FileSystemOps::normalizePath(const std::u16string& path) { return normalizePathImpl(path); }

std::u16string FileSystemOps::getParentPath(const std::u16string& path) { return getParentPathImpl(path); }

std::u16string FileSystemOps::getTempName(const std::u16string& folder) { return getTempNameImpl(folder); }

bool FileSystemOps::exists(const std::u16string& path) { return existsImpl(path); }

bool FileSystemOps::isFolder(const std::u16string& path) { return isFolderImpl(path); }

void FileSystemOps::getFiles(const std::u16string& folder, std::vector<std::u16string>& files, bool recursive) {
    getFilesImpl(folder, files, recursive);
}

void FileSystemOps::getIrregularEntries(const std::u16string& folder, std::vector<IrregularEntry>& entries) {
    getIrregularEntriesImpl(folder, entries);
}

void FileSystemOps::createFolders(const std::u16string& path) { createFoldersImpl(path); }

void FileSystemOps::createFolders(const std::u16string& path, boost::system::error_code& errorCode) noexcept {
    createFoldersImpl(path, errorCode);
}

std::shared_ptr<std::istream> FileSystemOps::createInputStream(const std::u16string& path,
                                                               std::ios_base::openmode openMode,
                                                               boost::system::error_code& errorCode) noexcept {
    return createInputStreamImpl(path, openMode, errorCode);
}

std::shared_ptr<std::ostream> FileSystemOps::createOutputStream(const std::u16string& path,
                                                                std::ios_base::openmode openMode,
                                                                boost::system::error_code& errorCode) noexcept {
    return createOutputStreamImpl(path, openMode, errorCode);
}

void FileSystemOps::copy(const std::u16string& from, const std::u16string& to, ExistsMode existsMode) {
    copyImpl(from, to, existsMode);
}

void FileSystemOps::rename(const std::u16string& from, const std::u16string& to) { renameImpl(from, to); }

void FileSystemOps::removeAll(const std::u16string& path) { removeAllImpl(path); }

void FileSystemOps::removeAll(const std::u16string& path, boost::system::error_code& errorCode) noexcept {
    removeAllImpl(path, errorCode);
}

std::unique_ptr<FileLock> FileSystemOps::lockFile(const std::u16string& path,
                                                  LockMode mode,
                                                  std::optional<std::chrono::nanoseconds> timeout) {
    return lockFileImpl(path, mode, timeout);
}

std::uint64_t FileSystemOps::fileSize(const std::u16string& path) { return fileSizeImpl(path); }

void FileSystemOps::replaceFile(const std::u16string& from, const std::u16string& to) { replaceFileImpl(from, to); }

RecoveryReport FileSystemOps::recover(const std::u16string& packagePath) { return recoverImpl(packagePath); }

}  // namespace opc
