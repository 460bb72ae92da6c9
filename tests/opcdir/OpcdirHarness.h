#pragma once

#include <opccore/FileSystemOps.h>

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace opc::test {

struct RunResult {
    int status = -1;
    std::string out;
    std::string err;
};

// Runs the built opcdir binary in folder `in` with these arguments and
// standard input.
RunResult runOpcdir(const std::filesystem::path& in,
                    const std::vector<std::string>& arguments,
                    const std::string& input = "");

// Runs the same commands in this process, every package going through
// fileSystem; relative paths are taken against the current folder.
// errIsTerminal makes the commands take standard error for a terminal.
RunResult runOpcdirWith(opc::FileSystemOps& fileSystem,
                        const std::vector<std::string>& arguments,
                        const std::string& input = "",
                        bool errIsTerminal = false);

// A ZIP entry written byte by byte, so that tests can make archives no ZIP
// library would: NUL or ".." in names, duplicates, sizes that lie.
struct RawEntry {
    std::string name;
    std::string data;  // stored as is (method 0)
};
std::string rawZip(const std::vector<RawEntry>& entries);

// An archive made by libzip of these entries, each deflated at the highest
// level.
std::string deflatedZip(const std::vector<std::pair<std::string, std::string>>& entries);

// Rewrites the uncompressed size that the local header and the central
// directory declare for the entry called name.
void setDeclaredSize(std::string& archive, const std::string& name, std::uint32_t size);

// One central-directory record of an archive.
struct DirectoryRecord {
    std::string name;
    std::uint16_t madeBy = 0;
    std::uint16_t flags = 0;
    std::uint16_t method = 0;
    std::uint16_t dosTime = 0;
    std::uint16_t dosDate = 0;
    std::uint32_t externalAttributes = 0;
    std::string extra;
    std::string localExtra;  // the extra field of the entry's local header
};
std::vector<DirectoryRecord> centralDirectory(const std::string& archive);

void writeBytes(const std::filesystem::path& path, const std::string& bytes);

}  // namespace opc::test
