#include "CoreTest.h"

#include "support/IrregularEntries.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <functional>
#include <iterator>
#include <map>
#include <set>
#include <tuple>

namespace opc::test {
namespace {

using Service = Fixture;
using PathPair = std::pair<std::u16string, std::u16string>;

Strings listed(Ops& ops, const std::u16string& folder, bool recursive) {
    std::vector<std::u16string> files;
    ops.getFiles(folder, files, recursive);
    Strings names;
    for (const std::u16string& file : files) names.push_back(toUtf8(file));
    return names;
}

TEST_F(Service, PathsAreJoinedNormalizedLexicallyAgainstTheCurrentFolderAndCut) {
    EXPECT_EQ(ops.appendPath(u"/data/pkg", u"word/x.xml"), u"/data/pkg/word/x.xml");
    EXPECT_EQ(ops.appendPath(u"/", u"a/b"), u"/a/b");
    // Only "." and ".." are special.
    for (const auto& [in, expected] : std::vector<PathPair>{{u"/data/pkg", u"/data/pkg"},
                                                            {u"/data/pkg/", u"/data/pkg"},
                                                            {u"/data/pkg/.", u"/data/pkg"},
                                                            {u"//data//pkg", u"/data/pkg"},
                                                            {u"/data/./pkg/.", u"/data/pkg"},
                                                            {u"/data/a/b/../../pkg/c/..", u"/data/pkg"},
                                                            {u"/data/.../..x/.h", u"/data/.../..x/.h"},
                                                            {u"/../../data", u"/data"},
                                                            {u"/", u"/"},
                                                            {u"/..", u"/"}}) {
        EXPECT_EQ(ops.normalizePath(in), expected) << toUtf8(in);
    }
    for (const auto& [in, expected] : std::vector<PathPair>{
             {u"/data/pkg/x.xml", u"/data/pkg"}, {u"a/b", u"a"}, {u"/a", u"/"}, {u"pkg", u""}, {u"", u""}}) {
        EXPECT_EQ(ops.getParentPath(in), expected) << toUtf8(in);
    }
    // A relative path goes against the current folder; links stay unresolved.
    fs::create_directories(dir.path() / "real" / "inner");
    fs::create_directory_symlink(dir.path() / "real" / "inner", dir.path() / "link");
    const fs::path previous = fs::current_path();
    fs::current_path(dir.path() / "real");
    const std::u16string cwd = fromUtf8(fs::current_path().native());  // TMPDIR may hold a link
    EXPECT_EQ(ops.normalizePath(u"a/./b//../c/"), cwd + u"/a/c");
    EXPECT_EQ(ops.normalizePath(u"."), cwd);
    fs::current_path(previous);
    EXPECT_EQ(ops.normalizePath(dir.u16("link") + u"/../x"), dir.u16("x"));  // not <dir>/real/x
}

// Part names are cut from the listed paths, and callers keeping parts in a
// std::map insert each at its end.
TEST_F(Service, GetFilesListsFilesAtAnyDepthAsSpelledInUtf16OrderButNoFoldersOrLinks) {
    // As bytes or code points "\xEF\xBC\xA1" (U+FF21) sorts before the emoji; as UTF-16 units after it.
    for (const char* name :
         {"a0", "a/b", "a.txt", ".hidden", "a-", "B", "z", "\xC3\xA9/x", "\xEF\xBC\xA1", "word/media/deep/image.png",
          "\xF0\x9F\x98\x80", "\xFF", "[Content_Types].xml", "n/\xEF\xBC\xA1", "n/\xF0\x9F\x98\x80"}) {
        writeFile(dir.path() / "pkg" / name, "x");
    }
    fs::create_directories(dir.path() / "pkg" / "empty");
    fs::create_directory_symlink("..", dir.path() / "pkg" / "word" / "up");  // a cycle
    // The prefix is exactly what the caller passed.
    const std::string root = toUtf8(dir.u16()) + "//pkg/.";
    Strings all;
    Strings top;
    for (const std::u16string& name : std::initializer_list<std::u16string>{
             u".hidden", u"B", u"[Content_Types].xml", u"a-", u"a.txt", u"a/b", u"a0", u"n/\U0001F600", u"n/\uFF21",
             u"word/media/deep/image.png", u"z", u"\u00E9/x", u"\U0001F600", std::u16string(1, char16_t{0xDCFF}),
             u"\uFF21"}) {
        all.push_back(root + "/" + toUtf8(name));
        if (name.find(u'/') == std::u16string::npos) top.push_back(all.back());
    }
    EXPECT_EQ(listed(ops, fromUtf8(root), true), all);
    EXPECT_EQ(listed(ops, fromUtf8(root), false), top);
    fs::create_directory_symlink(dir.path() / "pkg" / "word", dir.path() / "named");  // the named folder may be a link
    EXPECT_EQ(listed(ops, dir.u16("named"), true), Strings{toUtf8(dir.u16("named/media/deep/image.png"))});
}

TEST_F(Service, OnlyRegularFilesAreListedReadOrCopiedAndNothingOutsideIsReached) {
    const NoHang noHang;
    writeFile(dir.path() / "pkg" / "a.xml", "A");
    std::vector<IrregularEntry> refused = makeIrregularEntries(dir.path() / "pkg" / "sub", dir.path() / "out");
    fs::create_directories(dir.path() / "pkg" / "folder");
    refused.push_back({"../folder", EISDIR});
    const TreeSnapshot before = snapshotTree(dir.path());
    EXPECT_EQ(listed(ops, dir.u16("pkg"), true), Strings{toUtf8(dir.u16("pkg/a.xml"))});
    // What the listing passed over is what getIrregularEntries reports.
    std::map<std::string, IrregularKind> expected{{toUtf8(dir.u16("pkg/sub/linked")), IrregularKind::SymbolicLink}};
    for (const IrregularEntry& entry : refused) {
        if (entry.openError == EISDIR) continue;  // the folder
        expected[toUtf8(dir.u16("pkg/sub/" + entry.name))] = entry.openError == ELOOP     ? IrregularKind::SymbolicLink
                                                             : entry.name == "fifo.xml"   ? IrregularKind::Fifo
                                                             : entry.name == "socket.xml" ? IrregularKind::Socket
                                                                                          : IrregularKind::Device;
    }
    std::vector<opc::IrregularEntry> irregular;
    ops.getIrregularEntries(dir.u16("pkg"), irregular);
    std::map<std::string, IrregularKind> reported;
    for (const opc::IrregularEntry& entry : irregular) reported[toUtf8(entry.path)] = entry.kind;
    EXPECT_EQ(reported, expected);
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

// Each answer is checked as a full-path test and again as the first test in
// its folder after a listing, which tests the last component in the folder.
TEST_F(Service, ExistsAndIsFolderFollowLinksAndAnswerFalseForPathsThatDoNotResolve) {
    writeFile(dir.path() / "file", "f");
    writeFile(dir.path() / "caf\xC3\xA9", "e");
    writeFile(dir.path() / "folder.xml" / "inner", "i");  // a folder named like a file
    fs::create_directory_symlink(dir.path() / "folder.xml", dir.path() / "to-folder");
    fs::create_symlink(dir.path() / "file", dir.path() / "to-file");
    fs::create_symlink(dir.path() / "gone", dir.path() / "dangling");
    fs::create_symlink("loop", dir.path() / "loop");
    for (const auto& [name, exists, isFolder] :
         std::vector<std::tuple<std::string, bool, bool>>{{"file", true, false},
                                                          {"caf\xC3\xA9", true, false},
                                                          {"folder.xml", true, true},
                                                          {"folder.xml/inner", true, false},
                                                          {"folder.xml/", true, true},
                                                          {"folder.xml/.", true, true},
                                                          {"folder.xml/..", true, true},
                                                          {"to-folder", true, true},
                                                          {"to-file", true, false},
                                                          {"dangling", false, false},
                                                          {"missing", false, false},
                                                          {"file/below", false, false},
                                                          {"file/", false, false},
                                                          {"loop", false, false},
                                                          {std::string(300, 'n'), false, false}}) {
        EXPECT_EQ(ops.exists(dir.u16(name)), exists) << name;
        EXPECT_EQ(ops.isFolder(dir.u16(name)), isFolder) << name;
        listed(ops, dir.u16(), true);
        EXPECT_EQ(ops.exists(dir.u16(name)), exists) << name << " after a listing";
    }
    // A NUL character names no file, also where it would cut the last component short.
    EXPECT_FALSE(ops.exists(dir.u16("file") + std::u16string(1, u'\0') + u"b"));
    listed(ops, dir.u16(), false);
    EXPECT_FALSE(ops.exists(dir.u16("file") + std::u16string(1, u'\0')));
    EXPECT_FALSE(ops.isFolder(dir.u16() + std::u16string(1, u'\0')));
}

std::size_t openDescriptors() {
    return static_cast<std::size_t>(std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator()));
}

// Testing every listed file in order leaves no folder open, a sequence cut
// short at most one until the record is dropped.
TEST_F(Service, ExistsAfterAListingKeepsOneFolderOpenAndForgetsFoldersThisServiceMovedOrRemoved) {
    for (const char* name : {"a/w", "a/x", "a/y", "a/z", "b/x", "b/y", "types"})
        writeFile(dir.path() / "pkg" / name, name);
    const std::size_t before = openDescriptors();
    std::vector<std::u16string> files;
    ops.getFiles(dir.u16("pkg"), files, true);
    for (const std::u16string& file : files) EXPECT_TRUE(ops.exists(file)) << toUtf8(file);
    EXPECT_EQ(openDescriptors(), before);

    const auto open = [&](const char* path) {
        EXPECT_TRUE(ops.exists(dir.u16(path))) << path;
        return openDescriptors() - before;
    };
    const std::u16string missing = dir.u16("pkg/a/missing");
    for (const std::function<void()>& drop :
         std::vector<std::function<void()>>{[&] { EXPECT_FALSE(ops.exists(missing)); },  // a test that finds nothing
                                            [&] { ops.getFiles(dir.u16("pkg/b"), files, false); }}) {
        listed(ops, dir.u16("pkg"), true);
        EXPECT_EQ(open("pkg/a/x"), 1u);
        EXPECT_EQ(open("pkg/b/x"), 1u);  // a is closed, its credit kept
        EXPECT_EQ(open("pkg/a/y"), 1u);
        drop();
        EXPECT_EQ(openDescriptors(), before);
    }
    {
        Ops other;
        other.getFiles(dir.u16("pkg"), files, true);
        EXPECT_TRUE(other.exists(dir.u16("pkg/a/x")));
        EXPECT_EQ(openDescriptors(), before + 1);
    }
    EXPECT_EQ(openDescriptors(), before);

    // The folder opened for a listing answers no longer once this service
    // moved or removed it.
    listed(ops, dir.u16("pkg"), true);
    EXPECT_TRUE(ops.exists(dir.u16("pkg/a/x")));
    ops.rename(dir.u16("pkg/a"), dir.u16("pkg/moved"));
    EXPECT_FALSE(ops.exists(dir.u16("pkg/a/y")));
    EXPECT_TRUE(ops.exists(dir.u16("pkg/moved/y")));
    listed(ops, dir.u16("pkg"), true);
    EXPECT_TRUE(ops.exists(dir.u16("pkg/moved/x")));
    ops.removeAll(dir.u16("pkg/moved"));
    writeFile(dir.path() / "pkg" / "moved" / "y", "new");
    EXPECT_TRUE(ops.exists(dir.u16("pkg/moved/y")));
    EXPECT_FALSE(ops.exists(dir.u16("pkg/moved/z")));
}

// A folder just short of the longest path the kernel takes holds a file whose
// full path is too long: the test in the folder must not find it either.
TEST_F(Service, ExistsAfterAListingRefusesAPathTooLongForTheFullPathTest) {
    const std::string name(200, 'f');
    std::string folder = dir.path().native() + "/deep";
    ASSERT_EQ(::mkdir(folder.c_str(), 0700), 0);
    int fd = ::open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    while (folder.size() < PATH_MAX - name.size()) {
        const std::string segment(std::min<std::size_t>(200, PATH_MAX - name.size() - folder.size()), 'd');
        ASSERT_EQ(::mkdirat(fd, segment.c_str(), 0700), 0);
        const int inner = ::openat(fd, segment.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
        ::close(fd);
        fd = inner;
        folder += "/" + segment;
    }
    ASSERT_LT(folder.size(), std::size_t{PATH_MAX});
    ::close(::openat(fd, name.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    const std::u16string path = fromUtf8(folder + "/" + name);
    EXPECT_EQ(listed(ops, dir.u16("deep"), true), Strings{toUtf8(path)});
    EXPECT_FALSE(ops.exists(path));
    EXPECT_EQ(::unlinkat(fd, name.c_str(), 0), 0);  // too long a path for the folder's removal
    ::close(fd);
}

TEST_F(Service, GetTempNameGivesAHiddenFreshNameEachTimeAndMakesNothing) {
    std::set<std::u16string> seen;
    for (int i = 0; i < 20; ++i) {
        const std::u16string name = ops.getTempName(dir.u16());
        const std::string prefix = toUtf8(dir.u16()) + "/.opc-";
        const std::string text = toUtf8(name);
        EXPECT_EQ(text.substr(0, prefix.size()), prefix);
        EXPECT_EQ(text.find_first_not_of("0123456789abcdef", prefix.size()), std::string::npos) << text;
        EXPECT_EQ(text.size(), prefix.size() + 16) << text;
        EXPECT_TRUE(seen.insert(name).second) << "repeated " << toUtf8(name);
        EXPECT_EQ(listFolder(dir.path()).size(), static_cast<std::size_t>(i));
        writeFile(toUtf8(name), "in use");
    }
}

// Each operation, failing, throws (or reports) the system's code under a
// message naming it and its paths, and changes nothing on disk.
TEST_F(Service, EveryOperationFailsWithItsMessageAndCodeAndChangesNothing) {
    const NoHang noHang;  // a lock that follows a link or waits on a FIFO would hang
    writeFile(dir.path() / "file", std::string("a\0b\xFF", 4));
    fs::create_hard_link(dir.path() / "file", dir.path() / "hardlink");
    writeFile(dir.path() / "full" / "b.xml", "to");
    fs::create_directories(dir.path() / "empty");  // a plain rename(2) would replace this one
    fs::create_symlink(dir.path() / "file", dir.path() / "link");
    fs::create_symlink("created-by-link", dir.path() / "dangling");
    ASSERT_EQ(::mkfifo((dir.path() / "fifo").c_str(), 0600), 0);
    const TreeSnapshot before = snapshotTree(dir.path());
    const auto at = [&](const char* name) { return dir.u16(name); };
    const std::u16string tooLong = dir.u16(std::string(300, 'n'));
    const std::u16string cut = at("file") + std::u16string(1, u'\0') + u"b";
    const auto replacing = [&](const char* from, const char* to) {
        return "Cannot replace \"" + toUtf8(at(to)) + "\" by \"" + toUtf8(at(from)) + "\"";
    };
    const auto sizing = [&](const char* name) { return "Cannot read the size of \"" + toUtf8(at(name)) + "\""; };
    const auto lock = [&](const char* name, LockMode mode = LockMode::Shared) {
        return [&, name, mode] { ops.lockFile(at(name), mode, std::nullopt); };
    };
    std::vector<std::u16string> files;
    struct Failure {
        std::function<void()> call;
        std::string message;
        int errorValue;
    };
    for (const Failure& failure : std::vector<Failure>{
             {[&] { ops.getFiles(at("missing"), files, true); }, message("list folder", at("missing")), ENOENT},
             {[&] { ops.createFolders(at("file/sub")); }, message("create folder", at("file/sub")), ENOTDIR},
             {[&] { ops.copy(at("file"), at("full/b.xml"), ExistsMode::Fail); },
              message("copy", at("file"), at("full/b.xml")), EEXIST},
             // Copied onto itself, a file would be emptied.
             {[&] { ops.copy(at("file"), at("hardlink"), ExistsMode::Overwrite); },
              message("copy", at("file"), at("hardlink")), EINVAL},
             {[&] { ops.copy(at("file"), at("empty/../file"), ExistsMode::Overwrite); },
              message("copy", at("file"), at("empty/../file")), EINVAL},
             {[&] { ops.rename(at("missing"), at("new")); }, message("rename", at("missing"), at("new")), ENOENT},
             {[&] { ops.rename(at("full"), at("empty")); }, message("rename", at("full"), at("empty")), EEXIST},
             {[&] { ops.removeAll(tooLong); }, message("remove", tooLong), ENAMETOOLONG},
             // what() is a C string: the message ends at the NUL.
             {[&] { ops.removeAll(cut); }, "Cannot remove \"" + toUtf8(at("file")), EINVAL},
             {[&] { ops.fileSize(at("")); }, sizing(""), EISDIR},
             {[&] { ops.fileSize(at("missing")); }, sizing("missing"), ENOENT},
             {[&] { ops.fileSize(at("link")); }, sizing("link"), ELOOP},
             {[&] { ops.fileSize(at("fifo")); }, sizing("fifo"), ENXIO},
             {[&] { ops.replaceFile(at("file"), at("full")); }, replacing("file", "full"), EISDIR},
             {[&] { ops.replaceFile(at("missing"), at("file")); }, replacing("missing", "file"), ENOENT},
             {[&] { ops.replaceFile(at("full"), at("moved")); }, replacing("full", "moved"), EISDIR},
             {[&] { ops.replaceFile(at("link"), at("file")); }, replacing("link", "file"), ELOOP},
             {lock("missing/lock"), message("lock", at("missing/lock")), ENOENT},
             {lock("full"), message("lock", at("full")), EISDIR},
             {lock("link"), message("lock", at("link")), ELOOP},
             {lock("dangling"), message("lock", at("dangling")), ELOOP},  // nothing made through it
             {lock("fifo"), message("lock", at("fifo")), ENXIO},          // opened, it would block a reader
             {lock("other", static_cast<LockMode>(2)), message("lock", at("other")), EINVAL}}) {
        EXPECT_OPC_EXCEPTION(failure.call(), failure.message, systemCode(failure.errorValue));
    }
    std::vector<boost::system::error_code> codes(4);
    ops.createFolders(at("file/sub"), codes[0]);
    ops.createFolders(at("file"), codes[1]);
    EXPECT_EQ(ops.createInputStream(cut, kIn, codes[2]), nullptr);
    EXPECT_EQ(ops.createOutputStream(cut, kOut, codes[3]), nullptr);
    EXPECT_EQ(codes, (std::vector<boost::system::error_code>{systemCode(ENOTDIR), systemCode(EEXIST),
                                                             systemCode(EINVAL), systemCode(EINVAL)}));
    EXPECT_EQ(snapshotTree(dir.path()), before);
}

TEST_F(Service, EachOperationDoesWhatItNamesAndLeavesExactlyThat) {
    ops.createFolders(dir.u16("a/b"));
    ops.createFolders(dir.u16("a/b"));
    boost::system::error_code code;
    ops.createFolders(dir.u16("x/y"), code);
    EXPECT_FALSE(code) << code.message();
    writeFile(dir.path() / "part.xml", "a long old content that must not survive");
    auto out = ops.createOutputStream(dir.u16("part.xml"), kOut, code);
    ASSERT_NE(out, nullptr) << code.message();
    EXPECT_EQ(fs::file_size(dir.path() / "part.xml"), 0u);  // emptied at once
    *out << "new";
    out.reset();
    writeFile(dir.path() / "big", std::string(70000, 'x'));
    EXPECT_EQ(ops.fileSize(dir.u16("big")), 70000u);
    EXPECT_EQ(ops.fileSize(dir.u16("part.xml")), 3u);
    for (const LockMode mode : {LockMode::Shared, LockMode::Exclusive}) {
        EXPECT_NE(ops.lockFile(dir.u16("made"), mode, std::nullopt), nullptr);  // made when missing
        EXPECT_NE(ops.lockFile(dir.u16("part.xml"), mode, std::chrono::seconds(0)), nullptr);
    }
    // copy skips an existing file or rewrites a longer one; replaceFile puts
    // a file in place of a longer one, or of nothing.
    const std::string bytes("new\0content\xff", 12);
    writeFile(dir.path() / "from", bytes);
    writeFile(dir.path() / "kept", "a longer old content");
    writeFile(dir.path() / "to", "a longer old content");
    ops.copy(dir.u16("from"), dir.u16("kept"), ExistsMode::Skip);
    ops.copy(dir.u16("from"), dir.u16("to"), ExistsMode::Overwrite);
    ops.copy(dir.u16("from"), dir.u16("new"), ExistsMode::Skip);
    writeFile(dir.path() / "tmp", bytes);
    ops.replaceFile(dir.u16("tmp"), dir.u16("big"));
    writeFile(dir.path() / "tmp2", "second");
    ops.replaceFile(dir.u16("tmp2"), dir.u16("fresh.zip"));
    // removeAll takes a link without its target; a missing path is no failure.
    writeFile(dir.path() / "target" / "inner" / "file.xml", "target's");
    writeFile(dir.path() / "pkg" / "part.xml", "part");
    fs::create_directory_symlink(dir.path() / "target", dir.path() / "pkg" / "link");
    fs::create_directory_symlink(dir.path() / "target", dir.path() / "topLink");
    ops.removeAll(dir.u16("pkg"));
    ops.removeAll(dir.u16("topLink"));
    ops.removeAll(dir.u16("missing/deeper"));
    ops.removeAll(dir.u16("missing"), code);
    EXPECT_FALSE(code) << code.message();
    EXPECT_EQ(snapshotTree(dir.path()), (TreeSnapshot{{"a/", ""},
                                                      {"a/b/", ""},
                                                      {"big", bytes},
                                                      {"fresh.zip", "second"},
                                                      {"from", bytes},
                                                      {"kept", "a longer old content"},
                                                      {"made", ""},
                                                      {"new", bytes},
                                                      {"part.xml", "new"},
                                                      {"target/", ""},
                                                      {"target/inner/", ""},
                                                      {"target/inner/file.xml", "target's"},
                                                      {"to", bytes},
                                                      {"x/", ""},
                                                      {"x/y/", ""}}));
}

}  // namespace
}  // namespace opc::test
