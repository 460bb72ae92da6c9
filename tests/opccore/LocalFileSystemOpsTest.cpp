#include "CoreTest.h"

#include "support/IrregularEntries.h"

#include <sys/stat.h>

#include <set>

namespace opc::test {
namespace {

using GetFiles = Fixture;
using Folders = Fixture;
using Streams = Fixture;
using Messages = Fixture;
using Strangers = Fixture;
using Locks = Fixture;

Strings listed(Ops& ops, const std::u16string& folder, bool recursive) {
    std::vector<std::u16string> files;
    ops.getFiles(folder, files, recursive);
    Strings names;
    for (const std::u16string& file : files) names.push_back(toUtf8(file));
    std::sort(names.begin(), names.end());
    return names;
}

TEST_F(GetFiles, ListsFilesAtAnyDepthUnderTheFolderAsSpelledButNoFoldersOrFolderLinks) {
    writeFile(dir.path() / "pkg" / "[Content_Types].xml", "types");
    writeFile(dir.path() / "pkg" / ".hidden", "h");
    writeFile(dir.path() / "pkg" / "word" / "media" / "deep" / "image.png", "png");
    fs::create_directories(dir.path() / "pkg" / "empty");
    fs::create_directory_symlink("..", dir.path() / "pkg" / "word" / "up");  // a cycle
    // The part names of a package are cut from these entries, so the prefix
    // must be exactly what the caller passed.
    const std::string root = toUtf8(dir.u16()) + "//pkg/.";
    EXPECT_EQ(listed(ops, fromUtf8(root), true),
              (Strings{root + "/.hidden", root + "/[Content_Types].xml", root + "/word/media/deep/image.png"}));
    EXPECT_EQ(listed(ops, fromUtf8(root), false), (Strings{root + "/.hidden", root + "/[Content_Types].xml"}));
    // The folder the caller names may itself be a link.
    fs::create_directory_symlink(dir.path() / "pkg" / "word", dir.path() / "named");
    EXPECT_EQ(listed(ops, dir.u16("named"), true), Strings{toUtf8(dir.u16("named/media/deep/image.png"))});
}

TEST_F(Strangers, OnlyRegularFilesAreListedReadOrCopiedAndNothingOutsideIsReached) {
    const NoHang noHang;
    writeFile(dir.path() / "pkg" / "a.xml", "A");
    const std::vector<IrregularEntry> entries = makeIrregularEntries(dir.path() / "pkg" / "sub", dir.path() / "out");
    fs::create_directories(dir.path() / "pkg" / "folder");
    const TreeSnapshot before = snapshotTree(dir.path());
    EXPECT_EQ(listed(ops, dir.u16("pkg"), true), Strings{toUtf8(dir.u16("pkg/a.xml"))});
    std::vector<IrregularEntry> refused = entries;
    refused.push_back({"../folder", EISDIR});
    for (const IrregularEntry& entry : refused) {
        SCOPED_TRACE(entry.name);
        const std::u16string path = dir.u16("pkg/sub/" + entry.name);
        for (const std::ios_base::openmode mode : {kIn, kIn | std::ios_base::out}) {
            boost::system::error_code code;
            EXPECT_EQ(ops.createInputStream(path, mode, code), nullptr);
            EXPECT_EQ(code, systemCode(entry.openError));
        }
        EXPECT_OPC_EXCEPTION(ops.copy(path, dir.u16("copy"), ExistsMode::Overwrite),
                             message("copy", path, dir.u16("copy")), systemCode(entry.openError));
    }
    EXPECT_EQ(snapshotTree(dir.path()), before);
}

TEST_F(Folders, ExistsAndIsFolderFollowLinksAndAnswerFalseForPathsThatDoNotResolve) {
    writeFile(dir.path() / "file", "f");
    fs::create_directory(dir.path() / "folder");
    fs::create_directory_symlink(dir.path() / "folder", dir.path() / "to-folder");
    fs::create_symlink(dir.path() / "file", dir.path() / "to-file");
    fs::create_symlink(dir.path() / "gone", dir.path() / "dangling");
    fs::create_symlink("loop", dir.path() / "loop");
    const std::vector<std::tuple<std::string, bool, bool>> cases = {
        {"file", true, false},        {"folder", true, true},     {"to-folder", true, true},
        {"to-file", true, false},     {"dangling", false, false}, {"missing", false, false},
        {"file/below", false, false}, {"loop", false, false},     {std::string(300, 'n'), false, false}};
    for (const auto& [name, exists, isFolder] : cases) {
        SCOPED_TRACE(name);
        EXPECT_EQ(ops.exists(dir.u16(name)), exists);
        EXPECT_EQ(ops.isFolder(dir.u16(name)), isFolder);
    }
}

TEST_F(Folders, GetTempNameGivesAHiddenFreshNameEachTimeAndMakesNothing) {
    std::set<std::u16string> seen;
    for (int i = 0; i < 20; ++i) {
        const std::u16string name = ops.getTempName(dir.u16());
        EXPECT_EQ(ops.getParentPath(name), dir.u16());
        EXPECT_EQ(name[dir.u16().size() + 1], u'.');
        EXPECT_FALSE(ops.exists(name));
        EXPECT_TRUE(seen.insert(name).second) << "repeated " << toUtf8(name);
        EXPECT_EQ(listFolder(dir.path()).size(), static_cast<std::size_t>(i));
        writeFile(toUtf8(name), "in use");
    }
}

TEST_F(Folders, CreateFoldersMakesEveryLevelInBothFormsAndFailsBelowAFile) {
    writeFile(dir.path() / "file", "f");
    ops.createFolders(dir.u16("a/b"));
    ops.createFolders(dir.u16("a/b"));
    boost::system::error_code code;
    ops.createFolders(dir.u16("x/y"), code);
    EXPECT_FALSE(code) << code.message();
    ops.createFolders(dir.u16("file/sub"), code);
    EXPECT_EQ(code, systemCode(ENOTDIR));
    ops.createFolders(dir.u16("file"), code);
    EXPECT_EQ(code, systemCode(EEXIST));
    EXPECT_EQ(snapshotTree(dir.path()),
              (TreeSnapshot{{"a/", ""}, {"a/b/", ""}, {"file", "f"}, {"x/", ""}, {"x/y/", ""}}));
}

TEST_F(Streams, MissingInputIsReportedAsNoSuchFileWithoutThrowing) {
    boost::system::error_code code;
    std::shared_ptr<std::istream> in;
    EXPECT_NO_THROW(in = ops.createInputStream(dir.u16("missing.xml"), kIn, code));
    EXPECT_EQ(in, nullptr);
    EXPECT_EQ(code, systemCode(ENOENT));
}

TEST_F(Streams, OutputEmptiesAnExistingFile) {
    writeFile(dir.path() / "part.xml", "a long old content that must not survive");
    boost::system::error_code code;
    auto out = ops.createOutputStream(dir.u16("part.xml"), kOut, code);
    ASSERT_NE(out, nullptr) << code.message();
    EXPECT_EQ(fs::file_size(dir.path() / "part.xml"), 0u);
    *out << "new";
    out.reset();
    EXPECT_EQ(readFile(dir.path() / "part.xml"), "new");
}

TEST_F(Messages, NameTheOperationAndPathsWithTheSystemWording) {
    writeFile(dir.path() / "file", "content");
    const std::u16string missing = dir.u16("missing");
    const std::u16string target = dir.u16("target");
    const std::u16string tooLong = dir.u16(std::string(300, 'n'));
    struct Case {
        std::function<void()> call;
        std::string message;
        int errorValue;
    };
    std::vector<std::u16string> files;
    const std::vector<Case> cases = {
        {[&] { ops.getFiles(missing, files, true); }, message("list folder", missing), ENOENT},
        {[&] { ops.createFolders(dir.u16("file/sub")); }, message("create folder", dir.u16("file/sub")), ENOTDIR},
        {[&] { ops.copy(missing, target, ExistsMode::Overwrite); }, message("copy", missing, target), ENOENT},
        {[&] { ops.rename(missing, target); }, message("rename", missing, target), ENOENT},
        {[&] { ops.removeAll(tooLong); }, message("remove", tooLong), ENAMETOOLONG},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.message);
        const auto [what, code] = caught(c.call);
        EXPECT_EQ(what, c.message);
        EXPECT_EQ(code, systemCode(c.errorValue));
        EXPECT_EQ(code.message(), std::strerror(c.errorValue));
    }
}

TEST_F(Locks, MakeAMissingFileKeepAnExistingOneAndRefuseWhatIsNoRegularFile) {
    writeFile(dir.path() / "kept", "bytes");
    fs::create_directory(dir.path() / "folder");
    fs::create_symlink("created-by-link", dir.path() / "link");
    for (const LockMode mode : {LockMode::Shared, LockMode::Exclusive}) {
        EXPECT_NE(ops.lockFile(dir.u16("made"), mode, std::nullopt), nullptr);
        EXPECT_NE(ops.lockFile(dir.u16("kept"), mode, std::chrono::seconds(0)), nullptr);
    }
    const TreeSnapshot before = snapshotTree(dir.path());
    ASSERT_EQ(::mkfifo((dir.path() / "fifo").c_str(), 0600), 0);  // opened, it would block a reader of the tree
    const std::vector<std::pair<std::string, int>> refused = {
        {"missing/lock", ENOENT}, {"folder", EISDIR}, {"link", ELOOP}, {"fifo", ENXIO}};
    for (const auto& [name, errorValue] : refused) {
        SCOPED_TRACE(name);
        const auto [what, code] = caught([&] { ops.lockFile(dir.u16(name), LockMode::Shared, std::nullopt); });
        EXPECT_EQ(what, message("lock", dir.u16(name)));
        EXPECT_EQ(code, systemCode(errorValue));
    }
    const auto [what, code] = caught([&] { ops.lockFile(dir.u16("other"), static_cast<LockMode>(2), std::nullopt); });
    EXPECT_EQ(what, message("lock", dir.u16("other")));
    EXPECT_EQ(code, systemCode(EINVAL));
    fs::remove(dir.path() / "fifo");
    EXPECT_EQ(snapshotTree(dir.path()), before);
    EXPECT_EQ(readFile(dir.path() / "made"), "");
    EXPECT_EQ(readFile(dir.path() / "kept"), "bytes");
}

}  // namespace
}  // namespace opc::test
