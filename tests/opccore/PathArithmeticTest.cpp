#include <opccore/LocalFileSystemOps.h>

#include "support/Strings.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include <unistd.h>

namespace {

using opc::test::fromUtf8;
using opc::test::TempDir;

// Makes dir the current folder for one test and restores the old one.
class CurrentFolder {
public:
    explicit CurrentFolder(const std::filesystem::path& dir) : previous(std::filesystem::current_path()) {
        std::filesystem::current_path(dir);
    }
    CurrentFolder(const CurrentFolder&) = delete;
    CurrentFolder& operator=(const CurrentFolder&) = delete;
    ~CurrentFolder() {
        std::error_code ignored;
        std::filesystem::current_path(previous, ignored);
    }

private:
    std::filesystem::path previous;
};

TEST(AppendPath, JoinsFolderAndRelativePathWithOneSlash) {
    opc::LocalFileSystemOps fs;
    EXPECT_EQ(fs.appendPath(u"/data/pkg", u"word/x.xml"), u"/data/pkg/word/x.xml");
    EXPECT_EQ(fs.appendPath(u"/data/pkg", u"[Content_Types].xml"), u"/data/pkg/[Content_Types].xml");
    EXPECT_EQ(fs.appendPath(u"/data/pkg", u"_rels/.rels"), u"/data/pkg/_rels/.rels");
    EXPECT_EQ(fs.appendPath(u"/d\u00E9j\u00E0", u"\U0001D11E.xml"), u"/d\u00E9j\u00E0/\U0001D11E.xml");
}

TEST(AppendPath, RootFolderGivesNoDoubleSlash) {
    opc::LocalFileSystemOps fs;
    EXPECT_EQ(fs.appendPath(u"/", u"x"), u"/x");
    EXPECT_EQ(fs.appendPath(u"/", u"a/b"), u"/a/b");
}

TEST(NormalizePath, CanonicalAbsolutePathIsUnchanged) {
    opc::LocalFileSystemOps fs;
    EXPECT_EQ(fs.normalizePath(u"/data/pkg"), u"/data/pkg");
    EXPECT_EQ(fs.normalizePath(u"/data/p\u00E9kg/\U0001D11E"), u"/data/p\u00E9kg/\U0001D11E");
}

TEST(NormalizePath, DropsTrailingAndRepeatedSlashes) {
    opc::LocalFileSystemOps fs;
    EXPECT_EQ(fs.normalizePath(u"/data/pkg/"), u"/data/pkg");
    EXPECT_EQ(fs.normalizePath(u"/data/pkg///"), u"/data/pkg");
    EXPECT_EQ(fs.normalizePath(u"//data//pkg"), u"/data/pkg");
}

TEST(NormalizePath, ResolvesDotAndDotDotLexically) {
    opc::LocalFileSystemOps fs;
    EXPECT_EQ(fs.normalizePath(u"/data/./pkg/."), u"/data/pkg");
    EXPECT_EQ(fs.normalizePath(u"/data/other/../pkg"), u"/data/pkg");
    EXPECT_EQ(fs.normalizePath(u"/data/a/b/../../pkg/c/.."), u"/data/pkg");
    // Names that only look like dots are ordinary segments.
    EXPECT_EQ(fs.normalizePath(u"/data/.../..x/x.."), u"/data/.../..x/x..");
    EXPECT_EQ(fs.normalizePath(u"/data/.hidden"), u"/data/.hidden");
}

TEST(NormalizePath, DotDotAboveRootStaysAtRoot) {
    opc::LocalFileSystemOps fs;
    EXPECT_EQ(fs.normalizePath(u"/.."), u"/");
    EXPECT_EQ(fs.normalizePath(u"/../../data"), u"/data");
    EXPECT_EQ(fs.normalizePath(u"/data/../../pkg"), u"/pkg");
}

TEST(NormalizePath, RootStaysRoot) {
    opc::LocalFileSystemOps fs;
    EXPECT_EQ(fs.normalizePath(u"/"), u"/");
    EXPECT_EQ(fs.normalizePath(u"//"), u"/");
    EXPECT_EQ(fs.normalizePath(u"/./"), u"/");
}

TEST(NormalizePath, RelativePathIsTakenAgainstTheCurrentFolder) {
    TempDir dir;
    std::filesystem::create_directories(dir.path() / "cwd");
    const CurrentFolder here(dir.path() / "cwd");
    opc::LocalFileSystemOps fs;
    // The current folder as the system spells it (TMPDIR may hold a link).
    const std::u16string cwd = fromUtf8(std::filesystem::current_path().native());
    const std::u16string parent = fromUtf8(std::filesystem::current_path().parent_path().native());
    EXPECT_EQ(fs.normalizePath(u"pkg"), cwd + u"/pkg");
    EXPECT_EQ(fs.normalizePath(u"a/./b//../c/"), cwd + u"/a/c");
    EXPECT_EQ(fs.normalizePath(u"."), cwd);
    EXPECT_EQ(fs.normalizePath(u"./"), cwd);
    EXPECT_EQ(fs.normalizePath(u".."), parent);
    EXPECT_EQ(fs.normalizePath(u"../sibling"), parent + u"/sibling");
}

TEST(NormalizePath, RelativePathInRootFolder) {
    const CurrentFolder here("/");
    opc::LocalFileSystemOps fs;
    EXPECT_EQ(fs.normalizePath(u"data/pkg"), u"/data/pkg");
    EXPECT_EQ(fs.normalizePath(u".."), u"/");
}

TEST(NormalizePath, SymbolicLinksAreNotResolved) {
    TempDir dir;
    std::filesystem::create_directories(dir.path() / "real" / "inner");
    std::filesystem::create_directory_symlink(dir.path() / "real" / "inner", dir.path() / "link");
    opc::LocalFileSystemOps fs;
    // Resolving the link first would give <dir>/real/x.
    EXPECT_EQ(fs.normalizePath(dir.u16("link") + u"/../x"), dir.u16() + u"/x");
    EXPECT_EQ(fs.normalizePath(dir.u16("link") + u"/"), dir.u16("link"));
}

TEST(NormalizePath, ResultIsThePrefixGetFilesUses) {
    TempDir dir;
    opc::test::writeFile(dir.path() / "pkg" / "word" / "x.xml", "x");
    opc::LocalFileSystemOps fs;
    const std::u16string root = fs.normalizePath(dir.u16() + u"//pkg/./");
    std::vector<std::u16string> files;
    fs.getFiles(root, files, true);
    ASSERT_EQ(files.size(), 1u);
    EXPECT_EQ(files[0], dir.u16() + u"/pkg/word/x.xml");
    EXPECT_EQ(files[0].substr(files[0].find(root) + root.size()), u"/word/x.xml");
}

TEST(GetParentPath, DropsTheLastSegment) {
    opc::LocalFileSystemOps fs;
    EXPECT_EQ(fs.getParentPath(u"/data/pkg"), u"/data");
    EXPECT_EQ(fs.getParentPath(u"/data/pkg/word/x.xml"), u"/data/pkg/word");
    EXPECT_EQ(fs.getParentPath(u"a/b"), u"a");
}

TEST(GetParentPath, TopLevelEntryHasRootAsParent) {
    opc::LocalFileSystemOps fs;
    EXPECT_EQ(fs.getParentPath(u"/a"), u"/");
    EXPECT_EQ(fs.getParentPath(u"/data"), u"/");
}

TEST(GetParentPath, NameWithoutSlashHasEmptyParent) {
    opc::LocalFileSystemOps fs;
    EXPECT_EQ(fs.getParentPath(u"pkg"), u"");
    EXPECT_EQ(fs.getParentPath(u""), u"");
}

}  // namespace
