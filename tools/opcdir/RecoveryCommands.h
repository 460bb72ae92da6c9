#pragma once

#include "Registry.h"

#include <opccore/RecoveryReport.h>

#include <string>

namespace opcdir {

// Makes the package at packageName whole after a commit that a dead process
// left unfinished, and removes what such commits left beside it. Every
// command that writes a package runs it first. Throws Failure when it cannot.
opc::RecoveryReport recoverPackage(opc::FileSystemOps& fileSystem, const std::string& packageName);

// recover PKG: the above on its own, with one line saying what it did; exit
// status 0 when a whole package lies at the path afterwards.
void recoverCommand(const Arguments& args, Io& io, opc::FileSystemOps& fileSystem);

}  // namespace opcdir
