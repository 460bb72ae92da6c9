#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace opcdir {

// Part names and ZIP entry names are UTF-8 bytes here; the library speaks
// UTF-16. Bytes that are not UTF-8 survive the round trip unchanged.
std::u16string toUtf16(std::string_view utf8);
std::string toUtf8(std::u16string_view utf16);

// The file name of the content-types part, also its ZIP entry name.
inline constexpr std::string_view kContentTypesName = "[Content_Types].xml";

// "/[Content_Types].xml", as listings and the commands name it.
std::string contentTypesPartName();

// Why a package-relative path (a ZIP entry name, or a part name without its
// leading "/") cannot name a part file, or empty when it can. Refused:
// absolute names, backslashes, NUL, empty, "." and ".." segments, a trailing
// "/", a first segment beginning with "[trash]" (the library lists no such
// file), and names longer than Linux allows (a segment of more than NAME_MAX
// bytes, PATH_MAX bytes in all). unpack, pack and put refuse the same names,
// so that whatever pack writes unpack accepts.
std::string unsafeNameReason(std::string_view relative);

// A part name typed by a user, with or without its leading "/", checked as
// above. Throws Failure(subject, ...) when it cannot be a part name.
std::string partNameArgument(const std::string& subject, const std::string& argument);

// ASCII letters lowered: part names compare without regard to ASCII case.
std::string foldCase(std::string_view text);

// The value of a hexadecimal digit (either case), or -1 for any other
// character.
int hexDigitValue(char c);

// The key under which part names are equal: percent-encodings decoded and
// ASCII letters lowered, so "/A%20b.xml" and "/a b.XML" share one. A "%" not
// followed by two hexadecimal digits stands for itself.
std::string equivalenceKey(std::string_view partName);

// text with every control character written as \xNN: the C0 controls,
// DEL, and the C1 controls U+0080 to U+009F (whose CSI a terminal takes as an
// escape sequence), and every byte that is not part of well-formed UTF-8, so
// that text from a package cannot drive a terminal. A backslash is written
// \\, so that a name holding the text "\x1b" does not read as one holding ESC.
std::string escapeControls(std::string_view text);

// The name quoted for a message, with control characters escaped so that an
// error stays on one line and cannot drive a terminal.
std::string quoteName(std::string_view name);

// Names that live side by side in one folder tree, where two names equal but
// for ASCII case are one file, and a file cannot also be the folder of
// another name. Both put and unpack keep their packages to these rules.
//
// Names are kept as a tree of segments, each found by a hash of its folder
// and its folded bytes: a whole archive's names take time and memory linear in
// their total length, however deep they are.
class NameTree {
public:
    enum class Clash {
        None,
        Duplicate,  // other is the same name, perhaps in another case
        IsFolder,   // the added name would be the folder of other
        InFile,     // other would be the folder of the added name
    };
    struct Result {
        Clash clash = Clash::None;
        std::string other;  // the name already in the tree, as it was added
    };

    // Adds a file name, or a folder name when it ends in "/" (as ZIP folder
    // entries do), unless it clashes with a name in the tree.
    Result add(const std::string& name);

    // What add(name) would report, leaving the tree as it is.
    Result check(const std::string& name) const;

private:
    static constexpr std::uint32_t kNone = 0xffffffff;

    struct Node {
        std::uint32_t parent;  // kNone at the top
        std::uint32_t name;    // the first name that made it: the file, or a name below the folder
        std::uint32_t offset;  // of the node's segment in that name
        std::uint32_t length;
        bool isFile;
    };

    std::string_view segmentOf(const Node& node) const;
    std::uint32_t find(std::uint32_t parent, std::string_view segment) const;
    void insert(const Node& node);

    std::vector<std::string> names;  // every name added, as it was added
    std::vector<Node> nodes;
    std::vector<std::uint32_t> slots;  // open addressing: node index + 1, 0 when free
};

}  // namespace opcdir
