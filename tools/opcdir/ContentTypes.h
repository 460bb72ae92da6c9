#pragma once

#include <map>
#include <string>
#include <string_view>

namespace opcdir {

// The content types that a "[Content_Types].xml" stream gives the parts of a
// package: an Override names one part, a Default covers every part whose name
// ends in its extension. Part names and extensions match without regard to
// ASCII case, and percent-encoded bytes match the bytes they stand for.
class ContentTypes {
public:
    // Reads the Default and Override elements of xml (UTF-8, or UTF-16 with
    // a byte-order mark) at any depth; anything else is ignored, and a stream
    // broken part way gives the elements before the fault rather than a
    // failure.
    static ContentTypes parse(std::string_view xml);

    // The content type of the part partName ("/word/document.xml"), or empty
    // when the stream gives it none.
    std::string lookup(std::string_view partName) const;

    // What a Default and an Override element add; the first given for an
    // extension or a part name holds.
    void addDefault(std::string_view extension, std::string type);
    void addOverride(std::string_view partName, std::string type);

private:
    std::map<std::string, std::string> defaults;   // folded extension -> type
    std::map<std::string, std::string> overrides;  // folded, decoded part name -> type
};

// The minimal stream of a new package: Defaults for ".rels" and ".xml".
std::string minimalContentTypes();

}  // namespace opcdir
