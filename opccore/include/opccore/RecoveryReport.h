#pragma once

#include <cstddef>

namespace opc {

// What FileSystemOps::recover() found beside a package and did about it.
struct RecoveryReport {
    enum class Swap {
        None,          // no commit was cut off while it swapped this package
        RestoredOld,   // the old package, moved aside, was put back at the path
        CompletedNew,  // the new package was in place; the old one was removed
        InProgress,    // a live process is swapping the package now; left alone
    };
    Swap swap = Swap::None;
    // Staging and moved-aside folders of processes that are gone, removed.
    std::size_t removedFolders = 0;
    // Whether a folder lies at the package path afterwards.
    bool packageExists = false;
};

}  // namespace opc
