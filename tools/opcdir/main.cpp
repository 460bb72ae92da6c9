#include "Commands.h"

#include <opccore/LocalFileSystemOps.h>

#include <unistd.h>

#include <iostream>

int main(int argc, char** argv) {
    std::ios::sync_with_stdio(false);
    opc::LocalFileSystemOps fileSystem;
    opcdir::Io io{std::cin, std::cout, std::cerr, ::isatty(STDERR_FILENO) == 1, ::isatty(STDOUT_FILENO) == 1};
    return opcdir::run(std::vector<std::string>(argv + 1, argv + argc), io, fileSystem);
}
