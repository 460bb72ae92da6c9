#pragma once

#include "Commands.h"
#include "support/TempDir.h"
#include "support/TreeSnapshot.h"

#include <opccore/LocalFileSystemOps.h>

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

#ifndef OPCDIR_PATH
#error "OPCDIR_PATH must name the opcdir binary"
#endif

namespace opc::test {

struct RunResult {
    int status = -1;
    std::string out;
    std::string err;
    bool operator==(const RunResult& o) const { return status == o.status && out == o.out && err == o.err; }
};

inline std::ostream& operator<<(std::ostream& stream, const RunResult& r) {
    return stream << "status " << r.status << "\nout:\n" << r.out << "err:\n" << r.err;
}

inline std::string shellQuoted(const std::string& word) {
    std::string out = "'";
    for (const char c : word) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
}

// The words of a command line that has no quoting to do.
inline std::vector<std::string> words(const std::string& line) {
    std::istringstream in(line);
    std::vector<std::string> out;
    for (std::string word; in >> word;) out.push_back(word);
    return out;
}

// While it lives, folder is the process's current one.
struct CurrentFolder {
    explicit CurrentFolder(const std::filesystem::path& folder) { std::filesystem::current_path(folder); }
    CurrentFolder(const CurrentFolder&) = delete;
    CurrentFolder& operator=(const CurrentFolder&) = delete;
    ~CurrentFolder() { std::filesystem::current_path(previous); }
    std::filesystem::path previous = std::filesystem::current_path();
};

// Runs the built binary in folder `in` with these arguments and standard
// input.
inline RunResult runOpcdir(const std::filesystem::path& in,
                           const std::vector<std::string>& arguments,
                           const std::string& input = "") {
    TempDir io;
    writeFile(io.path() / "in", input);
    std::string command = "cd " + shellQuoted(in.string()) + " && " + shellQuoted(OPCDIR_PATH);
    for (const std::string& argument : arguments) command += " " + shellQuoted(argument);
    command += " <" + shellQuoted((io.path() / "in").string()) + " >" + shellQuoted((io.path() / "out").string()) +
               " 2>" + shellQuoted((io.path() / "err").string());
    const int status = std::system(command.c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, readFile(io.path() / "out"), readFile(io.path() / "err")};
}

// Runs the command in this process, every file reached through fileSystem.
inline RunResult runWith(opc::FileSystemOps& fileSystem,
                         const std::vector<std::string>& arguments,
                         bool errIsTerminal = false,
                         bool outIsTerminal = false) {
    std::istringstream in;
    std::ostringstream out, err;
    opcdir::Io io{in, out, err, errIsTerminal, outIsTerminal};
    const int status = opcdir::run(arguments, io, fileSystem);
    return {status, out.str(), err.str()};
}

inline RunResult run(const std::vector<std::string>& arguments) {
    opc::LocalFileSystemOps local;
    return runWith(local, arguments);
}

// The snapshot without the package lock files that commands leave beside
// the packages they name, there to stay.
inline TreeSnapshot withoutLockFiles(TreeSnapshot tree) {
    for (auto it = tree.begin(); it != tree.end();) {
        const bool lock = std::filesystem::path(it->first).filename().string().rfind(".opc-lock-", 0) == 0;
        it = lock ? tree.erase(it) : std::next(it);
    }
    return tree;
}

// Runs the binary in `in` and expects a refusal: this status, exactly
// "opcdir: <message>" on standard error, nothing on standard output and
// nothing changed below `in` but lock files.
inline void expectRefused(const std::filesystem::path& in,
                          const std::vector<std::string>& arguments,
                          const std::string& message,
                          int status = 1) {
    const TreeSnapshot before = withoutLockFiles(snapshotTree(in));
    EXPECT_EQ(runOpcdir(in, arguments), (RunResult{status, "", "opcdir: " + message + "\n"}));
    EXPECT_EQ(withoutLockFiles(snapshotTree(in)), before);
}

}  // namespace opc::test
