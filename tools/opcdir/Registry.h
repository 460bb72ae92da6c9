#pragma once

#include "Arguments.h"

#include <opccore/FileSystemOps.h>

#include <cstddef>
#include <functional>
#include <iosfwd>
#include <limits>
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
    // Names listed on a terminal get their control characters escaped, so
    // that a name cannot carry escape sequences to it.
    bool outIsTerminal = false;
    // Set by the dispatcher when a package to create had no folder to hold
    // its lock: the command makes that folder and then calls this, before it
    // looks at the package path (see NewParentFolders). Returns the lock
    // file, or empty when the lock was not taken.
    std::function<std::u16string()> lockCreatedPackage{};
};

// Carries out one parsed command line. Throws Failure or UsageError; every
// file is reached through fileSystem.
using Handler = void (*)(const Arguments& args, Io& io, opc::FileSystemOps& fileSystem);
// The same, for a command whose success has more than one exit status (diff:
// 0 same, 1 different); returns it.
using StatusHandler = int (*)(const Arguments& args, Io& io, opc::FileSystemOps& fileSystem);

struct Option {
    const char* name;       // "--max-size"
    const char* shortName;  // "-f", or empty
    bool takesValue;
};

inline constexpr std::size_t kUnbounded = std::numeric_limits<std::size_t>::max();

// What a command does to the package one of its operands names. The
// dispatcher holds that package's lock for the whole command accordingly.
enum class Access {
    None,      // no package: no lock
    Read,      // shared with other readers
    ReadEach,  // shared, on each operand that is a package folder (a ZIP file needs none)
    Write,     // alone; the package must exist
    Create,    // alone, once the folder that is to hold the package exists
};

struct PackageUse {
    Access access;
    std::size_t operand;  // which operand names the package
};

// One command of the tool: the parser reads its options and operand counts,
// --help its texts, the dispatcher its handler.
struct Command {
    const char* name;
    const char* synopsis;  // "ls [--long] [--json] PKG"
    const char* summary;   // one line, lower case, no full stop
    const char* details;   // lines indented by two spaces, or empty
    std::vector<Option> options;
    std::size_t minOperands;
    std::size_t maxOperands;
    PackageUse package;
    Handler handler;
    StatusHandler statusHandler = nullptr;  // used instead of handler when set
    int failureStatus = 1;                  // the exit status of a Failure
};

// Every command, in the order --help lists them.
const std::vector<Command>& commands();

// The command called name, or null.
const Command* findCommand(const std::string& name);

}  // namespace opcdir
