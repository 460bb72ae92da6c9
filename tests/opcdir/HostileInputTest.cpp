#include "Commands.h"
#include "OpcdirHarness.h"
#include "support/IrregularEntries.h"
#include "support/RawZip.h"
#include "support/TempDir.h"
#include "support/TreeSnapshot.h"
#include "support/ZipFixture.h"

#include <opccore/LocalFileSystemOps.h>

#include <gtest/gtest.h>

#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <streambuf>

namespace opc::test {
namespace {

const std::string kTypes = "<Types><Default Extension=\"xml\" ContentType=\"application/xml\"/></Types>";

// An archive of a content-types entry and what add() puts beside it.
std::string archive(const std::function<void(RawZip&)>& add) {
    RawZip zip;
    zip.stored("[Content_Types].xml", kTypes);
    add(zip);
    return zip.bytes();
}

// Unpacks each archive into new/deeper/pkg, whose folders do not exist yet:
// a refusal must leave the folder exactly as it was, those folders included.
TEST(UnpackHostile, EveryRefusalNamesItsCauseAndLeavesNothing) {
    const std::string long256(256, 'n');
    std::string deep;
    while (deep.size() < 4000) deep += std::string(199, 'd') + "/";
    const std::string deeper = deep + std::string(96, 'e');  // 4096 bytes
    deep += std::string(80, 'x');                            // 4080: fine alone, too long below the package folder
    const std::vector<std::pair<std::string, std::string>> cases = {
        {archive([](RawZip& z) { z.stored("[trash]x.xml", "x"); }),
         "unsafe entry name '[trash]x.xml': reserved name '[trash]'"},
        {archive([&](RawZip& z) { z.stored("word/" + long256, "x"); }),
         "unsafe entry name 'word/" + long256 + "': File name too long: a segment of 256 bytes (at most 255)"},
        {archive([&](RawZip& z) { z.stored(deeper, "x"); }),
         "unsafe entry name '" + deeper + "': File name too long: 4096 bytes (at most 4095)"},
        {archive([&](RawZip& z) { z.stored(deep, "x"); }),
         "unsafe entry name '" + deep + "': File name too long: more than 4095 bytes below the package's folder"},
        {archive([](RawZip& z) { z.alias("copy.xml", 0); }),
         "entries '[Content_Types].xml' and 'copy.xml' share or overlap compressed data"},
        // a.bin claims b.bin's header and data as its own.
        {archive([](RawZip& z) {
             RawZip::Entry& a = z.stored("a.bin", "aaaa");
             z.stored("b.bin", "bbbb");
             a.compressedSize = a.size = 4 + 30 + 5 + 4;
         }),
         "entries 'a.bin' and 'b.bin' share or overlap compressed data"},
        {archive([](RawZip& z) { z.stored("a.bin", "aaaa").compressedSize = 4000; }),
         "corrupt ZIP archive: entry 'a.bin' runs into the central directory"},
        // Control characters in a refused name reach the message escaped.
        {archive([](RawZip& z) { z.stored("a/\x1b[2J\xc2\x9b/../x", "x"); }),
         "unsafe entry name 'a/\\x1b[2J\\xc2\\x9b/../x': '..' segment in name"},
    };
    for (const auto& [bytes, message] : cases) {
        SCOPED_TRACE(message.substr(0, 120));
        TempDir dir;
        writeFile(dir.path() / "bad.zip", bytes);
        expectRefused(dir.path(), {"unpack", "bad.zip", "new/deeper/pkg"}, "bad.zip: " + message);
    }
}

// Lies that show only while inflating, after earlier entries are written.
TEST(UnpackHostile, EntriesInflatingOtherwiseThanDeclaredLeaveNothing) {
    const std::vector<std::pair<std::function<void(RawZip&)>, std::string>> cases = {
        {[](RawZip& z) { z.deflated("a.bin", "aaaaa").size = 9; },
         "entry 'a.bin' inflates to 5 bytes, not the 9 it declares"},
        {[](RawZip& z) { z.deflated("a.bin", std::string(300, 'a')).crc ^= 1; }, "corrupt entry 'a.bin': CRC error"},
    };
    for (const auto& [add, message] : cases) {
        SCOPED_TRACE(message);
        TempDir dir;
        writeFile(dir.path() / "bad.zip", archive([&](RawZip& z) {
                      z.stored("first.xml", "<written first/>");
                      add(z);
                  }));
        expectRefused(dir.path(), {"unpack", "bad.zip", "new/pkg"}, "bad.zip: " + message);
    }
}

// A package folder from someone else: links out of it, a FIFO, a socket.
class StrangersPackage : public ::testing::Test {
protected:
    void SetUp() override {
        writeFile(dir.path() / "pkg" / "[Content_Types].xml", kTypes);
        writeFile(dir.path() / "pkg" / "word" / "a.xml", "<a/>");
        writeFile(dir.path() / "in.xml", "<new/>");
        makeIrregularEntries(dir.path() / "pkg" / "word", dir.path() / "outside");
        before = snapshotTree(dir.path());
    }
    TempDir dir;
    TreeSnapshot before;
    const NoHang noHang;
};

TEST_F(StrangersPackage, NothingOutsideIsReadAndACommitDropsWhatIsNoFile) {
    EXPECT_EQ(runOpcdir(dir.path(), {"ls", "pkg"}).out, "71  /[Content_Types].xml\n 4  /word/a.xml\n");
    for (const std::string part : {"word/out.xml", "word/fifo.xml", "word/zero.xml", "word/linked/inner/file.xml"})
        expectRefused(dir.path(), {"cat", "pkg", part}, "pkg: no part '/" + part + "'");
    ASSERT_EQ(runOpcdir(dir.path(), {"pack", "pkg", "out.zip"}).status, 0);
    EXPECT_EQ(readZipEntries(dir.path() / "out.zip"),
              (ZipEntries{{"[Content_Types].xml", kTypes}, {"word/a.xml", "<a/>"}}));
    const RunResult put = runOpcdir(dir.path(), {"put", "pkg", "b.xml", "in.xml"});
    EXPECT_EQ(put.status, 0) << put.err;
    EXPECT_EQ(
        snapshotTree(dir.path() / "pkg"),
        (TreeSnapshot{{"[Content_Types].xml", kTypes}, {"b.xml", "<new/>"}, {"word/", ""}, {"word/a.xml", "<a/>"}}));
    EXPECT_EQ(snapshotTree(dir.path() / "outside"),
              (TreeSnapshot{{"inner/", ""}, {"inner/file.xml", "outside inner"}, {"secret", "outside secret"}}));
}

TEST_F(StrangersPackage, PackAndPutRefuseWhatUnpackWouldAndChangeNothing) {
    writeFile(dir.path() / "odd" / "[Content_Types].xml", kTypes);
    writeFile(dir.path() / "odd" / "a\\b.xml", "x");
    writeFile(dir.path() / "cased" / "[Content_Types].xml", kTypes);
    writeFile(dir.path() / "cased" / "A.xml", "1");
    writeFile(dir.path() / "cased" / "a.xml", "2");
    writeFile(dir.path() / "target.zip", "the link's target");
    std::filesystem::create_symlink("target.zip", dir.path() / "link.zip");
    ASSERT_EQ(::mkfifo((dir.path() / "fifo.zip").c_str(), 0644), 0);
    const std::string long300(300, 'n');
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{"pack", "odd", "out.zip"}, "odd: cannot pack part '/a\\b.xml': backslash in name"},
        {{"pack", "cased", "out.zip"}, "cased: cannot pack part '/a.xml': differs only in case from '/A.xml'"},
        {{"pack", "pkg", "link.zip"}, "link.zip: is a symbolic link, not a regular file"},
        {{"pack", "pkg", "fifo.zip"}, "fifo.zip: is a special file, not a regular file"},
        {{"put", "pkg", "[trash]x.xml", "in.xml"}, "pkg: invalid part name '[trash]x.xml': reserved name '[trash]'"},
        {{"put", "pkg", "/[trash]/x.xml", "in.xml"},
         "pkg: invalid part name '/[trash]/x.xml': reserved name '[trash]'"},
        {{"put", "pkg", "word/" + long300, "in.xml"},
         "pkg: invalid part name 'word/" + long300 + "': File name too long: a segment of 300 bytes (at most 255)"},
        {{"put", "pkg", "a.xml", "word-link.xml"}, "word-link.xml: Too many levels of symbolic links"},
    };
    std::filesystem::create_symlink("missing.xml", dir.path() / "word-link.xml");
    for (const auto& [arguments, message] : cases) {
        SCOPED_TRACE(message.substr(0, 100));
        expectRefused(dir.path(), arguments, message);
    }
}

// A disk that is full: every stream to a part fails its writes as write(2)
// does then.
class FullDisk : public opc::LocalFileSystemOps {
    struct FullBuffer : std::streambuf {
        int_type overflow(int_type) override {
            errno = ENOSPC;
            return traits_type::eof();
        }
        std::streamsize xsputn(const char*, std::streamsize) override {
            errno = ENOSPC;
            return 0;
        }
    };
    struct FullStream : std::ostream {
        FullStream() : std::ostream(nullptr) { rdbuf(&buffer); }
        FullBuffer buffer;
    };

protected:
    std::shared_ptr<std::ostream> createOutputStreamImpl(const std::u16string& path,
                                                         std::ios_base::openmode openMode,
                                                         boost::system::error_code& errorCode) noexcept override {
        if (!LocalFileSystemOps::createOutputStreamImpl(path, openMode, errorCode)) return nullptr;
        return std::make_shared<FullStream>();
    }
};

TEST_F(StrangersPackage, WriteFailuresNameTheirCauseAndTheFileAndLeaveNothing) {
    FullDisk full;
    const auto at = [&](const std::string& relative) { return (dir.path() / relative).string(); };
    // The command, the package it writes and the part it fails on.
    const std::vector<std::tuple<std::vector<std::string>, std::string, std::string>> cases = {
        {{"put", at("pkg"), "b.xml", at("in.xml")}, at("pkg"), "/b.xml"},
        {{"unpack", at("new.zip"), at("new/pkg")}, at("new/pkg"), "/[Content_Types].xml"},
    };
    writeFile(dir.path() / "new.zip", archive([](RawZip&) {}));
    before = withoutLockFiles(snapshotTree(dir.path()));
    for (const auto& [arguments, package, part] : cases) {
        SCOPED_TRACE(arguments[0]);
        const RunResult result = runOpcdirWith(full, arguments);
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.err, "opcdir: " + package + ": cannot write part '" + part + "': No space left on device\n");
        EXPECT_EQ(withoutLockFiles(snapshotTree(dir.path())), before);
    }
    const std::string longName(256, 'z');
    const RunResult result = runOpcdir(dir.path(), {"pack", "pkg", longName});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "opcdir: " + longName + ": cannot write: File name too long\n");
    EXPECT_EQ(withoutLockFiles(snapshotTree(dir.path())), before);
}

TEST(ListHostileNames, ControlCharactersAreEscapedOnATerminalAndAlwaysInJson) {
    TempDir dir;
    writeFile(dir.path() / "pkg" / "[Content_Types].xml",
              "<Types><Override PartName=\"/a\x1b[2Jb.xml\" ContentType=\"text/\x07x\"/></Types>");
    writeFile(dir.path() / "pkg" / "a\x1b[2Jb.xml", "1");
    writeFile(dir.path() / "pkg" / "c\xc2\x9b\x7f.xml", "22");
    const auto list = [&](const std::vector<std::string>& options, bool terminal) {
        std::vector<std::string> arguments{"ls"};
        arguments.insert(arguments.end(), options.begin(), options.end());
        arguments.push_back((dir.path() / "pkg").string());
        std::istringstream in;
        std::ostringstream out;
        std::ostringstream err;
        opcdir::Io io{in, out, err, false, terminal};
        opc::LocalFileSystemOps fileSystem;
        EXPECT_EQ(opcdir::run(arguments, io, fileSystem), 0) << err.str();
        return out.str();
    };
    EXPECT_EQ(list({}, false), "71  /[Content_Types].xml\n 1  /a\x1b[2Jb.xml\n 2  /c\xc2\x9b\x7f.xml\n");
    EXPECT_EQ(list({"--long"}, true),
              "71  -           /[Content_Types].xml\n"
              " 1  text/\\x07x  /a\\x1b[2Jb.xml\n"
              " 2  -           /c\\xc2\\x9b\\x7f.xml\n");
    const std::string json = "{\"package\": \"" + (dir.path() / "pkg").string() +
                             "\", \"parts\": [\n"
                             "  {\"name\": \"/[Content_Types].xml\", \"size\": 71, \"contentType\": null},\n"
                             "  {\"name\": \"/a\\u001b[2Jb.xml\", \"size\": 1, \"contentType\": \"text/\\u0007x\"},\n"
                             "  {\"name\": \"/c\\u009b\\u007f.xml\", \"size\": 2, \"contentType\": null}\n"
                             "]}\n";
    EXPECT_EQ(list({"--json"}, false), json);
    EXPECT_EQ(list({"--json"}, true), json);
}

// Runs the command in a child process whose address space may grow by at
// most allowance bytes over what it has when it starts the command: the exit
// status and standard error, or status -1 when it was killed.
RunResult runWithMemoryLimit(const std::vector<std::string>& arguments, std::size_t allowance) {
    int channel[2];
    if (::pipe(channel) != 0) return {};
    const pid_t child = ::fork();
    if (child == 0) {
        ::close(channel[0]);
        std::ifstream status("/proc/self/status");
        std::size_t used = 0;
        for (std::string line; std::getline(status, line);) {
            if (line.rfind("VmSize:", 0) == 0) used = std::stoul(line.substr(7)) * 1024;
        }
        const rlimit limit{used + allowance, used + allowance};
        ::setrlimit(RLIMIT_AS, &limit);
        std::istringstream in;
        std::ostringstream out;
        std::ostringstream err;
        opcdir::Io io{in, out, err, false};
        opc::LocalFileSystemOps fileSystem;
        const int exitStatus = opcdir::run(arguments, io, fileSystem);
        const std::string text = err.str();
        const ssize_t written = ::write(channel[1], text.data(), text.size());
        ::_exit(written == static_cast<ssize_t>(text.size()) ? exitStatus : 99);
    }
    ::close(channel[1]);
    RunResult result;
    char buffer[4096];
    for (ssize_t got; (got = ::read(channel[0], buffer, sizeof buffer)) > 0;) result.err.append(buffer, got);
    ::close(channel[0]);
    int status = 0;
    ::waitpid(child, &status, 0);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kAddressSanitizer = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr bool kAddressSanitizer = true;
#else
constexpr bool kAddressSanitizer = false;
#endif
#else
constexpr bool kAddressSanitizer = false;
#endif

// 260 names of 2,000 segments each, all different: checking them used to keep
// every prefix of every name, a gigabyte for this archive of a 1 MB central
// directory.
TEST(UnpackHostile, DeepNamesAreCheckedWithinASmallMultipleOfTheCentralDirectory) {
    if (kAddressSanitizer) GTEST_SKIP() << "AddressSanitizer cannot run under RLIMIT_AS";
    TempDir dir;
    RawZip zip;
    std::string deep;
    while (deep.size() < 3990) deep += "a/";
    for (int i = 0; i < 260; ++i) zip.stored("k" + std::to_string(i) + "/" + deep + "x.xml", "x");
    zip.write(dir.path() / "deep.zip");
    const std::size_t directory = zip.centralDirectorySize();
    ASSERT_GT(directory, std::size_t{1} << 20);
    const RunResult result =
        runWithMemoryLimit({"unpack", (dir.path() / "deep.zip").string(), (dir.path() / "pkg").string()},
                           16 * directory + (std::size_t{32} << 20));
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err,
              "opcdir: " + (dir.path() / "deep.zip").string() + ": not a package: no '[Content_Types].xml' entry\n");
    EXPECT_EQ(listFolder(dir.path()), (std::vector<std::string>{".opc-lock-pkg", "deep.zip"}));
}

}  // namespace
}  // namespace opc::test
