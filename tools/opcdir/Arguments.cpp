#include "Arguments.h"

#include "Errors.h"
#include "Registry.h"

#include <limits>

namespace opcdir {
namespace {

std::string seeHelp(const std::string& command) {
    return " (see 'opcdir " + (command.empty() ? std::string() : command + " ") + "--help')";
}

// Every command that uses a package takes its turn on it, for as long as
// --wait allows.
const Option kWait{"--wait", "", true};

// Applies the option at arguments[index]; returns false when it is none of
// the command's options.
bool takeOption(const Command& info, const std::vector<std::string>& arguments, std::size_t& index, Arguments& parsed) {
    const std::string& argument = arguments[index];
    const std::size_t equals = argument.find('=');
    const std::string name = argument.substr(0, equals);
    std::vector<Option> options = info.options;
    if (info.package.access != Access::None) options.push_back(kWait);
    for (const Option& option : options) {
        if (name != option.name && name != option.shortName) continue;
        if (!option.takesValue) {
            if (equals != std::string::npos)
                throw UsageError(std::string(info.name) + ": " + option.name + " takes no value" + seeHelp(info.name));
            parsed.flags.insert(option.name);
        } else if (equals != std::string::npos) {
            parsed.values[option.name] = argument.substr(equals + 1);
        } else if (index + 1 < arguments.size()) {
            parsed.values[option.name] = arguments[++index];
        } else {
            throw UsageError(std::string(info.name) + ": " + option.name + " needs a value" + seeHelp(info.name));
        }
        return true;
    }
    return false;
}

}  // namespace

Arguments parseArguments(const std::vector<std::string>& arguments) {
    Arguments parsed;
    if (arguments.empty()) throw UsageError("no command given" + seeHelp(""));
    const std::string& first = arguments.front();
    if (first == "--help" || first == "-h" || first == "help") {
        if (arguments.size() > 1 && findCommand(arguments[1]) != nullptr) parsed.command = arguments[1];
        parsed.flags.insert("--help");
        return parsed;
    }
    if (first == "--version") {
        parsed.flags.insert("--version");
        return parsed;
    }
    const Command* info = findCommand(first);
    if (info == nullptr) {
        throw UsageError((first.size() > 1 && first[0] == '-' ? "unknown option '" : "unknown command '") + first +
                         "'" + seeHelp(""));
    }
    parsed.command = info->name;

    bool optionsEnded = false;
    for (std::size_t i = 1; i < arguments.size(); ++i) {
        const std::string& argument = arguments[i];
        if (optionsEnded || argument.size() < 2 || argument[0] != '-') {
            parsed.operands.push_back(argument);
        } else if (argument == "--") {
            optionsEnded = true;
        } else if (argument == "--help" || argument == "-h") {
            parsed.flags.insert("--help");
        } else if (!takeOption(*info, arguments, i, parsed)) {
            throw UsageError(parsed.command + ": unknown option '" + argument + "'" + seeHelp(info->name));
        }
    }
    if (parsed.has("--help")) return parsed;
    if (parsed.operands.size() < info->minOperands)
        throw UsageError(parsed.command + ": missing operand" + seeHelp(info->name));
    if (parsed.operands.size() > info->maxOperands) {
        throw UsageError(parsed.command + ": unexpected operand '" + parsed.operands[info->maxOperands] + "'" +
                         seeHelp(info->name));
    }
    return parsed;
}

std::string helpText(const std::string& command) {
    if (const Command* info = findCommand(command)) {
        std::string summary = info->summary;
        summary[0] = static_cast<char>(summary[0] - 'a' + 'A');
        std::string text = std::string("usage: opcdir ") + info->synopsis + "\n\n" + summary + ".\n";
        if (*info->details != '\0') text += std::string("\n") + info->details;
        return text;
    }
    std::string text =
        "usage: opcdir COMMAND [OPTIONS] ARGUMENTS\n\n"
        "Work with Open Packaging Conventions packages (.docx, .xlsx, .pptx, ...) kept\n"
        "as plain folders. Every change is committed as a whole: when a command fails,\n"
        "the package is left as it was.\n\n"
        "commands:\n";
    for (const Command& info : commands()) {
        text += std::string("  ") + info.synopsis + "\n      " + info.summary + "\n";
    }
    text +=
        "\nA command waits while another process (another opcdir, say) uses its package;\n"
        "--wait SECONDS, with any command, bounds the wait.\n"
        "'opcdir COMMAND --help' tells more about one command.\n"
        "Exit status: 0 success, 1 failure, 2 wrong usage.\n";
    return text;
}

std::uint64_t parseByteCount(const std::string& option, const std::string& text) {
    std::uint64_t value = 0;
    std::size_t i = 0;
    const auto fail = [&]() -> std::uint64_t {
        throw UsageError(option + " needs a byte count such as 4096, 64K or 4G, not '" + text + "'");
    };
    if (text.empty() || text[0] < '0' || text[0] > '9') fail();
    for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
        const auto digit = static_cast<std::uint64_t>(text[i] - '0');
        if (value > (std::numeric_limits<std::uint64_t>::max() - digit) / 10) fail();
        value = value * 10 + digit;
    }
    unsigned shift = 0;
    if (i < text.size()) {
        const std::string suffix = text.substr(i);
        if (suffix == "K" || suffix == "k")
            shift = 10;
        else if (suffix == "M" || suffix == "m")
            shift = 20;
        else if (suffix == "G" || suffix == "g")
            shift = 30;
        else if (suffix == "T" || suffix == "t")
            shift = 40;
        else
            fail();
    }
    if (shift != 0 && value > (std::numeric_limits<std::uint64_t>::max() >> shift)) fail();
    return value << shift;
}

}  // namespace opcdir
