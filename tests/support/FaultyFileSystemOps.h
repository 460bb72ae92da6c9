#pragma once

#include <opccore/LocalFileSystemOps.h>

#include <boost/system/error_code.hpp>

#include <cerrno>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace opc::test {

// Every hook of FileSystemOps; the reporting forms have names of their own.
enum class Hook {
    AppendPath,
    NormalizePath,
    GetParentPath,
    GetTempName,
    Exists,
    IsFolder,
    GetFiles,
    CreateFolders,           // throwing form
    CreateFoldersReporting,  // error_code form
    CreateInputStream,
    CreateOutputStream,
    Copy,
    Rename,
    RemoveAll,           // throwing form
    RemoveAllReporting,  // error_code form
    LockFile,
    FileSize,
    ReplaceFile,
    Recover,
};

const char* hookName(Hook hook);

struct Call {
    Hook hook;
    std::u16string path;    // the first path argument
    std::u16string second;  // the second path (copy, rename, replaceFile, appendPath), else empty
    bool failed = false;    // whether this call was made to fail
};

// The local file system, with failures injected on request and every call
// recorded. Calls are numbered from 1, both across all hooks ("global") and
// per hook.
//
// A failing throwing hook throws opc::Exception("injected <hook> failure",
// code); a failing reporting hook sets the code and returns nothing. Hooks
// without a failure channel of their own (exists, appendPath, ...) throw.
class FaultyFileSystemOps : public opc::LocalFileSystemOps {
public:
    // Fails the calls of hook whose per-hook number lies in [first, last].
    void failCalls(Hook hook, std::size_t first, std::size_t last, int errorValue = EIO);
    void failCall(Hook hook, std::size_t number, int errorValue = EIO) { failCalls(hook, number, number, errorValue); }
    // Fails the calls whose global number lies in [first, last].
    void failGlobalCalls(std::size_t first, std::size_t last, int errorValue = EIO);
    void failGlobalCall(std::size_t number, int errorValue = EIO) { failGlobalCalls(number, number, errorValue); }
    // Fails every call from the global number first on.
    void failFrom(std::size_t first, int errorValue = EIO);
    // Drops every rule; the recorded calls stay.
    void clearFailures();
    // Forgets the recorded calls and restarts the numbering.
    void clearCalls();

    // Runs before each call is carried out (after it is recorded).
    void setBeforeCall(std::function<void(const Call&)> callback) { beforeCall = std::move(callback); }

    const std::vector<Call>& calls() const { return recorded; }
    std::size_t count(Hook hook) const;
    std::size_t failures() const;

    // The code an injected failure with errorValue carries.
    static boost::system::error_code injectedCode(int errorValue = EIO);

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
    std::unique_ptr<FileLock> lockFileImpl(const std::u16string& path,
                                           LockMode mode,
                                           std::optional<std::chrono::nanoseconds> timeout) override;
    std::uint64_t fileSizeImpl(const std::u16string& path) override;
    void replaceFileImpl(const std::u16string& from, const std::u16string& to) override;
    RecoveryReport recoverImpl(const std::u16string& packagePath) override;

private:
    struct Rule {
        std::optional<Hook> hook;  // empty: global numbering
        std::size_t first;
        std::size_t last;
        int errorValue;
    };

    // Records the call; returns the error value to inject, or 0.
    int enter(Hook hook, const std::u16string& path, const std::u16string& second = {});
    // enter() for hooks that fail by throwing.
    void enterThrowing(Hook hook, const std::u16string& path, const std::u16string& second = {});

    std::vector<Rule> rules;
    std::vector<Call> recorded;
    std::function<void(const Call&)> beforeCall;
};

}  // namespace opc::test
