#include "Commands.h"

#include <opccore/LocalFileSystemOps.h>

#include <unistd.h>

#include <cstdlib>
#include <iostream>

int main(int argc, char** argv) {
    std::ios::sync_with_stdio(false);
    // libzip turns each entry's DOS time into a time_t with mktime, and glibc
    // reads the time-zone file again on every call while TZ is unset: three
    // stat calls per entry. Naming the file it would read keeps it loaded.
    ::setenv("TZ", ":/etc/localtime", 0);
    opc::LocalFileSystemOps fileSystem;
    opcdir::Io io{std::cin, std::cout, std::cerr, ::isatty(STDERR_FILENO) == 1, ::isatty(STDOUT_FILENO) == 1};
    return opcdir::run(std::vector<std::string>(argv + 1, argv + argc), io, fileSystem);
}
