#include "LineDiff.h"
#include "PartNameGrammar.h"
#include "PartNames.h"
#include "Sha256.h"
#include "XmlText.h"
#include "support/OpcAssertions.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace opcdir {
namespace {

TEST(XmlText, PrettyPrintsKeepingTextAttributesAndDeclaration) {
    EXPECT_EQ(prettyXml("<?xml version=\"1.0\"?>\r\n<a z=\"2\" b=\"1\"><b><c>x &amp; y</c><d xml:space=\"preserve\"> "
                        "</d></b><!--n--><e/></a>"),
              "<?xml version=\"1.0\"?>\n<a z=\"2\" b=\"1\">\n  <b>\n    <c>x &amp; y</c>\n"
              "    <d xml:space=\"preserve\"> </d>\n  </b>\n  <!--n-->\n  <e />\n</a>\n");
}

TEST(XmlText, DeclaredEntitiesAreNeverExpandedAndBadXmlIsAnError) {
    std::string bomb = "<?xml version=\"1.0\"?><!DOCTYPE r [<!ENTITY a \"aaaaaaaaaa\">";
    for (char level = 'b'; level <= 'k'; ++level) {
        bomb += std::string("<!ENTITY ") + level + " \"";
        for (int i = 0; i < 10; ++i) bomb += std::string("&") + static_cast<char>(level - 1) + ";";
        bomb += "\">";
    }
    bomb += "]><r>&k;</r>";
    const std::string pretty = prettyXml(bomb);
    EXPECT_LT(pretty.size(), bomb.size() + 100);
    EXPECT_NE(pretty.find("<r>&amp;k;</r>"), std::string::npos) << pretty;

    const std::vector<std::pair<std::string, std::string>> bad = {
        {"<a><b></a>", "malformed XML: Start-end tags mismatch at byte 8"},
        {"", "malformed XML: No document element found at byte 0"},
        {"<a x=1/>", "malformed XML: Error parsing element attribute at byte 5"},
    };
    for (const auto& [xml, message] : bad) EXPECT_EQ(opc::test::thrownWhat<XmlError>([&] { prettyXml(xml); }), message);
    const std::vector<Relationship> relationships = readRelationships(
        "<r:Relationships xmlns:r=\"x\"><r:Relationship Id=\"i\" Type=\"t\" Target=\"http://e\" "
        "TargetMode=\"External\"/><Other/></r:Relationships>");
    ASSERT_EQ(relationships.size(), 1u);
    EXPECT_EQ(relationships[0].id + relationships[0].type + relationships[0].target, "ithttp://e");
    EXPECT_TRUE(relationships[0].external);
}

std::string numbered(int from, int to) {
    std::string text;
    for (int i = from; i <= to; ++i) text += std::to_string(i) + "\n";
    return text;
}

TEST(LineDiff, HunksWithThreeLinesOfContextMergedWhenClose) {
    struct Case {
        std::string from, to, diff;
    };
    const std::vector<Case> cases = {
        {"a\nb\n", "a\nb\n", ""},
        {"", "x\n", "--- A\n+++ B\n@@ -0,0 +1 @@\n+x\n"},
        {"x\n", "x", "--- A\n+++ B\n@@ -1 +1 @@\n-x\n+x\n\\ No newline at end of file\n"},
        {numbered(1, 20), numbered(1, 9) + "ten\n" + numbered(11, 20),
         "--- A\n+++ B\n@@ -7,7 +7,7 @@\n 7\n 8\n 9\n-10\n+ten\n 11\n 12\n 13\n"},
        // Changes 6 lines apart share a hunk; 7 apart do not.
        {numbered(1, 20), "1\n2\nx\n" + numbered(4, 9) + "y\n" + numbered(11, 20),
         "--- A\n+++ B\n@@ -1,13 +1,13 @@\n 1\n 2\n-3\n+x\n 4\n 5\n 6\n 7\n 8\n 9\n-10\n+y\n 11\n 12\n 13\n"},
        {numbered(1, 20), "1\n2\n" + numbered(4, 10) + numbered(12, 20),
         "--- A\n+++ B\n@@ -1,6 +1,5 @@\n 1\n 2\n-3\n 4\n 5\n 6\n@@ -8,7 +7,6 @@\n 8\n 9\n 10\n-11\n 12\n 13\n 14\n"},
        {"a\nb\nc\n", "c\nb\na\n", "--- A\n+++ B\n@@ -1,3 +1,3 @@\n-a\n-b\n c\n+b\n+a\n"},
    };
    for (const Case& c : cases) EXPECT_EQ(unifiedDiff(c.from, c.to, "A", "B"), c.diff) << c.from << "->" << c.to;
}

TEST(LineDiff, BeyondTheEditBoundTheRegionIsReplacedWhole) {
    std::string from;
    std::string to;
    for (int i = 0; i < 3000; ++i) {
        from += "a" + std::to_string(i) + "\n";
        to += "b" + std::to_string(i) + "\n";
    }
    const std::string diff = unifiedDiff("same\n" + from, "same\n" + to, "A", "B");
    EXPECT_EQ(diff.compare(0, 36, "--- A\n+++ B\n@@ -1,3001 +1,3001 @@\n s"), 0) << diff.substr(0, 60);
    EXPECT_EQ(std::count(diff.begin(), diff.end(), '\n'), 3 + 1 + 6000);
}

TEST(PartNameGrammar, EachRuleNamesWhatItFinds) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"/word/document.xml", ""},
        {"/a/b%20c!$&'()*+,;=:@~_-.xml", ""},
        {"/media/caf\xc3\xa9%C3%A9.png", ""},
        {"word/a.xml", "does not begin with '/'"},
        {"/word//a.xml", "empty segment"},
        {"/word/", "empty segment"},
        {"/word./a.xml", "segment ending in '.'"},
        {"/a b.xml", "character ' ' not allowed"},
        {"/a\x01.xml", "character '\\x01' not allowed"},
        {"/a[1].xml", "character '[' not allowed"},
        {"/a%2.xml", "'%' not followed by two hexadecimal digits"},
        {"/a%2fb.xml", "percent-encoded '/' ('%2f')"},
        {"/a%5Cb.xml", "percent-encoded '\\' ('%5C')"},
        {"/a%41.xml", "percent-encoded unreserved character '%41'"},
        {"/a\xc3.xml", "byte \\xc3 that is not UTF-8"},
        {"/a\xed\xa0\x80.xml", "byte \\xed that is not UTF-8"},
    };
    for (const auto& [name, problem] : cases) EXPECT_EQ(partNameGrammarProblem(name), problem) << name;
    EXPECT_EQ(equivalenceKey("/Word/A%20B.XML"), "/word/a b.xml");
}

TEST(Sha256, KnownDigestsWholeOrInPieces) {
    Sha256 empty;
    EXPECT_EQ(empty.hex(), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
    Sha256 pieces;
    const std::string million(1000000, 'a');
    for (std::size_t at = 0; at < million.size(); at += 4093)
        pieces.update(million.data() + at, std::min<std::size_t>(4093, million.size() - at));
    EXPECT_EQ(pieces.hex(), "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
}

}  // namespace
}  // namespace opcdir
