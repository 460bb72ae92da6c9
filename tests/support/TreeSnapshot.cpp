#include "support/TreeSnapshot.h"

#include "support/TempDir.h"

#include <algorithm>

namespace opc::test {

TreeSnapshot snapshotTree(const std::filesystem::path& root) {
    namespace fs = std::filesystem;
    TreeSnapshot tree;
    for (auto it = fs::recursive_directory_iterator(root); it != fs::recursive_directory_iterator(); ++it) {
        const std::string relative = it->path().lexically_relative(root).native();  // links unresolved
        if (it->is_symlink()) {
            tree[relative] = "-> " + fs::read_symlink(it->path()).native();
            it.disable_recursion_pending();
        } else if (it->is_directory()) {
            tree[relative + "/"] = "";
        } else if (!it->is_regular_file()) {
            tree[relative] = "<special>";  // reading a FIFO or device could block or never end
        } else {
            tree[relative] = readFile(it->path());
        }
    }
    return tree;
}

std::vector<std::string> listFolder(const std::filesystem::path& folder) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
}

}  // namespace opc::test
