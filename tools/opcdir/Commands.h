#pragma once

#include <opccore/FileSystemOps.h>

#include <istream>
#include <ostream>
#include <string>
#include <vector>

namespace opcdir {

// Where a command reads and writes besides the packages.
struct Io {
    std::istream& in;
    std::ostream& out;
    std::ostream& err;
    // Progress lines go to err only when it is a terminal.
    bool errIsTerminal = false;
};

// Runs one command line (the arguments after the program name) and returns
// the exit status: 0 success, 1 failure, 2 wrong usage. Failures are told on
// io.err in one line, "opcdir: <file>: <cause>". Every package is opened
// through fileSystem, and every change is committed as a whole by closing the
// package, so that a failure leaves the package as it was.
int run(const std::vector<std::string>& arguments, Io& io, opc::FileSystemOps& fileSystem);

}  // namespace opcdir
