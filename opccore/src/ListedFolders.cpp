#include "ListedFolders.h"

#include <opccore/NameCodec.h>

#include <fcntl.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <utility>

namespace opc::detail {

void ListedFolders::clear() noexcept {
    descriptor = Fd();
    folders.clear();
    current = folders.end();
}

void ListedFolders::add(std::u16string folder, std::size_t nativeSize, std::size_t files) {
    Folder& entry = folders[std::move(folder)];
    entry.nativeSize = nativeSize;
    entry.credits = files;
}

void ListedFolders::forget(Folders::iterator folder) noexcept {
    if (folder == current) {
        descriptor = Fd();
        current = folders.end();
    }
    folders.erase(folder);
}

bool ListedFolders::isCurrent(std::u16string_view folder) const {
    // Compared as bytes: a comparison of UTF-16 strings goes unit by unit,
    // and this one is made for every test.
    return current != folders.end() && current->first.size() == folder.size() &&
           std::memcmp(current->first.data(), folder.data(), folder.size() * sizeof(char16_t)) == 0;
}

std::optional<bool> ListedFolders::exists(std::u16string_view folder, const char* name, std::size_t nameSize) {
    const auto found = isCurrent(folder) ? current : folders.find(folder);
    if (found == folders.end()) return std::nullopt;
    // The full path would be refused as too long; a relative name is not.
    if (found->second.nativeSize + 1 + nameSize >= PATH_MAX) return std::nullopt;
    if (found != current) {
        descriptor = Fd();
        current = folders.end();
        // Links are followed, as the full path's test follows them.
        Fd opened(::open(NameCodec::encode(found->first).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
        if (!opened) {
            forget(found);
            return std::nullopt;
        }
        descriptor = std::move(opened);
        current = found;
    }
    const bool exists = ::faccessat(descriptor.get(), name, F_OK, AT_EACCESS) == 0;
    if (!exists || --found->second.credits == 0) forget(found);
    return exists;
}

}  // namespace opc::detail
