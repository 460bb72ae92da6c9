#pragma once

#include "Commands.h"
#include "support/TempDir.h"
#include "support/TreeSnapshot.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdint>
#include <cstdlib>
#include <iterator>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#ifndef OPCDIR_PATH
#error "OPCDIR_PATH must name the opcdir binary"
#endif

namespace opc::test {

struct RunResult {
    int status = -1;
    std::string out;
    std::string err;
};

inline std::string shellQuoted(const std::string& word) {
    std::string out = "'";
    for (const char c : word) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
}

// Runs the built opcdir binary in folder `in` with these arguments and
// standard input.
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

// The snapshot without the package lock files that commands leave beside
// the packages they name, there to stay.
inline TreeSnapshot withoutLockFiles(TreeSnapshot tree) {
    for (auto it = tree.begin(); it != tree.end();) {
        const std::size_t slash = it->first.rfind('/', it->first.size() - 2);
        const bool lockFile = it->first.compare(slash == std::string::npos ? 0 : slash + 1, 10, ".opc-lock-") == 0;
        it = lockFile ? tree.erase(it) : std::next(it);
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
    const RunResult result = runOpcdir(in, arguments);
    EXPECT_EQ(result.status, status);
    EXPECT_EQ(result.err, "opcdir: " + message + "\n");
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(withoutLockFiles(snapshotTree(in)), before);
}

// Runs the same commands in this process, every package going through
// fileSystem.
inline RunResult runOpcdirWith(opc::FileSystemOps& fileSystem, const std::vector<std::string>& arguments) {
    std::istringstream in;
    std::ostringstream out;
    std::ostringstream err;
    opcdir::Io io{in, out, err, false};
    const int status = opcdir::run(arguments, io, fileSystem);
    return {status, out.str(), err.str()};
}

inline std::string littleEndian(std::uint32_t value, int bytes) {
    std::string out;
    for (int i = 0; i < bytes; ++i) out += static_cast<char>((value >> (8 * i)) & 0xff);
    return out;
}

// Stored entries written byte by byte, so that tests can make archives no ZIP
// library would: NUL or ".." in names, duplicates.
inline std::string rawZip(const std::vector<std::pair<std::string, std::string>>& entries) {
    const auto le = littleEndian;
    std::string body;
    std::string directory;
    for (const auto& [name, data] : entries) {
        std::uint32_t crc = ~0u;
        for (const char c : data) {
            crc ^= static_cast<unsigned char>(c);
            for (int k = 0; k < 8; ++k) crc = (crc >> 1) ^ (0xedb88320u & (0u - (crc & 1u)));
        }
        const auto size = static_cast<std::uint32_t>(data.size());
        // Version 2.0, no flags, stored, dated 1980-01-01.
        const std::string fields = le(20, 2) + std::string(6, '\0') + le(0x21, 2) + le(~crc, 4) + le(size, 4) +
                                   le(size, 4) + le(static_cast<std::uint32_t>(name.size()), 2) + le(0, 2);
        directory += "PK\1\2" + le(20, 2) + fields + std::string(10, '\0') +
                     le(static_cast<std::uint32_t>(body.size()), 4) + name;
        body += "PK\3\4" + fields + name + data;
    }
    const auto count = static_cast<std::uint32_t>(entries.size());
    return body + directory + "PK\5\6" + le(0, 4) + le(count, 2) + le(count, 2) +
           le(static_cast<std::uint32_t>(directory.size()), 4) + le(static_cast<std::uint32_t>(body.size()), 4) +
           le(0, 2);
}

// Makes both headers of the entry called name declare this uncompressed size.
inline void setDeclaredSize(std::string& archive, const std::string& name, std::uint32_t size) {
    for (std::size_t at = archive.find(name); at != std::string::npos; at = archive.find(name, at + 1)) {
        if (at >= 30 && archive.compare(at - 30, 4, "PK\3\4") == 0) archive.replace(at - 8, 4, littleEndian(size, 4));
        if (at >= 46 && archive.compare(at - 46, 4, "PK\1\2") == 0) archive.replace(at - 22, 4, littleEndian(size, 4));
    }
}

}  // namespace opc::test
