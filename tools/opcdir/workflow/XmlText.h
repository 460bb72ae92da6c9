#pragma once

#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace opcdir {

// XML that cannot be read: "malformed XML: <what> at byte <offset>".
class XmlError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Parts are read with no DTD processing: a document type declaration is kept
// as text, and no entity is expanded but the five predefined ones and
// character references, so no declared entity can grow in memory. Every
// function below throws XmlError for text that is not well-formed XML.

// The document with one element per line, indented by two spaces, ending in a
// newline. Character data, attribute values and their order are kept; text
// that is only white space is dropped unless it is an element's sole content.
std::string prettyXml(std::string_view xml);

// As prettyXml, with the elements below the root sorted by name and then by
// their attributes, and every element's attributes sorted by name: the form
// of relationship and content-types parts, whose entries carry no order.
std::string canonicalXml(std::string_view xml);

// The entries of a content-types part. Part names and extensions are as
// written; elements of other names are ignored.
struct ContentTypeEntries {
    struct Entry {
        std::string key;  // extension of a Default, part name of an Override
        std::string type;
    };
    std::vector<Entry> defaults;
    std::vector<Entry> overrides;
};
ContentTypeEntries readContentTypes(std::string_view xml);

// The Relationship elements of a relationships part.
struct Relationship {
    std::string id;
    std::string type;
    std::string target;
    bool external = false;  // TargetMode="External"
};
std::vector<Relationship> readRelationships(std::string_view xml);

}  // namespace opcdir
