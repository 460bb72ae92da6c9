#pragma once

#include "Registry.h"

namespace opcdir {

// The commands on the parts of one folder package. Each opens the package
// once and commits it at its end, so a failure leaves the package as it was.
void listCommand(const Arguments& args, Io& io, opc::FileSystemOps& fileSystem);
void catCommand(const Arguments& args, Io& io, opc::FileSystemOps& fileSystem);
void putCommand(const Arguments& args, Io& io, opc::FileSystemOps& fileSystem);
void removeCommand(const Arguments& args, Io& io, opc::FileSystemOps& fileSystem);
void newCommand(const Arguments& args, Io& io, opc::FileSystemOps& fileSystem);

// A folder that may become a new package without being forced: nothing at
// all, or a folder with no file below it.
bool isFreeTarget(opc::FileSystemOps& fileSystem, const std::string& path);

}  // namespace opcdir
