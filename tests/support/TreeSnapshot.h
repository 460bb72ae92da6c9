#pragma once

#include <filesystem>
#include <map>
#include <ostream>
#include <string>
#include <vector>

namespace opc::test {

// Everything below a folder: each file's relative path mapped to its bytes,
// each folder's relative path plus "/" mapped to "", each symbolic link's
// path mapped to "-> " plus its target, and a FIFO, socket or device to
// "<special>". Two snapshots are equal exactly when the trees hold the same
// names and bytes.
using TreeSnapshot = std::map<std::string, std::string>;

TreeSnapshot snapshotTree(const std::filesystem::path& root);

// The names of the entries directly in folder, sorted.
std::vector<std::string> listFolder(const std::filesystem::path& folder);

}  // namespace opc::test
