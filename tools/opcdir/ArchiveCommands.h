#pragma once

#include "Registry.h"

namespace opcdir {

// ZIP-based package file -> folder package. Every entry is checked before the
// target is touched, and the target changes only by the package's commit.
void unpackCommand(const Arguments& args, Io& io, opc::FileSystemOps& fileSystem);

// Folder package -> ZIP-based package file, which appears only when complete.
void packCommand(const Arguments& args, Io& io, opc::FileSystemOps& fileSystem);

}  // namespace opcdir
