#include <opccore/LocalFileSystemOps.h>

#include "support/OpcAssertions.h"
#include "support/TempDir.h"
#include "support/TreeSnapshot.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <istream>
#include <iterator>
#include <string>
#include <vector>

namespace {

using opc::LocalFileSystemOps;
using opc::test::systemCode;
using opc::test::TempDir;

// What a name that is not UTF-8 at all must decode to: every byte from 0x80 on
// becomes its own escape, ASCII stays as it is.
std::u16string byteWise(const std::string& bytes) {
    std::u16string out;
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        out.push_back(byte < 0x80 ? char16_t{byte} : static_cast<char16_t>(0xDC00 + byte));
    }
    return out;
}

std::string readStream(std::istream& in) {
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

TEST(NativePath, AsciiRoundTripsUnchanged) {
    const std::string ascii = "/data/pkg/[Content_Types].xml ~!@#$%^&()_+{}";
    const std::u16string wide = u"/data/pkg/[Content_Types].xml ~!@#$%^&()_+{}";
    EXPECT_EQ(LocalFileSystemOps::fromNativePath(ascii), wide);
    EXPECT_EQ(LocalFileSystemOps::toNativePath(wide), ascii);
}

TEST(NativePath, MultiByteUtf8MapsToUtf16AndBack) {
    // é (2 bytes), € (3 bytes), 𝄞 U+1D11E (4 bytes, a surrogate pair in UTF-16).
    const std::string bytes = "caf\xC3\xA9-\xE2\x82\xAC-\xF0\x9D\x84\x9E.xml";
    const std::u16string wide = u"caf\u00E9-\u20AC-\U0001D11E.xml";
    ASSERT_EQ(wide.size(), 13u);
    EXPECT_EQ(LocalFileSystemOps::fromNativePath(bytes), wide);
    EXPECT_EQ(LocalFileSystemOps::toNativePath(wide), bytes);
}

TEST(NativePath, BoundariesOfEachUtf8LengthAreCodePointsNotEscapes) {
    struct Case {
        std::string bytes;
        std::u16string wide;
    };
    const std::vector<Case> cases = {
        {"\xC2\x80", u"\u0080"},          {"\xDF\xBF", u"\u07FF"},
        {"\xE0\xA0\x80", u"\u0800"},      {"\xED\x9F\xBF", u"\uD7FF"},
        {"\xEE\x80\x80", u"\uE000"},      {"\xEF\xBF\xBF", u"\uFFFF"},
        {"\xF0\x90\x80\x80", u"\U00010000"}, {"\xF4\x8F\xBF\xBF", u"\U0010FFFF"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(LocalFileSystemOps::fromNativePath(c.bytes), c.wide) << "bytes of size " << c.bytes.size();
        EXPECT_EQ(LocalFileSystemOps::toNativePath(c.wide), c.bytes) << "bytes of size " << c.bytes.size();
    }
}

TEST(NativePath, EverySingleHighByteMapsToItsEscapeAndBack) {
    for (int byte = 0x80; byte <= 0xFF; ++byte) {
        const std::string alone(1, static_cast<char>(byte));
        const std::u16string escape(1, static_cast<char16_t>(0xDC80 + (byte - 0x80)));
        EXPECT_EQ(LocalFileSystemOps::fromNativePath(alone), escape) << "byte " << byte;
        EXPECT_EQ(LocalFileSystemOps::toNativePath(escape), alone) << "byte " << byte;

        const std::string embedded = "a" + alone + "z";
        EXPECT_EQ(LocalFileSystemOps::fromNativePath(embedded), u"a" + escape + u"z") << "byte " << byte;
        EXPECT_EQ(LocalFileSystemOps::toNativePath(u"a" + escape + u"z"), embedded) << "byte " << byte;
    }
}

TEST(NativePath, IllFormedSequencesDecodeByteWiseAndReencodeIdentically) {
    const std::vector<std::string> illFormed = {
        "\xC0\x80",          // overlong U+0000
        "\xC1\xBF",          // overlong U+007F
        "\xE0\x80\x80",      // overlong three-byte form
        "\xE0\x9F\xBF",      // overlong U+07FF
        "\xF0\x80\x80\x80",  // overlong four-byte form
        "\xF0\x8F\xBF\xBF",  // overlong U+FFFF
        "\xED\xA0\x80",      // encoded high surrogate U+D800
        "\xED\xB2\x80",      // encoded low surrogate U+DC80, the first escape itself
        "\xED\xBF\xBF",      // encoded surrogate U+DFFF
        "\xF4\x90\x80\x80",  // U+110000, past the last code point
        "\xF5\x80\x80\x80",  // lead byte that never starts a sequence
        "\xF8\x88\x80\x80\x80",
        "\xFE\xFF",
        "\xC3",              // truncated two-byte sequence at the end
        "\xE2\x82",          // truncated three-byte sequence at the end
        "\xF0\x9F\x98",      // truncated four-byte sequence at the end
        "\xE2\x82" "A",      // three-byte sequence cut by ASCII
        "\xF0\x9F" "A\x98",  // four-byte sequence cut by ASCII
        "\x80\xBF",          // continuation bytes without a lead
    };
    for (const std::string& bytes : illFormed) {
        const std::string named = "x" + bytes + "y";
        const std::u16string decoded = LocalFileSystemOps::fromNativePath(named);
        EXPECT_EQ(decoded, byteWise(named)) << "sequence of " << bytes.size() << " bytes";
        EXPECT_EQ(LocalFileSystemOps::toNativePath(decoded), named) << "sequence of " << bytes.size() << " bytes";
    }
}

TEST(NativePath, ValidCharacterRightAfterABadLeadByteIsKept) {
    // C3 cannot take C3 as its continuation, but the second C3 starts a valid é.
    EXPECT_EQ(LocalFileSystemOps::fromNativePath("\xC3\xC3\xA9"), (std::u16string{0xDCC3, 0x00E9}));
    EXPECT_EQ(LocalFileSystemOps::fromNativePath("\xF0\x9D\xF0\x9D\x84\x9E"), (std::u16string{0xDCF0, 0xDC9D} + u"\U0001D11E"));
    EXPECT_EQ(LocalFileSystemOps::toNativePath((std::u16string{0xDCF0, 0xDC9D} + u"\U0001D11E")), "\xF0\x9D\xF0\x9D\x84\x9E");
}

TEST(NativePath, EveryByteStringOfLengthTwoRoundTrips) {
    std::size_t failures = 0;
    for (int first = 1; first <= 0xFF; ++first) {
        for (int second = 1; second <= 0xFF; ++second) {
            const std::string bytes{static_cast<char>(first), static_cast<char>(second)};
            if (LocalFileSystemOps::toNativePath(LocalFileSystemOps::fromNativePath(bytes)) != bytes) {
                if (++failures <= 5) ADD_FAILURE() << "bytes " << first << " " << second << " do not round-trip";
            }
        }
    }
    EXPECT_EQ(failures, 0u);
}

class NonUtf8FileName : public ::testing::Test {
protected:
    // "bad-<FF><C0 80>-<ED A0 80>.bin": a lone byte, an overlong form and an
    // encoded surrogate, none of them UTF-8.
    const std::string nativeName = "bad-\xFF\xC0\x80-\xED\xA0\x80.bin";
    const std::u16string wideName = u"bad-" + std::u16string{0xDCFF, 0xDCC0, 0xDC80} + u"-" + std::u16string{0xDCED, 0xDCA0, 0xDC80} + u".bin";
    const std::string nativeFolder = "dir-\x80\xFE";
    const std::u16string wideFolder = u"dir-" + std::u16string{0xDC80, 0xDCFE};
    const std::string content = std::string("content\0\xFF of a file", 19);

    TempDir dir;
    opc::LocalFileSystemOps fs;
};

TEST_F(NonUtf8FileName, IsListedUnderItsEscapedName) {
    opc::test::writeFile(dir.path() / nativeName, content);
    opc::test::writeFile(dir.path() / nativeFolder / nativeName, content);
    std::vector<std::u16string> files;
    fs.getFiles(dir.u16(), files, true);
    std::sort(files.begin(), files.end());
    const std::vector<std::u16string> expected = {dir.u16() + u"/" + wideName,
                                                  dir.u16() + u"/" + wideFolder + u"/" + wideName};
    EXPECT_EQ(files, expected);
    EXPECT_TRUE(fs.isFolder(dir.u16() + u"/" + wideFolder));
    EXPECT_TRUE(fs.exists(dir.u16() + u"/" + wideFolder + u"/" + wideName));
}

TEST_F(NonUtf8FileName, IsOpenedCopiedRenamedAndRemovedThroughItsUtf16Name) {
    opc::test::writeFile(dir.path() / nativeName, content);
    const std::u16string path = dir.u16() + u"/" + wideName;

    boost::system::error_code code;
    const auto in = fs.createInputStream(path, std::ios_base::in | std::ios_base::binary, code);
    ASSERT_FALSE(code) << code.message();
    ASSERT_NE(in, nullptr);
    EXPECT_EQ(readStream(*in), content);

    const std::u16string copied = dir.u16() + u"/" + wideFolder;
    fs.copy(path, copied, opc::ExistsMode::Fail);
    const std::u16string renamed = dir.u16() + u"/renamed-" + std::u16string{0xDCE9};
    fs.rename(path, renamed);
    EXPECT_EQ(opc::test::listFolder(dir.path()), (std::vector<std::string>{nativeFolder, "renamed-\xE9"}));
    EXPECT_EQ(opc::test::readFile(dir.path() / nativeFolder), content);
    EXPECT_EQ(opc::test::readFile(dir.path() / "renamed-\xE9"), content);

    fs.removeAll(renamed);
    fs.removeAll(copied);
    EXPECT_TRUE(opc::test::listFolder(dir.path()).empty());
}

TEST_F(NonUtf8FileName, MessagesShowEscapedBytesAsHex) {
    const std::u16string missing = dir.u16() + u"/" + wideName;
    try {
        fs.copy(missing, dir.u16() + u"/copy", opc::ExistsMode::Fail);
        FAIL() << "copy of a missing file succeeded";
    } catch (const opc::Exception& e) {
        const std::string message = e.what();
        EXPECT_NE(message.find("bad-\\xFF\\xC0\\x80-\\xED\\xA0\\x80.bin"), std::string::npos) << message;
        EXPECT_EQ(e.code(), systemCode(ENOENT));
    }
}

TEST(NativePath, NulCharacterNamesNoFile) {
    TempDir dir;
    opc::test::writeFile(dir.path() / "a", "held");
    opc::LocalFileSystemOps fs;
    const std::u16string cut = dir.u16("a") + std::u16string(1, u'\0') + u"b";
    EXPECT_FALSE(fs.exists(cut));
    EXPECT_FALSE(fs.isFolder(dir.u16() + std::u16string(1, u'\0')));

    boost::system::error_code code;
    EXPECT_EQ(fs.createInputStream(cut, std::ios_base::in | std::ios_base::binary, code), nullptr);
    EXPECT_EQ(code, systemCode(EINVAL));

    code.clear();
    EXPECT_EQ(fs.createOutputStream(cut, std::ios_base::out | std::ios_base::binary, code), nullptr);
    EXPECT_EQ(code, systemCode(EINVAL));
    EXPECT_EQ(opc::test::readFile(dir.path() / "a"), "held");

    EXPECT_THROW(fs.removeAll(cut), opc::Exception);
    EXPECT_EQ(opc::test::readFile(dir.path() / "a"), "held");
}

}  // namespace
