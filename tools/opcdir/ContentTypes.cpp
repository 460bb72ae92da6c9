#include "ContentTypes.h"

#include "PartNames.h"

#include <pugixml.hpp>

namespace opcdir {
namespace {

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
                types.addDefault(extension.value(), type.value());
        } else if (name == "Override") {
            if (const pugi::xml_attribute part = element.attribute("PartName"))
                types.addOverride(part.value(), type.value());
        }
    }
    return types;
}

std::string ContentTypes::lookup(std::string_view partName) const {
    if (const auto found = overrides.find(equivalenceKey(partName)); found != overrides.end()) return found->second;
    const std::size_t slash = partName.rfind('/');
    const std::size_t dot = partName.rfind('.');
    if (dot == std::string_view::npos || (slash != std::string_view::npos && dot < slash)) return {};
    if (const auto found = defaults.find(foldCase(partName.substr(dot + 1))); found != defaults.end())
        return found->second;
    return {};
}

void ContentTypes::addDefault(std::string_view extension, std::string type) {
    defaults.emplace(foldCase(extension), std::move(type));
}

void ContentTypes::addOverride(std::string_view partName, std::string type) {
    overrides.emplace(equivalenceKey(partName), std::move(type));
}

std::string minimalContentTypes() {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\" standalone=\"yes\"?>\n"
           "<Types xmlns=\"http://schemas.openxmlformats.org/package/2006/content-types\">"
           "<Default Extension=\"rels\" ContentType=\"application/vnd.openxmlformats-package.relationships+xml\"/>"
           "<Default Extension=\"xml\" ContentType=\"application/xml\"/>"
           "</Types>\n";
}

}  // namespace opcdir
