#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace opcdir {

// One command line, parsed against the command's own options. Options may
// come before, between or after the operands; "--" ends them, and "-" is an
// operand (standard input).
struct Arguments {
    std::string command;  // "ls", "pack", ...; empty for the tool itself
    std::vector<std::string> operands;
    std::set<std::string> flags;                // "--long", "--force", "--help", ...
    std::map<std::string, std::string> values;  // "--max-size" -> "4G"

    bool has(const std::string& flag) const { return flags.count(flag) != 0; }
};

// Throws UsageError for an unknown command or option, a missing option value
// or the wrong number of operands (unless --help is given).
Arguments parseArguments(const std::vector<std::string>& arguments);

// The help of the tool (command empty) or of one command.
std::string helpText(const std::string& command);

// A byte count such as "4096", "64K", "4G" (powers of 1024). Throws UsageError
// that starts with option (as "unpack: --max-size") when text is not one.
std::uint64_t parseByteCount(const std::string& option, const std::string& text);

}  // namespace opcdir
