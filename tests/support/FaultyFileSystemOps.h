#pragma once

#include <opccore/Exception.h>
#include <opccore/LocalFileSystemOps.h>

#include <boost/system/error_code.hpp>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace opc::test {

// Every hook of FileSystemOps; the error_code forms of createFolders and
// removeAll ("Reporting") have names of their own.
// clang-format off
enum class Hook { AppendPath, NormalizePath, GetParentPath, GetTempName, Exists, IsFolder, GetFiles,
                  GetIrregularEntries, CreateFolders, CreateFoldersReporting, CreateInputStream, CreateOutputStream,
                  Copy, Rename, RemoveAll, RemoveAllReporting, LockFile, FileSize, ReplaceFile, Recover };
// clang-format on

inline const char* hookName(Hook hook) {
    // clang-format off
    static const char* const names[] = {"appendPath", "normalizePath", "getParentPath", "getTempName", "exists",
        "isFolder", "getFiles", "getIrregularEntries", "createFolders", "createFolders(ec)", "createInputStream",
        "createOutputStream", "copy", "rename", "removeAll", "removeAll(ec)", "lockFile", "fileSize", "replaceFile",
        "recover"};
    // clang-format on
    return names[static_cast<int>(hook)];
}

struct Call {
    Hook hook;
    std::u16string path;    // the first path argument
    std::u16string second;  // the second path (copy, rename, replaceFile, appendPath), else empty
    bool failed = false;    // whether this call was made to fail
};

// The local file system, with failures injected on request and every call
// recorded. Calls are numbered from 1, both across all hooks ("global") and
// per hook. A failing hook with an error_code sets the code and returns
// nothing; any other throws opc::Exception("injected <hook> failure", code).
class FaultyFileSystemOps : public opc::LocalFileSystemOps {
public:
    // Fails the calls of hook whose per-hook number lies in [first, last].
    void failCalls(Hook hook, std::size_t first, std::size_t last, int errorValue = EIO) {
        rules.push_back({hook, first, last, errorValue});
    }
    void failCall(Hook hook, std::size_t number, int errorValue = EIO) { failCalls(hook, number, number, errorValue); }
    void failGlobalCall(std::size_t number, int errorValue = EIO) {
        rules.push_back({std::nullopt, number, number, errorValue});
    }
    void clearFailures() { rules.clear(); }  // the recorded calls stay
    void clearCalls() { recorded.clear(); }  // and the numbering restarts
    // Runs before each call is carried out (after it is recorded).
    void setBeforeCall(std::function<void(const Call&)> callback) { beforeCall = std::move(callback); }

    const std::vector<Call>& calls() const { return recorded; }
    std::size_t count(Hook hook) const {
        return static_cast<std::size_t>(
            std::count_if(recorded.begin(), recorded.end(), [hook](const Call& call) { return call.hook == hook; }));
    }
    std::size_t failures() const {
        return static_cast<std::size_t>(
            std::count_if(recorded.begin(), recorded.end(), [](const Call& call) { return call.failed; }));
    }
    static boost::system::error_code injectedCode(int errorValue = EIO) {
        return boost::system::error_code(errorValue, boost::system::system_category());
    }

protected:
    using Path = const std::u16string&;
    using Code = boost::system::error_code;
    using Mode = std::ios_base::openmode;
    using Timeout = std::optional<std::chrono::nanoseconds>;
// A hook that records its call, throws when it is to fail, else does what the local one does.
#define OPC_FAULTY_HOOK(Result, hook, name, parameters, arguments, ...)                        \
    Result name parameters override {                                                          \
        if (const int errorValue = enter(Hook::hook, __VA_ARGS__)) {                           \
            throw opc::Exception(std::string("injected ") + hookName(Hook::hook) + " failure", \
                                 injectedCode(errorValue));                                    \
        }                                                                                      \
        return LocalFileSystemOps::name arguments;                                             \
    }
// The same for a hook that reports its failure in errorCode.
#define OPC_FAULTY_REPORTING_HOOK(Result, hook, name, parameters, arguments) \
    Result name parameters noexcept override {                               \
        if (const int errorValue = enter(Hook::hook, path)) {                \
            errorCode = injectedCode(errorValue);                            \
            return Result();                                                 \
        }                                                                    \
        return LocalFileSystemOps::name arguments;                           \
    }
    // clang-format off
    OPC_FAULTY_HOOK(std::u16string, AppendPath, appendPathImpl, (Path folder, Path relative), (folder, relative),
                    folder, relative)
    OPC_FAULTY_HOOK(std::u16string, NormalizePath, normalizePathImpl, (Path path), (path), path)
    OPC_FAULTY_HOOK(std::u16string, GetParentPath, getParentPathImpl, (Path path), (path), path)
    OPC_FAULTY_HOOK(std::u16string, GetTempName, getTempNameImpl, (Path folder), (folder), folder)
    OPC_FAULTY_HOOK(bool, Exists, existsImpl, (Path path), (path), path)
    OPC_FAULTY_HOOK(bool, IsFolder, isFolderImpl, (Path path), (path), path)
    OPC_FAULTY_HOOK(void, GetFiles, getFilesImpl, (Path folder, std::vector<std::u16string>& files, bool recursive),
                    (folder, files, recursive), folder)
    OPC_FAULTY_HOOK(void, GetIrregularEntries, getIrregularEntriesImpl,
                    (Path folder, std::vector<opc::IrregularEntry>& entries), (folder, entries), folder)
    OPC_FAULTY_HOOK(void, CreateFolders, createFoldersImpl, (Path path), (path), path)
    OPC_FAULTY_REPORTING_HOOK(void, CreateFoldersReporting, createFoldersImpl, (Path path, Code& errorCode),
                              (path, errorCode))
    OPC_FAULTY_REPORTING_HOOK(std::shared_ptr<std::istream>, CreateInputStream, createInputStreamImpl,
                              (Path path, Mode mode, Code& errorCode), (path, mode, errorCode))
    OPC_FAULTY_REPORTING_HOOK(std::shared_ptr<std::ostream>, CreateOutputStream, createOutputStreamImpl,
                              (Path path, Mode mode, Code& errorCode), (path, mode, errorCode))
    OPC_FAULTY_HOOK(void, Copy, copyImpl, (Path from, Path to, ExistsMode mode), (from, to, mode), from, to)
    OPC_FAULTY_HOOK(void, Rename, renameImpl, (Path from, Path to), (from, to), from, to)
    OPC_FAULTY_HOOK(void, RemoveAll, removeAllImpl, (Path path), (path), path)
    OPC_FAULTY_REPORTING_HOOK(void, RemoveAllReporting, removeAllImpl, (Path path, Code& errorCode), (path, errorCode))
    OPC_FAULTY_HOOK(std::unique_ptr<FileLock>, LockFile, lockFileImpl, (Path path, LockMode mode, Timeout timeout),
                    (path, mode, timeout), path)
    OPC_FAULTY_HOOK(std::uint64_t, FileSize, fileSizeImpl, (Path path), (path), path)
    OPC_FAULTY_HOOK(void, ReplaceFile, replaceFileImpl, (Path from, Path to), (from, to), from, to)
    OPC_FAULTY_HOOK(RecoveryReport, Recover, recoverImpl, (Path path), (path), path)
    // clang-format on
#undef OPC_FAULTY_HOOK
#undef OPC_FAULTY_REPORTING_HOOK

private:
    struct Rule {
        std::optional<Hook> hook;  // empty: global numbering
        std::size_t first;
        std::size_t last;
        int errorValue;
    };

    // Records the call; returns the error value to inject, or 0.
    int enter(Hook hook, Path path, Path second = {}) {
        recorded.push_back({hook, path, second, false});
        const std::size_t global = recorded.size(), perHook = count(hook);
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

    std::vector<Rule> rules;
    std::vector<Call> recorded;
    std::function<void(const Call&)> beforeCall;
};

}  // namespace opc::test
