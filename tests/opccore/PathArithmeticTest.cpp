#include "CoreTest.h"

namespace opc::test {
namespace {

using PathCase = std::pair<std::u16string, std::u16string>;

TEST(PathArithmetic, AppendPathJoinsWithOneSlash) {
    Ops ops;
    EXPECT_EQ(ops.appendPath(u"/data/pkg", u"word/x.xml"), u"/data/pkg/word/x.xml");
    EXPECT_EQ(ops.appendPath(u"/", u"a/b"), u"/a/b");
}

TEST(PathArithmetic, NormalizePathResolvesLexically) {
    Ops ops;
    // Only "." and ".." are special.
    const std::vector<PathCase> cases = {{u"/data/pkg", u"/data/pkg"},
                                         {u"/data/pkg/", u"/data/pkg"},
                                         {u"/data/pkg///", u"/data/pkg"},
                                         {u"/data/pkg/.", u"/data/pkg"},
                                         {u"//data//pkg", u"/data/pkg"},
                                         {u"/data/./pkg/.", u"/data/pkg"},
                                         {u"/data/a/b/../../pkg/c/..", u"/data/pkg"},
                                         {u"/data/.../..x/.h", u"/data/.../..x/.h"},
                                         {u"/../../data", u"/data"},
                                         {u"/", u"/"},
                                         {u"//", u"/"},
                                         {u"/..", u"/"}};
    for (const auto& [in, expected] : cases) {
        SCOPED_TRACE(toUtf8(in));
        EXPECT_EQ(ops.normalizePath(in), expected);
    }
}

using NormalizePath = Fixture;

TEST_F(NormalizePath, TakesARelativePathAgainstTheCurrentFolderAndKeepsLinks) {
    fs::create_directories(dir.path() / "real" / "inner");
    fs::create_directory_symlink(dir.path() / "real" / "inner", dir.path() / "link");
    const fs::path previous = fs::current_path();
    fs::current_path(dir.path() / "real");
    // The current folder as the system spells it (TMPDIR may hold a link).
    const std::u16string cwd = fromUtf8(fs::current_path().native());
    EXPECT_EQ(ops.normalizePath(u"a/./b//../c/"), cwd + u"/a/c");
    EXPECT_EQ(ops.normalizePath(u"."), cwd);
    fs::current_path(previous);
    // Resolving the link first would give <dir>/real/x.
    EXPECT_EQ(ops.normalizePath(dir.u16("link") + u"/../x"), dir.u16("x"));
}

TEST(PathArithmetic, GetParentPathDropsTheLastSegment) {
    Ops ops;
    const std::vector<PathCase> cases = {
        {u"/data/pkg/x.xml", u"/data/pkg"}, {u"a/b", u"a"}, {u"/a", u"/"}, {u"pkg", u""}, {u"", u""}};
    for (const auto& [in, expected] : cases) {
        SCOPED_TRACE(toUtf8(in));
        EXPECT_EQ(ops.getParentPath(in), expected);
    }
}

}  // namespace
}  // namespace opc::test
