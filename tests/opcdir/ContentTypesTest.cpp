#include "ContentTypes.h"

#include <gtest/gtest.h>

namespace opcdir {
namespace {

TEST(ContentTypesLookup, OverrideByNameBeatsDefaultByExtension) {
    const ContentTypes types = ContentTypes::parse(
        "<Types><Default Extension=\"xml\" ContentType=\"application/xml\"/>"
        "<Override PartName=\"/word/document.xml\" ContentType=\"doc/main\"/></Types>");
    EXPECT_EQ(types.lookup("/word/document.xml"), "doc/main");
    EXPECT_EQ(types.lookup("/word/styles.xml"), "application/xml");
    EXPECT_EQ(types.lookup("/word/image.png"), "");
}

TEST(ContentTypesLookup, NamesAndExtensionsMatchWithoutRegardToCaseOrPercentEncoding) {
    const ContentTypes types = ContentTypes::parse(
        "<Types><Default Extension=\"PNG\" ContentType=\"image/png\"/>"
        "<Override PartName=\"/Word/%C3%A9t%C3%a9.XML\" ContentType=\"summer\"/></Types>");
    EXPECT_EQ(types.lookup("/word/\xc3\xa9t\xc3\xa9.xml"), "summer");
    EXPECT_EQ(types.lookup("/WORD/%c3%a9t%c3%a9.xml"), "summer");
    EXPECT_EQ(types.lookup("/media/a.png"), "image/png");
    EXPECT_EQ(types.lookup("/media/A.Png"), "image/png");
}

TEST(ContentTypesLookup, ExtensionIsTakenFromTheLastSegmentOnly) {
    const ContentTypes types = ContentTypes::parse("<Types><Default Extension=\"d\" ContentType=\"x/d\"/></Types>");
    EXPECT_EQ(types.lookup("/folder.d/file"), "");
    EXPECT_EQ(types.lookup("/folder.d/file.d"), "x/d");
}

TEST(ContentTypesParse, ReadsPrefixesQuotesEntitiesAndSkipsComments) {
    const ContentTypes types = ContentTypes::parse(
        "<?xml version='1.0'?>\n<ct:Types xmlns:ct=\"urn:x\">\n"
        "  <!-- <ct:Default Extension=\"txt\" ContentType=\"commented/out\"/> -->\n"
        "  <ct:Default\n    Extension = 'txt'\n    ContentType = 'text/plain; a=&quot;b&quot;' />\n"
        "  <ct:Override ContentType=\"a&#47;b&#x2F;&amp;c\" PartName=\"/x&amp;y.bin\"></ct:Override>\n"
        "  <Override PartName=\"/kept&unknown;.bin\" ContentType=\"kept\"/>\n"
        "  <Override PartName=\"/no-type.bin\"/>\n"
        "</ct:Types>");
    EXPECT_EQ(types.lookup("/a.txt"), "text/plain; a=\"b\"");
    EXPECT_EQ(types.lookup("/x&y.bin"), "a/b/&c");
    EXPECT_EQ(types.lookup("/kept&unknown;.bin"), "kept");
    EXPECT_EQ(types.lookup("/no-type.bin"), "");
}

TEST(ContentTypesParse, BrokenXmlGivesFewerTypesNotAFailure) {
    const ContentTypes types = ContentTypes::parse(
        "<Types><Default Extension=\"a\" ContentType=\"x/a\"/><Default Extension=\"b\" ContentType=\"x/b");
    EXPECT_EQ(types.lookup("/f.a"), "x/a");
    EXPECT_EQ(types.lookup("/f.b"), "");
    EXPECT_EQ(ContentTypes::parse("<!-- unterminated").lookup("/f.a"), "");
}

}  // namespace
}  // namespace opcdir
