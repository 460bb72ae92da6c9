#include "support/FaultyFileSystemOps.h"

#include <opccore/Exception.h>

#include <algorithm>
#include <limits>

namespace opc::test {

const char* hookName(Hook hook) {
    switch (hook) {
        case Hook::AppendPath: return "appendPath";
        case Hook::NormalizePath: return "normalizePath";
        case Hook::GetParentPath: return "getParentPath";
        case Hook::GetTempName: return "getTempName";
        case Hook::Exists: return "exists";
        case Hook::IsFolder: return "isFolder";
        case Hook::GetFiles: return "getFiles";
        case Hook::CreateFolders: return "createFolders";
        case Hook::CreateFoldersReporting: return "createFolders(ec)";
        case Hook::CreateInputStream: return "createInputStream";
        case Hook::CreateOutputStream: return "createOutputStream";
        case Hook::Copy: return "copy";
        case Hook::Rename: return "rename";
        case Hook::RemoveAll: return "removeAll";
        case Hook::RemoveAllReporting: return "removeAll(ec)";
        case Hook::LockFile: return "lockFile";
        case Hook::FileSize: return "fileSize";
        case Hook::ReplaceFile: return "replaceFile";
        case Hook::Recover: return "recover";
    }
    return "?";
}

void FaultyFileSystemOps::failCalls(Hook hook, std::size_t first, std::size_t last, int errorValue) {
    rules.push_back({hook, first, last, errorValue});
}

void FaultyFileSystemOps::failGlobalCalls(std::size_t first, std::size_t last, int errorValue) {
    rules.push_back({std::nullopt, first, last, errorValue});
}

void FaultyFileSystemOps::failFrom(std::size_t first, int errorValue) {
    failGlobalCalls(first, std::numeric_limits<std::size_t>::max(), errorValue);
}

void FaultyFileSystemOps::clearFailures() { rules.clear(); }

void FaultyFileSystemOps::clearCalls() { recorded.clear(); }

std::size_t FaultyFileSystemOps::count(Hook hook) const {
    return static_cast<std::size_t>(
        std::count_if(recorded.begin(), recorded.end(), [hook](const Call& call) { return call.hook == hook; }));
}

std::size_t FaultyFileSystemOps::failures() const {
    return static_cast<std::size_t>(
        std::count_if(recorded.begin(), recorded.end(), [](const Call& call) { return call.failed; }));
}

boost::system::error_code FaultyFileSystemOps::injectedCode(int errorValue) {
    return boost::system::error_code(errorValue, boost::system::system_category());
}

int FaultyFileSystemOps::enter(Hook hook, const std::u16string& path, const std::u16string& second) {
    recorded.push_back({hook, path, second, false});
    const std::size_t global = recorded.size();
    const std::size_t perHook = count(hook);
    int errorValue = 0;
    for (const Rule& rule : rules) {
        const std::size_t number = rule.hook ? (*rule.hook == hook ? perHook : 0) : global;
        if (number != 0 && number >= rule.first && number <= rule.last) {
            errorValue = rule.errorValue;
            break;
        }
    }
    recorded.back().failed = errorValue != 0;
    if (beforeCall) beforeCall(recorded.back());
    return errorValue;
}

void FaultyFileSystemOps::enterThrowing(Hook hook, const std::u16string& path, const std::u16string& second) {
    if (const int errorValue = enter(hook, path, second)) {
        throw opc::Exception(std::string("injected ") + hookName(hook) + " failure", injectedCode(errorValue));
    }
}

std::u16string FaultyFileSystemOps::appendPathImpl(const std::u16string& folder, const std::u16string& relativePath) {
    enterThrowing(Hook::AppendPath, folder, relativePath);
    return LocalFileSystemOps::appendPathImpl(folder, relativePath);
}

std::u16string FaultyFileSystemOps::normalizePathImpl(const std::u16string& path) {
    enterThrowing(Hook::NormalizePath, path);
    return LocalFileSystemOps::normalizePathImpl(path);
}

std::u16string FaultyFileSystemOps::getParentPathImpl(const std::u16string& path) {
    enterThrowing(Hook::GetParentPath, path);
    return LocalFileSystemOps::getParentPathImpl(path);
}

std::u16string FaultyFileSystemOps::getTempNameImpl(const std::u16string& folder) {
    enterThrowing(Hook::GetTempName, folder);
    return LocalFileSystemOps::getTempNameImpl(folder);
}

bool FaultyFileSystemOps::existsImpl(const std::u16string& path) {
    enterThrowing(Hook::Exists, path);
    return LocalFileSystemOps::existsImpl(path);
}

bool FaultyFileSystemOps::isFolderImpl(const std::u16string& path) {
    enterThrowing(Hook::IsFolder, path);
    return LocalFileSystemOps::isFolderImpl(path);
}

void FaultyFileSystemOps::getFilesImpl(const std::u16string& folder,
                                       std::vector<std::u16string>& files,
                                       bool recursive) {
    enterThrowing(Hook::GetFiles, folder);
    LocalFileSystemOps::getFilesImpl(folder, files, recursive);
}

void FaultyFileSystemOps::createFoldersImpl(const std::u16string& path) {
    enterThrowing(Hook::CreateFolders, path);
    LocalFileSystemOps::createFoldersImpl(path);
}

void FaultyFileSystemOps::createFoldersImpl(const std::u16string& path, boost::system::error_code& errorCode) noexcept {
    if (const int errorValue = enter(Hook::CreateFoldersReporting, path)) {
        errorCode = injectedCode(errorValue);
        return;
    }
    LocalFileSystemOps::createFoldersImpl(path, errorCode);
}

std::shared_ptr<std::istream> FaultyFileSystemOps::createInputStreamImpl(
    const std::u16string& path, std::ios_base::openmode openMode, boost::system::error_code& errorCode) noexcept {
    if (const int errorValue = enter(Hook::CreateInputStream, path)) {
        errorCode = injectedCode(errorValue);
        return nullptr;
    }
    return LocalFileSystemOps::createInputStreamImpl(path, openMode, errorCode);
}

std::shared_ptr<std::ostream> FaultyFileSystemOps::createOutputStreamImpl(
    const std::u16string& path, std::ios_base::openmode openMode, boost::system::error_code& errorCode) noexcept {
    if (const int errorValue = enter(Hook::CreateOutputStream, path)) {
        errorCode = injectedCode(errorValue);
        return nullptr;
    }
    return LocalFileSystemOps::createOutputStreamImpl(path, openMode, errorCode);
}

void FaultyFileSystemOps::copyImpl(const std::u16string& from, const std::u16string& to, ExistsMode existsMode) {
    enterThrowing(Hook::Copy, from, to);
    LocalFileSystemOps::copyImpl(from, to, existsMode);
}

void FaultyFileSystemOps::renameImpl(const std::u16string& from, const std::u16string& to) {
    enterThrowing(Hook::Rename, from, to);
    LocalFileSystemOps::renameImpl(from, to);
}

void FaultyFileSystemOps::removeAllImpl(const std::u16string& path) {
    enterThrowing(Hook::RemoveAll, path);
    LocalFileSystemOps::removeAllImpl(path);
}

void FaultyFileSystemOps::removeAllImpl(const std::u16string& path, boost::system::error_code& errorCode) noexcept {
    if (const int errorValue = enter(Hook::RemoveAllReporting, path)) {
        errorCode = injectedCode(errorValue);
        return;
    }
    LocalFileSystemOps::removeAllImpl(path, errorCode);
}

std::unique_ptr<FileLock> FaultyFileSystemOps::lockFileImpl(const std::u16string& path,
                                                            LockMode mode,
                                                            std::optional<std::chrono::nanoseconds> timeout) {
    enterThrowing(Hook::LockFile, path);
    return LocalFileSystemOps::lockFileImpl(path, mode, timeout);
}

std::uint64_t FaultyFileSystemOps::fileSizeImpl(const std::u16string& path) {
    enterThrowing(Hook::FileSize, path);
    return LocalFileSystemOps::fileSizeImpl(path);
}

void FaultyFileSystemOps::replaceFileImpl(const std::u16string& from, const std::u16string& to) {
    enterThrowing(Hook::ReplaceFile, from, to);
    LocalFileSystemOps::replaceFileImpl(from, to);
}

RecoveryReport FaultyFileSystemOps::recoverImpl(const std::u16string& packagePath) {
    enterThrowing(Hook::Recover, packagePath);
    return LocalFileSystemOps::recoverImpl(packagePath);
}

}  // namespace opc::test
