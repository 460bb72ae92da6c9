#include "OpcdirHarness.h"
#include "support/TempDir.h"
#include "support/TreeSnapshot.h"

#include <gtest/gtest.h>

namespace opc::test {
namespace {

TEST(CommandLine, UsageErrorsExitWithTwoAndOneLine) {
    TempDir dir;
    writeFile(dir.path() / "pkg" / "[Content_Types].xml", "<Types/>");
    const TreeSnapshot before = snapshotTree(dir.path());
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{}, "no command given (see 'opcdir --help')"},
        {{"frob"}, "unknown command 'frob' (see 'opcdir --help')"},
        {{"--frob"}, "unknown option '--frob' (see 'opcdir --help')"},
        {{"ls"}, "ls: missing operand (see 'opcdir ls --help')"},
        {{"ls", "pkg", "extra"}, "ls: unexpected operand 'extra' (see 'opcdir ls --help')"},
        {{"ls", "--force", "pkg"}, "ls: unknown option '--force' (see 'opcdir ls --help')"},
        {{"ls", "--long=yes", "pkg"}, "ls: --long takes no value (see 'opcdir ls --help')"},
        {{"cat", "pkg"}, "cat: missing operand (see 'opcdir cat --help')"},
        {{"put", "pkg", "a", "b", "c"}, "put: unexpected operand 'c' (see 'opcdir put --help')"},
        {{"rm", "pkg"}, "rm: missing operand (see 'opcdir rm --help')"},
        {{"pack", "pkg"}, "pack: missing operand (see 'opcdir pack --help')"},
        {{"unpack", "a.zip", "out", "--max-size"}, "unpack: --max-size needs a value (see 'opcdir unpack --help')"},
        {{"unpack", "--max-size", "4X", "a.zip", "out"},
         "unpack: --max-size needs a byte count such as 4096, 64K or 4G, not '4X'"},
        {{"unpack", "--max-size=99999999999999999999", "a.zip", "out"},
         "unpack: --max-size needs a byte count such as 4096, 64K or 4G, not '99999999999999999999'"},
        {{"unpack", "--max-ratio", "0", "a.zip", "out"}, "unpack: --max-ratio must be at least 1"},
    };
    for (const auto& [arguments, message] : cases) {
        SCOPED_TRACE(message);
        const RunResult result = runOpcdir(dir.path(), arguments);
        EXPECT_EQ(result.status, 2);
        EXPECT_EQ(result.err, "opcdir: " + message + "\n");
        EXPECT_EQ(result.out, "");
    }
    EXPECT_EQ(snapshotTree(dir.path()), before);
}

TEST(CommandLine, HelpForTheToolAndEachCommand) {
    TempDir dir;
    const RunResult tool = runOpcdir(dir.path(), {"--help"});
    EXPECT_EQ(tool.status, 0);
    EXPECT_EQ(tool.out.rfind("usage: opcdir COMMAND [OPTIONS] ARGUMENTS\n", 0), 0u);
    for (const std::string command : {"ls", "cat", "put", "rm", "new", "unpack", "pack"}) {
        SCOPED_TRACE(command);
        EXPECT_NE(tool.out.find("\n  " + command + " "), std::string::npos);
        const RunResult help = runOpcdir(dir.path(), {command, "--help"});
        EXPECT_EQ(help.status, 0);
        EXPECT_EQ(help.err, "");
        EXPECT_EQ(help.out.rfind("usage: opcdir " + command + " ", 0), 0u) << help.out;
        EXPECT_EQ(runOpcdir(dir.path(), {"help", command}).out, help.out);
    }
    EXPECT_EQ(runOpcdir(dir.path(), {"unpack", "--help"}).out,
              "usage: opcdir unpack [--force] [--max-size N] [--max-ratio N] FILE PKG\n\n"
              "Turn a ZIP-based package file (.docx, .xlsx, .pptx, ...) into a folder package.\n\n"
              "  -f, --force          replace PKG even when it exists and is not empty\n"
              "      --max-size N     refuse archives that expand to more than N bytes\n"
              "                       (suffixes K, M, G; default 4G)\n"
              "      --max-ratio N    refuse entries that expand more than N times\n"
              "                       (default 1000)\n");
}

TEST(CommandLine, OptionsMayFollowOperandsAndDoubleDashEndsThem) {
    TempDir dir;
    writeFile(dir.path() / "pkg" / "[Content_Types].xml", "<Types/>");
    writeFile(dir.path() / "pkg" / "-l", "dash");
    EXPECT_EQ(runOpcdir(dir.path(), {"ls", "pkg", "-l"}).out, "8  -  /[Content_Types].xml\n4  -  /-l\n");
    const RunResult dashPart = runOpcdir(dir.path(), {"cat", "pkg", "--", "-l"});
    EXPECT_EQ(dashPart.status, 0) << dashPart.err;
    EXPECT_EQ(dashPart.out, "dash");
}

}  // namespace
}  // namespace opc::test
