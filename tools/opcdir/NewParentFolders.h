#pragma once

#include "Registry.h"

#include <opccore/FileSystemOps.h>

#include <string>
#include <vector>

namespace opcdir {

// The folders above a package to create that do not exist yet. A command
// makes them with make() once its checks passed, which also takes the lock
// the dispatcher could not take without them. Unless keep() is called, the
// destructor removes them again where they hold nothing else, with the lock
// file in them when this command took that lock: it runs before the lock is
// let go, and a process waiting on the removed file then takes the one at
// the path (see FileSystemOps::lockFile).
class NewParentFolders {
public:
    // Throws Failure(packageName, ...) when the service cannot tell.
    NewParentFolders(opc::FileSystemOps& fileSystem, const std::string& packageName);
    NewParentFolders(const NewParentFolders&) = delete;
    NewParentFolders& operator=(const NewParentFolders&) = delete;
    ~NewParentFolders();

    // Makes the folders and calls io.lockCreatedPackage when set. Throws
    // Failure(packageName, ...).
    void make(Io& io);
    void keep() { kept = true; }

private:
    opc::FileSystemOps& service;
    std::string name;
    std::vector<std::u16string> missing;  // deepest first
    std::u16string lockFile;              // taken by make(), in missing.front()
    bool kept = false;
};

}  // namespace opcdir
