#include "ContentTypes.h"

#include "PartNames.h"

#include <pugixml.hpp>

namespace opcdir {
namespace {

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// "%41" and "A" name the same part.
std::string decodePercents(std::string_view name) {
    std::string out;
    for (std::size_t i = 0; i < name.size(); ++i) {
        if (name[i] == '%' && i + 2 < name.size() && hexValue(name[i + 1]) >= 0 && hexValue(name[i + 2]) >= 0) {
            out += static_cast<char>(hexValue(name[i + 1]) * 16 + hexValue(name[i + 2]));
            i += 2;
        } else {
            out += name[i];
        }
    }
    return out;
}

std::string partKey(std::string_view partName) { return foldCase(decodePercents(partName)); }

// An element's name without its namespace prefix.
std::string_view localName(const pugi::xml_node& node) {
    const std::string_view name = node.name();
    const std::size_t colon = name.find(':');
    return colon == std::string_view::npos ? name : name.substr(colon + 1);
}

}  // namespace

ContentTypes ContentTypes::parse(std::string_view xml) {
    ContentTypes types;
    pugi::xml_document document;
    // A stream broken part way still gives the elements read before the
    // fault; the result is not checked for that reason.
    document.load_buffer(xml.data(), xml.size(), pugi::parse_default, pugi::encoding_auto);
    for (const pugi::xpath_node& found : document.select_nodes("//*")) {
        const pugi::xml_node element = found.node();
        const std::string_view name = localName(element);
        const pugi::xml_attribute type = element.attribute("ContentType");
        if (!type) continue;
        if (name == "Default") {
            if (const pugi::xml_attribute extension = element.attribute("Extension"))
                types.defaults.emplace(foldCase(extension.value()), type.value());
        } else if (name == "Override") {
            if (const pugi::xml_attribute part = element.attribute("PartName"))
                types.overrides.emplace(partKey(part.value()), type.value());
        }
    }
    return types;
}

std::string ContentTypes::lookup(std::string_view partName) const {
    if (const auto found = overrides.find(partKey(partName)); found != overrides.end()) return found->second;
    const std::size_t slash = partName.rfind('/');
    const std::size_t dot = partName.rfind('.');
    if (dot == std::string_view::npos || (slash != std::string_view::npos && dot < slash)) return {};
    if (const auto found = defaults.find(foldCase(partName.substr(dot + 1))); found != defaults.end())
        return found->second;
    return {};
}

std::string minimalContentTypes() {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\" standalone=\"yes\"?>\n"
           "<Types xmlns=\"http://schemas.openxmlformats.org/package/2006/content-types\">"
           "<Default Extension=\"rels\" ContentType=\"application/vnd.openxmlformats-package.relationships+xml\"/>"
           "<Default Extension=\"xml\" ContentType=\"application/xml\"/>"
           "</Types>\n";
}

}  // namespace opcdir
