#pragma once

#include "Registry.h"

#include <opccore/FileSystemOps.h>

#include <string>
#include <vector>

namespace opcdir {

// Runs one command line (the arguments after the program name) and returns
// the exit status: 0 success, 1 failure (or the command's own failure
// status), 2 wrong usage; diff and check also tell their finding by it. Failures are told on
// io.err in one line, "opcdir: <file>: <cause>". Every file is reached
// through fileSystem, and every change is committed as a whole by closing the
// package, so that a failure leaves the package as it was.
int run(const std::vector<std::string>& arguments, Io& io, opc::FileSystemOps& fileSystem);

}  // namespace opcdir
