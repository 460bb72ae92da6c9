#pragma once

#include "support/TempDir.h"

#include <algorithm>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace opc::test {

// Everything below a folder by relative path: a file's bytes, "" for a
// folder (its path ending in "/"), "-> target" for a link, "<special>" for a
// FIFO, socket or device.
using TreeSnapshot = std::map<std::string, std::string>;

inline TreeSnapshot snapshotTree(const std::filesystem::path& root) {
    namespace fs = std::filesystem;
    TreeSnapshot tree;
    for (auto it = fs::recursive_directory_iterator(root); it != fs::recursive_directory_iterator(); ++it) {
        const std::string relative = it->path().lexically_relative(root).native();  // links unresolved
        if (it->is_symlink()) {
            tree[relative] = "-> " + fs::read_symlink(it->path()).native();
            it.disable_recursion_pending();
        } else if (it->is_directory()) {
            tree[relative + "/"] = "";
        } else {  // reading a FIFO or device could block or never end
            tree[relative] = it->is_regular_file() ? readFile(it->path()) : "<special>";
        }
    }
    return tree;
}

// Relative file path -> bytes.
using Files = std::map<std::string, std::string>;

// The snapshot of a folder "pkg" holding just these files, with every folder
// on the way to them.
template <class FileList = Files>
TreeSnapshot treeOf(const FileList& files) {
    TreeSnapshot tree{{"pkg/", ""}};
    for (const auto& [path, bytes] : files) {
        for (auto end = path.find('/'); end != std::string::npos; end = path.find('/', end + 1)) {
            tree["pkg/" + path.substr(0, end + 1)] = "";
        }
        tree["pkg/" + path] = bytes;
    }
    return tree;
}

// The names of the entries directly in folder, sorted.
inline std::vector<std::string> listFolder(const std::filesystem::path& folder) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
}

}  // namespace opc::test
