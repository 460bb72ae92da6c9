#include "PackageTestHelpers.h"

#include "support/FaultyFileSystemOps.h"
#include "support/OpcAssertions.h"
#include "support/StreamHelpers.h"
#include "support/Strings.h"
#include "support/TempDir.h"
#include "support/TreeSnapshot.h"

#include <opcfspackage/FileSystemPartInfo.h>
#include <opcfspackage/FileSystemPhysicalPackage.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <istream>
#include <ostream>
#include <stdexcept>
#include <streambuf>
#include <string>

namespace opc::test::fspackage {
namespace {

using opc::fspackage::FileSystemPartInfo;
using opc::fspackage::FileSystemPhysicalPackage;
using opc::interfaces::IPhysicalInputStream;
using opc::interfaces::IPhysicalOutputStream;
using opc::interfaces::IPhysicalPart;
using opc::interfaces::OpenMode;

const char* const kInputFailed = "Failed to create or open file system input stream";
const char* const kOutputFailed = "Failed to create or open file system output stream";
const char* const kFoldersFailed = "Could not create directory structure for part output stream: ";
const char* const kRefusedDelete =
    "A part cannot be deleted if it has just been created or modified. Package must be closed first.";

IPhysicalPart* create(FileSystemPhysicalPackage& package, const std::u16string& name) {
    return package.createPart(name, u"application/octet-stream", FileSystemPartInfo());
}

std::string readSome(IPhysicalInputStream* stream, std::streamsize count) {
    std::string buffer(static_cast<std::size_t>(count), '\0');
    buffer.resize(static_cast<std::size_t>(stream->read(buffer.data(), count)));
    return buffer;
}

// ---- Input streams ---------------------------------------------------------------

TEST(InputStream, RepeatedRequestReturnsSameStreamWithoutRewinding) {
    TempDir dir;
    writePackage(dir.path(), {{"a.bin", "0123456789"}});
    FaultyFileSystemOps ops;
    FileSystemPhysicalPackage package(dir.u16("pkg"), ops);
    package.open(OpenMode::Read);
    IPhysicalPart* part = findPart(package, u"/a.bin");
    IPhysicalInputStream* stream = part->getInputStream();
    EXPECT_EQ(readSome(stream, 3), "012");
    EXPECT_EQ(part->getInputStream(), stream);
    EXPECT_EQ(readSome(stream, 100), "3456789");
    EXPECT_EQ(ops.count(Hook::CreateInputStream), 1u);
}

TEST(InputStream, MissingFileFailsAndPartKeepsNoStream) {
    TempDir dir;
    FaultyFileSystemOps ops;
    FileSystemPhysicalPackage package(dir.u16("pkg"), ops);
    package.open(OpenMode::Create);
    IPhysicalPart* part = create(package, u"/x.bin");
    EXPECT_OPC_EXCEPTION(part->getInputStream(), kInputFailed, emptyCode());
    EXPECT_OPC_EXCEPTION(part->getInputStream(), kInputFailed, emptyCode());
    EXPECT_EQ(ops.count(Hook::CreateInputStream), 2u);  // each request tries afresh
    // Reading goes to the package folder, whatever the mode.
    writeFile(dir.path() / "pkg" / "x.bin", "disk");
    EXPECT_EQ(readAll(part->getInputStream()), "disk");
    EXPECT_EQ(ops.count(Hook::CreateInputStream), 3u);
}

TEST(InputStream, ServiceFailureDropsItsCode) {
    TempDir dir;
    writePackage(dir.path(), {{"a.bin", "A"}});
    FaultyFileSystemOps ops;
    FileSystemPhysicalPackage package(dir.u16("pkg"), ops);
    package.open(OpenMode::Read);
    ops.failCall(Hook::CreateInputStream, 1, EACCES);
    IPhysicalPart* part = findPart(package, u"/a.bin");
    EXPECT_OPC_EXCEPTION(part->getInputStream(), kInputFailed, emptyCode());
    EXPECT_EQ(readAll(part->getInputStream()), "A");
}

TEST(InputStream, ReadsPackageFolderNotStagedContent) {
    TempDir dir;
    writePackage(dir.path(), {{"a.xml", "old"}});
    FileSystemPhysicalPackage package(dir.u16("pkg"));
    package.open(OpenMode::ReadWrite);
    IPhysicalPart* part = findPart(package, u"/a.xml");
    IPhysicalOutputStream* out = part->getOutputStream();
    ASSERT_EQ(writeAll(out, "new content"), 11);
    out->flush();
    EXPECT_EQ(readFile(std::filesystem::path(toUtf8(package.getTempPackageRoot())) / "a.xml"), "new content");
    EXPECT_EQ(readAll(part->getInputStream()), "old");
    EXPECT_EQ(readFile(dir.path() / "pkg" / "a.xml"), "old");
}

TEST(InputStream, ReadingPastTheEndGivesShortCountThenNothing) {
    TempDir dir;
    writePackage(dir.path(), {{"ten.bin", "0123456789"}, {"empty.bin", ""}});
    FileSystemPhysicalPackage package(dir.u16("pkg"));
    package.open(OpenMode::Read);

    IPhysicalPart* ten = findPart(package, u"/ten.bin");
    IPhysicalInputStream* stream = ten->getInputStream();
    EXPECT_FALSE(stream->isAtEnd());
    char buffer[16] = {};
    EXPECT_EQ(stream->read(buffer, 16), 10);
    EXPECT_EQ(std::string(buffer, 10), "0123456789");
    EXPECT_TRUE(stream->isAtEnd());
    EXPECT_EQ(stream->read(buffer, 16), 0);
    EXPECT_TRUE(stream->isAtEnd());
    EXPECT_EQ(ten->getInputStream(), stream);  // the end is no invalid state

    // Reading exactly up to the end has not met it yet.
    stream->close();
    stream->open();
    EXPECT_EQ(stream->read(buffer, 10), 10);
    EXPECT_FALSE(stream->isAtEnd());
    EXPECT_EQ(stream->read(buffer, 1), 0);
    EXPECT_TRUE(stream->isAtEnd());

    IPhysicalInputStream* empty = findPart(package, u"/empty.bin")->getInputStream();
    EXPECT_FALSE(empty->isAtEnd());
    EXPECT_EQ(empty->read(buffer, 16), 0);
    EXPECT_TRUE(empty->isAtEnd());
}

TEST(InputStream, CloseThenOpenRestartsAtFirstByte) {
    TempDir dir;
    writePackage(dir.path(), {{"a.bin", "0123456789"}});
    FaultyFileSystemOps ops;
    FileSystemPhysicalPackage package(dir.u16("pkg"), ops);
    package.open(OpenMode::Read);
    IPhysicalPart* part = findPart(package, u"/a.bin");
    IPhysicalInputStream* stream = part->getInputStream();
    EXPECT_EQ(readSome(stream, 4), "0123");
    stream->open();  // already open: keeps its place
    EXPECT_EQ(readSome(stream, 2), "45");
    EXPECT_EQ(ops.count(Hook::CreateInputStream), 1u);
    EXPECT_EQ(openFilesBelow(dir.path() / "pkg"), 1);

    stream->close();
    EXPECT_EQ(openFilesBelow(dir.path() / "pkg"), 0);
    EXPECT_TRUE(stream->isAtEnd());
    EXPECT_EQ(readSome(stream, 4), "");
    EXPECT_EQ(part->getInputStream(), stream);  // a closed stream is handed out as it is
    EXPECT_TRUE(stream->isAtEnd());
    stream->open();
    EXPECT_EQ(readAll(stream), "0123456789");
    EXPECT_EQ(ops.count(Hook::CreateInputStream), 2u);

    stream->close();
    std::filesystem::remove(dir.path() / "pkg" / "a.bin");
    EXPECT_OPC_EXCEPTION(stream->open(), kInputFailed, emptyCode());
    EXPECT_TRUE(stream->isAtEnd());
    EXPECT_EQ(readSome(stream, 4), "");
}

// ---- Output streams --------------------------------------------------------------

TEST(OutputStream, ClosedStreamWritesNothingUntilStreamsAreClosed) {
    TempDir dir;
    writePackage(dir.path(), {{"a.xml", "old"}});
    FileSystemPhysicalPackage package(dir.u16("pkg"));
    package.open(OpenMode::ReadWrite);
    const std::filesystem::path staged = std::filesystem::path(toUtf8(package.getTempPackageRoot())) / "a.xml";
    IPhysicalPart* part = findPart(package, u"/a.xml");
    IPhysicalOutputStream* out = part->getOutputStream();
    EXPECT_FALSE(out->isFailed());
    EXPECT_EQ(writeAll(out, "abc"), 3);
    out->close();
    EXPECT_EQ(readFile(staged), "abc");
    EXPECT_TRUE(out->isFailed());
    EXPECT_EQ(writeAll(out, "x"), 0);
    out->flush();
    EXPECT_EQ(part->getOutputStream(), out);
    EXPECT_TRUE(out->isFailed());
    EXPECT_EQ(readFile(staged), "abc");

    // A new stream starts from an emptied file.
    fsPart(part).closeStreams();
    fsPart(part).closeStreams();  // nothing left to close
    IPhysicalOutputStream* again = part->getOutputStream();
    EXPECT_FALSE(again->isFailed());
    EXPECT_EQ(readFile(staged), "");
    package.close(false);
    EXPECT_EQ(readFile(dir.path() / "pkg" / "a.xml"), "");
}

TEST(OutputStream, FirstRequestInReadWriteMovesPartAndMakesItsFolders) {
    TempDir dir;
    writePackage(dir.path(), {{"a.xml", "A"}, {"word/media/x.bin", "X"}, {"word/media/y.bin", "Y"}});
    FaultyFileSystemOps ops;
    FileSystemPhysicalPackage package(dir.u16("pkg"), ops);
    package.open(OpenMode::ReadWrite);
    const std::u16string temp = package.getTempPackageRoot();
    IPhysicalPart* part = findPart(package, u"/word/media/x.bin");
    EXPECT_TRUE(fsPart(part).isUnwritten());

    ops.clearCalls();
    IPhysicalOutputStream* out = part->getOutputStream();
    EXPECT_EQ(hooksCalled(ops), (std::vector<Hook>{Hook::AppendPath, Hook::GetParentPath, Hook::Exists,
                                                   Hook::CreateFolders, Hook::CreateOutputStream}));
    EXPECT_EQ(ops.calls()[3].path, temp + u"/word/media");
    EXPECT_FALSE(fsPart(part).isUnwritten());
    EXPECT_EQ(partNames(package),
              (std::vector<std::u16string>{u"/word/media/x.bin", u"/a.xml", u"/word/media/y.bin"}));
    EXPECT_OPC_EXCEPTION(package.deletePart(u"/word/media/x.bin"), kRefusedDelete, emptyCode());
    EXPECT_EQ(snapshotTree(toUtf8(temp)),
              (TreeSnapshot{{"word/", ""}, {"word/media/", ""}, {"word/media/x.bin", ""}}));

    // Later requests hand out the same stream and touch nothing.
    ops.clearCalls();
    EXPECT_EQ(part->getOutputStream(), out);
    EXPECT_TRUE(ops.calls().empty());
    // A folder that is there already is not made again.
    findPart(package, u"/word/media/y.bin")->getOutputStream();
    EXPECT_EQ(ops.count(Hook::CreateFolders), 0u);
}

TEST(OutputStream, FirstRequestAloneMakesPackageModified) {
    TempDir dir;
    writePackage(dir.path(), {{"a.xml", "A"}, {"b.xml", "B"}});
    FileSystemPhysicalPackage package(dir.u16("pkg"));
    package.open(OpenMode::ReadWrite);
    findPart(package, u"/a.xml")->getOutputStream();  // nothing written
    package.close(false);
    EXPECT_EQ(snapshotTree(dir.path()),
              (TreeSnapshot{{"pkg/", ""}, {"pkg/[Content_Types].xml", "<Types/>"}, {"pkg/a.xml", ""}, {"pkg/b.xml", "B"}}));
}

TEST(OutputStream, RefusedWithoutTemporaryFolder) {
    TempDir dir;
    const TreeSnapshot original = writePackage(dir.path(), {{"a.xml", "A"}});
    {
        FaultyFileSystemOps ops;
        forbidWrites(ops);
        FileSystemPhysicalPackage package(dir.u16("pkg"), ops);
        package.open(OpenMode::Read);
        IPhysicalPart* part = findPart(package, u"/a.xml");
        ops.clearCalls();
        EXPECT_OPC_EXCEPTION(part->getOutputStream(), kOutputFailed, emptyCode());
        EXPECT_OPC_EXCEPTION(package.getContentTypeOutputStream(), kOutputFailed, emptyCode());
        EXPECT_TRUE(ops.calls().empty());
        EXPECT_TRUE(fsPart(part).isUnwritten());
        EXPECT_EQ(partNames(package), std::vector<std::u16string>{u"/a.xml"});
        EXPECT_NO_THROW(package.deletePart(u"/a.xml"));  // still unchanged
        package.close(false);
    }
    EXPECT_EQ(snapshotTree(dir.path()), original);

    // Never opened, or opened in a mode that stages nothing.
    for (const bool openIt : {false, true}) {
        SCOPED_TRACE(openIt ? "mode 3" : "never opened");
        FaultyFileSystemOps ops;
        forbidWrites(ops);
        FileSystemPhysicalPackage package(dir.u16("pkg"), ops);
        if (openIt) package.open(static_cast<OpenMode>(3));
        IPhysicalPart* part = create(package, u"/no-such-entry-5c1e.xml");
        ops.clearCalls();
        EXPECT_OPC_EXCEPTION(part->getOutputStream(), kOutputFailed, emptyCode());
        EXPECT_TRUE(ops.calls().empty());
        EXPECT_TRUE(fsPart(part).isUnwritten());
    }
    EXPECT_EQ(snapshotTree(dir.path()), original);
}

TEST(OutputStream, FailedOpenKeepsPartUnwrittenAndMoved) {
    TempDir dir;
    writePackage(dir.path(), {{"a.xml", "A"}, {"b.xml", "B"}});
    FaultyFileSystemOps ops;
    FileSystemPhysicalPackage package(dir.u16("pkg"), ops);
    package.open(OpenMode::ReadWrite);
    ops.failCall(Hook::CreateOutputStream, 1, EACCES);
    IPhysicalPart* part = findPart(package, u"/a.xml");
    EXPECT_OPC_EXCEPTION(part->getOutputStream(), kOutputFailed, emptyCode());
    EXPECT_TRUE(fsPart(part).isUnwritten());
    EXPECT_OPC_EXCEPTION(package.deletePart(u"/a.xml"), kRefusedDelete, emptyCode());
    EXPECT_EQ(partNames(package), (std::vector<std::u16string>{u"/a.xml", u"/b.xml"}));
    // The move and the change flag stay: the commit gives the part an empty file.
    package.close(false);
    EXPECT_EQ(snapshotTree(dir.path()),
              (TreeSnapshot{{"pkg/", ""}, {"pkg/[Content_Types].xml", "<Types/>"}, {"pkg/a.xml", ""}, {"pkg/b.xml", "B"}}));
}

TEST(OutputStream, FailedOpenOfCreatedPartIsRetried) {
    TempDir dir;
    FaultyFileSystemOps ops;
    FileSystemPhysicalPackage package(dir.u16("pkg"), ops);
    package.open(OpenMode::Create);
    IPhysicalPart* part = create(package, u"/d/p.xml");
    ops.failCall(Hook::CreateOutputStream, 1, EACCES);
    EXPECT_OPC_EXCEPTION(part->getOutputStream(), kOutputFailed, emptyCode());
    EXPECT_TRUE(fsPart(part).isUnwritten());
    // The folder made before the failure stays.
    EXPECT_EQ(snapshotTree(toUtf8(package.getTempPackageRoot())), (TreeSnapshot{{"d/", ""}}));
    EXPECT_EQ(writeAll(part->getOutputStream(), "P"), 1);
    EXPECT_FALSE(fsPart(part).isUnwritten());
    package.close(false);
    EXPECT_EQ(snapshotTree(dir.path()),
              (TreeSnapshot{{"pkg/", ""}, {"pkg/[Content_Types].xml", ""}, {"pkg/d/", ""}, {"pkg/d/p.xml", "P"}}));
}

TEST(OutputStream, FolderFailuresAreWrappedWithTheirCode) {
    // The calls that make the part's folder, by number: 2 getParentPath,
    // 3 exists, 4 createFolders. Call 1 computes the path, outside the wrapper.
    for (const std::size_t failing : {2u, 3u, 4u}) {
        SCOPED_TRACE(failing);
        TempDir dir;
        writePackage(dir.path(), {{"a/b/c.xml", "C"}});
        FaultyFileSystemOps ops;
        FileSystemPhysicalPackage package(dir.u16("pkg"), ops);
        package.open(OpenMode::ReadWrite);
        IPhysicalPart* part = findPart(package, u"/a/b/c.xml");
        ops.clearCalls();
        ops.failGlobalCall(failing, ENOSPC);
        const boost::system::error_code code = FaultyFileSystemOps::injectedCode(ENOSPC);
        EXPECT_OPC_EXCEPTION(part->getOutputStream(), kFoldersFailed + code.message(), code);
        EXPECT_EQ(ops.calls().size(), failing);
        EXPECT_TRUE(fsPart(part).isUnwritten());
        EXPECT_OPC_EXCEPTION(package.deletePart(u"/a/b/c.xml"), kRefusedDelete, emptyCode());
        EXPECT_TRUE(snapshotTree(toUtf8(package.getTempPackageRoot())).empty());
    }

    TempDir dir;
    writePackage(dir.path(), {{"a/b/c.xml", "C"}});
    FaultyFileSystemOps ops;
    FileSystemPhysicalPackage package(dir.u16("pkg"), ops);
    package.open(OpenMode::ReadWrite);
    ops.clearCalls();
    ops.failGlobalCall(1);
    EXPECT_OPC_EXCEPTION(findPart(package, u"/a/b/c.xml")->getOutputStream(), "injected appendPath failure",
                         FaultyFileSystemOps::injectedCode(EIO));
}

// A device that fails every transfer: the standard stream over it turns bad.
class FailingBuffer : public std::streambuf {
protected:
    int_type underflow() override { throw std::runtime_error("device failure"); }
    int_type overflow(int_type) override { throw std::runtime_error("device failure"); }
};

struct FailingBufferHolder {
    FailingBuffer buffer;
};

// The buffer is a base so that it is built before the stream that uses it.
template <class Stream>
struct FailingStream : FailingBufferHolder, Stream {
    FailingStream() : Stream(&buffer) {}
};

// Hands out failing streams while `broken` is set.
class BrokenDeviceOps : public FaultyFileSystemOps {
public:
    bool broken = true;

protected:
    std::shared_ptr<std::istream> createInputStreamImpl(const std::u16string& path, std::ios_base::openmode openMode,
                                                        boost::system::error_code& errorCode) noexcept override {
        if (broken) return std::make_shared<FailingStream<std::istream>>();
        return FaultyFileSystemOps::createInputStreamImpl(path, openMode, errorCode);
    }
    std::shared_ptr<std::ostream> createOutputStreamImpl(const std::u16string& path, std::ios_base::openmode openMode,
                                                         boost::system::error_code& errorCode) noexcept override {
        if (broken) return std::make_shared<FailingStream<std::ostream>>();
        return FaultyFileSystemOps::createOutputStreamImpl(path, openMode, errorCode);
    }
};

TEST(InputStream, BadStreamIsReportedUntilClosed) {
    TempDir dir;
    writePackage(dir.path(), {{"a.bin", "A"}});
    BrokenDeviceOps ops;
    FileSystemPhysicalPackage package(dir.u16("pkg"), ops);
    package.open(OpenMode::Read);
    IPhysicalPart* part = findPart(package, u"/a.bin");
    IPhysicalInputStream* stream = part->getInputStream();
    EXPECT_FALSE(stream->isAtEnd());
    char byte = 0;
    EXPECT_EQ(stream->read(&byte, 1), 0);
    EXPECT_TRUE(stream->isAtEnd());
    EXPECT_OPC_EXCEPTION(part->getInputStream(), "Input stream is in an invalid state", emptyCode());
    EXPECT_OPC_EXCEPTION(part->getInputStream(), "Input stream is in an invalid state", emptyCode());
    stream->close();
    EXPECT_EQ(part->getInputStream(), stream);
    ops.broken = false;
    stream->open();
    EXPECT_EQ(readAll(stream), "A");
}

TEST(OutputStream, BadStreamIsReportedUntilStreamsAreClosed) {
    TempDir dir;
    writePackage(dir.path(), {{"a.bin", "A"}});
    BrokenDeviceOps ops;
    FileSystemPhysicalPackage package(dir.u16("pkg"), ops);
    package.open(OpenMode::ReadWrite);
    IPhysicalPart* part = findPart(package, u"/a.bin");
    IPhysicalOutputStream* stream = part->getOutputStream();
    EXPECT_FALSE(stream->isFailed());
    // The failing write still answers its count; the failure shows afterwards.
    EXPECT_EQ(writeAll(stream, "abc"), 3);
    EXPECT_TRUE(stream->isFailed());
    EXPECT_EQ(writeAll(stream, "abc"), 0);
    EXPECT_OPC_EXCEPTION(part->getOutputStream(), "Output stream is in an invalid state", emptyCode());
    EXPECT_OPC_EXCEPTION(package.deletePart(u"/a.bin"), kRefusedDelete, emptyCode());

    ops.broken = false;
    fsPart(part).closeStreams();
    EXPECT_EQ(writeAll(part->getOutputStream(), "fine"), 4);
    package.close(false);
    EXPECT_EQ(readFile(dir.path() / "pkg" / "a.bin"), "fine");
}

// ---- Content round trips ---------------------------------------------------------

TEST(Streams, EveryByteValueRoundTrips) {
    std::string bytes;
    for (int i = 0; i < 256; ++i) bytes += static_cast<char>(i);
    for (int i = 255; i >= 0; --i) bytes += static_cast<char>(i);
    bytes += "\r\n\n\r\x1a";

    TempDir dir;
    {
        FileSystemPhysicalPackage package(dir.u16("pkg"));
        package.open(OpenMode::Create);
        EXPECT_EQ(writeAll(create(package, u"/bytes.bin")->getOutputStream(), bytes),
                  static_cast<std::streamsize>(bytes.size()));
        package.close(false);
    }
    EXPECT_EQ(readFile(dir.path() / "pkg" / "bytes.bin"), bytes);
    FileSystemPhysicalPackage package(dir.u16("pkg"));
    package.open(OpenMode::Read);
    EXPECT_EQ(readAll(findPart(package, u"/bytes.bin")->getInputStream(), 7), bytes);
}

// Piece `index` of the large part: a different byte sequence for every piece,
// so that a lost, repeated or reordered piece shows.
void fillPiece(std::string& piece, std::uint64_t index) {
    std::uint64_t state = index * 0x9E3779B97F4A7C15ull + 1;
    for (char& byte : piece) {
        state ^= state << 13;
        state ^= state >> 7;
        state ^= state << 17;
        byte = static_cast<char>(state >> 56);
    }
}

TEST(Streams, HundredMebibytePartRoundTripsInPieces) {
    constexpr std::size_t kPiece = 64 * 1024;
    constexpr std::uint64_t kPieces = 1600;  // 100 MiB
    TempDir dir;
    std::string piece(kPiece, '\0');
    {
        FileSystemPhysicalPackage package(dir.u16("pkg"));
        package.open(OpenMode::Create);
        IPhysicalOutputStream* out = create(package, u"/big.bin")->getOutputStream();
        std::uint64_t shortWrites = 0;
        for (std::uint64_t i = 0; i < kPieces; ++i) {
            fillPiece(piece, i);
            if (out->write(piece.data(), kPiece) != static_cast<std::streamsize>(kPiece)) ++shortWrites;
        }
        EXPECT_EQ(shortWrites, 0u);
        EXPECT_FALSE(out->isFailed());
        package.close(false);
    }
    EXPECT_EQ(std::filesystem::file_size(dir.path() / "pkg" / "big.bin"), kPieces * kPiece);

    FileSystemPhysicalPackage package(dir.u16("pkg"));
    package.open(OpenMode::Read);
    IPhysicalInputStream* in = findPart(package, u"/big.bin")->getInputStream();
    std::string expected(kPiece, '\0');
    std::uint64_t firstBadPiece = kPieces;
    for (std::uint64_t i = 0; i < kPieces && firstBadPiece == kPieces; ++i) {
        fillPiece(expected, i);
        if (in->read(piece.data(), kPiece) != static_cast<std::streamsize>(kPiece) || piece != expected) {
            firstBadPiece = i;
        }
    }
    EXPECT_EQ(firstBadPiece, kPieces);
    EXPECT_EQ(in->read(piece.data(), 1), 0);
    EXPECT_TRUE(in->isAtEnd());
}

}  // namespace
}  // namespace opc::test::fspackage
