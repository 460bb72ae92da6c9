#include "CoreTest.h"

namespace opc::test {
namespace {

// What bytes that are not UTF-8 at all decode to: ASCII stays, every byte from
// 0x80 on becomes its own escape.
std::u16string byteWise(const std::string& bytes) {
    std::u16string out;
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        out.push_back(byte < 0x80 ? char16_t{byte} : static_cast<char16_t>(0xDC00 + byte));
    }
    return out;
}

TEST(NativePath, Utf8MapsToUtf16AndBack) {
    // é (2 bytes), € (3 bytes), 𝄞 U+1D11E (4 bytes, a surrogate pair), and the
    // edges of each length.
    const std::vector<std::pair<std::string, std::u16string>> cases = {
        {"caf\xC3\xA9-\xE2\x82\xAC-\xF0\x9D\x84\x9E", u"caf\u00E9-\u20AC-\U0001D11E"},
        {"\xC2\x80\xDF\xBF\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80", u"\u0080\u07FF\u0800\uD7FF\uE000"},
        {"\xEF\xBF\xBF\xF0\x90\x80\x80\xF4\x8F\xBF\xBF", u"\uFFFF\U00010000\U0010FFFF"}};
    for (const auto& [bytes, wide] : cases) {
        SCOPED_TRACE(bytes);
        EXPECT_EQ(Ops::fromNativePath(bytes), wide);
        EXPECT_EQ(Ops::toNativePath(wide), bytes);
    }
}

TEST(NativePath, EveryHighByteMapsToItsEscapeAndBack) {
    for (int byte = 0x80; byte <= 0xFF; ++byte) {
        const std::string bytes = "a" + std::string(1, static_cast<char>(byte)) + "z";
        const std::u16string wide = u"a" + std::u16string(1, static_cast<char16_t>(0xDC80 + (byte - 0x80))) + u"z";
        EXPECT_EQ(Ops::fromNativePath(bytes), wide) << "byte " << byte;
        EXPECT_EQ(Ops::toNativePath(wide), bytes) << "byte " << byte;
    }
}

TEST(NativePath, IllFormedSequencesDecodeByteWiseAndReencodeIdentically) {
    // Overlong forms, encoded surrogates, past U+10FFFF, bad leads, truncated
    // and interrupted sequences, stray continuations.
    const std::string named =
        "x\xC0\x80y\xE0\x9F\xBFy\xF0\x8F\xBF\xBFy\xED\xA0\x80y\xED\xB2\x80y\xF4\x90\x80\x80y"
        "\xF5\x80y\xFE\xFFy\xC3y\xF0\x9F\x98y\xE2\x82\x41y\x80\xBF";
    EXPECT_EQ(Ops::fromNativePath(named), byteWise(named));
    EXPECT_EQ(Ops::toNativePath(byteWise(named)), named);
    // A bad lead does not swallow the valid character after it.
    EXPECT_EQ(Ops::fromNativePath("\xF0\x9D\xF0\x9D\x84\x9E"), (std::u16string{0xDCF0, 0xDC9D} + u"\U0001D11E"));
}

using NameOnDisk = Fixture;

TEST_F(NameOnDisk, NotUtf8IsListedReadCopiedRenamedAndRemoved) {
    // A lone byte, an overlong form and an encoded surrogate; none is UTF-8.
    const std::string native = "bad-\xFF\xC0\x80-\xED\xA0\x80";
    const std::u16string path = dir.u16() + u"/" + byteWise(native);
    const std::string content("content\0\xFF", 9);
    writeFile(dir.path() / native, content);

    std::vector<std::u16string> files;
    ops.getFiles(dir.u16(), files, true);
    EXPECT_EQ(files, std::vector<std::u16string>{path});
    boost::system::error_code code;
    const auto in = ops.createInputStream(path, kIn, code);
    ASSERT_NE(in, nullptr) << code.message();
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(*in), {}), content);

    ops.copy(path, dir.u16() + u"/" + byteWise("copy-\x80"), ExistsMode::Fail);
    ops.rename(path, dir.u16() + u"/" + byteWise("renamed-\xE9"));
    EXPECT_EQ(snapshotTree(dir.path()), (TreeSnapshot{{"copy-\x80", content}, {"renamed-\xE9", content}}));
    ops.removeAll(dir.u16() + u"/" + byteWise("renamed-\xE9"));
    EXPECT_EQ(listFolder(dir.path()), Strings{"copy-\x80"});
}

TEST_F(NameOnDisk, NulCharacterNamesNoFile) {
    writeFile(dir.path() / "a", "held");
    const std::u16string cut = dir.u16("a") + std::u16string(1, u'\0') + u"b";
    EXPECT_FALSE(ops.exists(cut));
    boost::system::error_code code;
    EXPECT_EQ(ops.createInputStream(cut, kIn, code), nullptr);
    EXPECT_EQ(code, systemCode(EINVAL));
    code.clear();
    EXPECT_EQ(ops.createOutputStream(cut, kOut, code), nullptr);
    EXPECT_EQ(code, systemCode(EINVAL));
    EXPECT_EQ(caught([&] { ops.removeAll(cut); }).second, systemCode(EINVAL));
    EXPECT_EQ(snapshotTree(dir.path()), (TreeSnapshot{{"a", "held"}}));
}

}  // namespace
}  // namespace opc::test
