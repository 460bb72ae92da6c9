#pragma once

#include "Arguments.h"
#include "Registry.h"

#include <opccore/FileSystemOps.h>
#include <opcfspackage/PackageLock.h>

#include <memory>
#include <string>
#include <vector>

namespace opcdir {

// Takes the lock of the package the command names, as its registry entry
// declares: shared to read, exclusive to write or create; none for a command
// without a package or one that locks each folder operand
// (lockFolderOperands). Waits as long as --wait allows (no bound without it),
// telling a terminal once when the wait passes a second.
//
// Throws Failure "still in use by another process after --wait ..." when the
// wait runs out, "no such package folder" for a package to read or write
// whose folder's folder is missing (for one to create there the dispatcher
// sets Io::lockCreatedPackage instead, which takes the lock once the command
// has made that folder),
// and "cannot lock the package: <cause>" when the lock file cannot be used;
// reading goes ahead unlocked where the lock file may not be made (a folder
// the user may not write to, a read-only file system).
std::unique_ptr<opc::fspackage::PackageLock> lockPackage(const Command& command,
                                                         const Arguments& args,
                                                         Io& io,
                                                         opc::FileSystemOps& fileSystem);

// For a command that reads packages given as folders or ZIP files: the
// shared lock of each operand that is a package folder, taken in the order
// of the operands (shared locks never wait on one another, so two commands
// naming the same packages in other orders cannot deadlock). Fails as
// lockPackage does.
std::vector<std::unique_ptr<opc::fspackage::PackageLock>> lockFolderOperands(const Command& command,
                                                                             const Arguments& args,
                                                                             Io& io,
                                                                             opc::FileSystemOps& fileSystem);

}  // namespace opcdir
