#pragma once

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

namespace opc::test {

// A ZIP archive's entries, in archive order: name and bytes (as stored, when
// compressed). Folder entries (names ending in "/") are left out. Throws
// std::runtime_error for an archive that cannot be read.
using ZipEntries = std::vector<std::pair<std::string, std::string>>;
ZipEntries readZipEntries(const std::filesystem::path& archive, bool compressed = false);

// Writes every file entry of archive below folder (made if missing), as a test
// fixture: a folder package made from a ZIP package.
void unzipToFolder(const std::filesystem::path& archive, const std::filesystem::path& folder);

// The folder that holds the test data (tests/data).
std::filesystem::path testDataDir();

// The valid packages of the corpus (tests/data/corpus/*, not malformed/).
std::vector<std::filesystem::path> corpusPackages();

}  // namespace opc::test
