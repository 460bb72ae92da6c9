#pragma once

#include "ContentTypes.h"
#include "PackageView.h"
#include "XmlText.h"

#include <string>

namespace opcdir {

// How the parts of one package read as text: by the content types its
// "[Content_Types].xml" gives them, falling back on the extensions .xml and
// .rels. A content-types part that cannot be read gives no types.
class PartText {
public:
    explicit PartText(PackageView& view);

    // The part's content type, or empty when it has none.
    std::string contentType(const std::string& partName) const;

    // Relationship and content-types parts: lists of entries without order.
    static bool isEntryList(const std::string& partName);
    bool isXml(const std::string& partName) const;

    // The text form of an XML part: canonical for entry lists, pretty-printed
    // otherwise. Throws XmlError for a part that is not XML.
    std::string xmlText(const std::string& partName) const;

    // "<size> bytes, SHA-256 <digest>" of any part.
    std::string digestLine(const std::string& partName) const;

private:
    PackageView& package;
    ContentTypes types;
};

}  // namespace opcdir
