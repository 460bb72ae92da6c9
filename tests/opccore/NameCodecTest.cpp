#include "CoreTest.h"

#include <opccore/NameCodec.h>

#include <iterator>

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

TEST(NameCodec, WellFormedUtf8MapsToUtf16AndBack) {
    // é (2 bytes), € (3 bytes), 𝄞 U+1D11E (4 bytes, a surrogate pair), and the
    // edges of each length.
    const std::vector<std::pair<std::string, std::u16string>> cases = {
        {"caf\xC3\xA9-\xE2\x82\xAC-\xF0\x9D\x84\x9E", u"caf\u00E9-\u20AC-\U0001D11E"},
        {"\xC2\x80\xDF\xBF\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80", u"\u0080\u07FF\u0800\uD7FF\uE000"},
        {"\xEF\xBF\xBF\xF0\x90\x80\x80\xF4\x8F\xBF\xBF", u"\uFFFF\U00010000\U0010FFFF"},
        {std::string("nul\0/sep", 8), std::u16string(u"nul\0/sep", 8)}};
    for (const auto& [bytes, wide] : cases) {
        SCOPED_TRACE(bytes);
        EXPECT_TRUE(NameCodec::isUtf8(bytes));
        EXPECT_EQ(NameCodec::decode(bytes), wide);
        EXPECT_EQ(NameCodec::encode(wide), bytes);
        EXPECT_EQ(NameCodec::display(wide), bytes);
        EXPECT_EQ(Ops::fromNativePath(bytes), wide);
        EXPECT_EQ(Ops::toNativePath(wide), bytes);
    }
    std::u16string out = u"/p/";
    NameCodec::appendDecoded(out, "\xC3\xA9\xFF");
    EXPECT_EQ(out, u"/p/\u00E9\xDCFF");
}

TEST(NameCodec, EveryByteThatIsNotUtf8BecomesItsOwnEscapeAndBack) {
    for (int byte = 0x80; byte <= 0xFF; ++byte) {
        const std::string bytes = "a" + std::string(1, static_cast<char>(byte)) + "z";
        const std::u16string wide = u"a" + std::u16string(1, static_cast<char16_t>(0xDC80 + (byte - 0x80))) + u"z";
        EXPECT_FALSE(NameCodec::isUtf8(bytes)) << "byte " << byte;
        EXPECT_EQ(NameCodec::decode(bytes), wide) << "byte " << byte;
        EXPECT_EQ(NameCodec::encode(wide), bytes) << "byte " << byte;
    }
    // Overlong forms, encoded surrogates, past U+10FFFF, bad leads, truncated
    // and interrupted sequences, stray continuations.
    const std::string named =
        "x\xC0\x80y\xE0\x9F\xBFy\xF0\x8F\xBF\xBFy\xED\xA0\x80y\xED\xB2\x80y\xF4\x90\x80\x80y"
        "\xF5\x80y\xFE\xFFy\xC3y\xF0\x9F\x98y\xE2\x82\x41y\x80\xBF";
    EXPECT_FALSE(NameCodec::isUtf8(named));
    EXPECT_EQ(NameCodec::decode(named), byteWise(named));
    EXPECT_EQ(NameCodec::encode(byteWise(named)), named);
    // A bad lead does not swallow the valid character after it.
    EXPECT_EQ(NameCodec::decode("\xF0\x9D\xF0\x9D\x84\x9E"), (std::u16string{0xDCF0, 0xDC9D} + u"\U0001D11E"));
}

TEST(NameCodec, DisplayIsAlwaysUtf8AndEncodeTakesUnitsNoNameDecodesTo) {
    struct Case {
        std::u16string name;
        std::string display;
        std::string encoded;
    };
    const std::vector<Case> cases = {
        {u"caf\xDCE9\xDC80\xDCFF", "caf\\xE9\\x80\\xFF", "caf\xE9\x80\xFF"},
        // Lone surrogates outside the escapes, at the ends of both ranges.
        {u"\xD800.\xDBFF.\xDC7F.\xDD00.\xDFFF", "\\uD800.\\uDBFF.\\uDC7F.\\uDD00.\\uDFFF",
         "\xED\xA0\x80.\xED\xAF\xBF.\xED\xB1\xBF.\xED\xB4\x80.\xED\xBF\xBF"},
        // Escapes are low surrogates: after a high one they are half a pair.
        {u"\xD83D\xDCA9", "\xF0\x9F\x92\xA9", "\xF0\x9F\x92\xA9"},
        // Escapes that together spell UTF-8 come back as the character.
        {u"\xDCC3\xDCA9", "\\xC3\\xA9", "\xC3\xA9"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.display);
        EXPECT_EQ(NameCodec::display(c.name), c.display);
        EXPECT_TRUE(NameCodec::isUtf8(NameCodec::display(c.name)));
        EXPECT_EQ(NameCodec::encode(c.name), c.encoded);
    }
}

using NameOnDisk = Fixture;

TEST_F(NameOnDisk, NotUtf8IsListedReadCopiedRenamedRemovedAndShownEscaped) {
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

    EXPECT_OPC_EXCEPTION(ops.getFiles(path, files, true),
                         "Cannot list folder \"" + toUtf8(dir.u16()) + "/bad-\\xFF\\xC0\\x80-\\xED\\xA0\\x80\"",
                         systemCode(ENOENT));
}

}  // namespace
}  // namespace opc::test
