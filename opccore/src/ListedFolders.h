#pragma once

#include "StagingArea.h"

#include <cstddef>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace opc::detail {

// The folders one listing read files from, so that the existence tests that
// follow it (a package tests each listed file, folder after folder) resolve
// one name in an open folder rather than every component of the full path.
//
// A folder's answers come from the folder the path named when its first test
// was made. The service drops the record before anything it does could move
// or remove a folder, and each folder is forgotten after as many tests as the
// listing found files in it, or at its first test that finds nothing; after
// that its paths are tested in full again. At most one folder is open at a
// time, and only while the tests stay in it.
class ListedFolders {
public:
    ListedFolders() = default;
    ListedFolders(const ListedFolders&) = delete;
    ListedFolders& operator=(const ListedFolders&) = delete;
    ~ListedFolders() = default;

    bool empty() const { return folders.empty(); }

    // Forgets every folder and closes the open one.
    void clear() noexcept;

    // folder as the listing spelled it (absolute), the length of its native
    // path, and how many files the listing found directly in it (more than
    // none).
    void add(std::u16string folder, std::size_t nativeSize, std::size_t files);

    // Whether name (native, one component, not "." or "..") exists in folder,
    // following a link as the full path's test does; nothing when folder is
    // not recorded or cannot be opened, which the caller then tests in full.
    std::optional<bool> exists(std::u16string_view folder, const char* name, std::size_t nameSize);

private:
    struct Folder {
        std::size_t nativeSize = 0;
        std::size_t credits = 0;
    };
    using Folders = std::map<std::u16string, Folder, std::less<>>;

    bool isCurrent(std::u16string_view folder) const;
    void forget(Folders::iterator folder) noexcept;

    Folders folders;
    Folders::iterator current = folders.end();  // the folder open as descriptor
    Fd descriptor;
};

}  // namespace opc::detail
