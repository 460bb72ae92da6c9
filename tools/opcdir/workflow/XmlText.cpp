#include "XmlText.h"

#include <pugixml.hpp>

#include <algorithm>
#include <sstream>

namespace opcdir {
namespace {

// pugixml never reads what a document type declaration declares: the
// declaration is kept as a node, and a reference to a declared entity stays
// as written.
constexpr unsigned kParseOptions = pugi::parse_default | pugi::parse_declaration | pugi::parse_comments |
                                   pugi::parse_pi | pugi::parse_doctype | pugi::parse_ws_pcdata_single;

pugi::xml_document parse(std::string_view xml) {
    pugi::xml_document document;
    const pugi::xml_parse_result result = document.load_buffer(xml.data(), xml.size(), kParseOptions);
    if (!result) {
        throw XmlError("malformed XML: " + std::string(result.description()) + " at byte " +
                       std::to_string(result.offset));
    }
    if (!document.document_element()) throw XmlError("malformed XML: no root element");
    return document;
}

std::string save(const pugi::xml_document& document) {
    std::ostringstream out;
    document.save(out, "  ", pugi::format_indent | pugi::format_no_declaration, pugi::encoding_utf8);
    return out.str();
}

// Namespace prefixes vary between writers; the entries are matched by their
// local name.
std::string_view localName(const pugi::xml_node& node) {
    const std::string_view name = node.name();
    const std::size_t colon = name.find(':');
    return colon == std::string_view::npos ? name : name.substr(colon + 1);
}

void sortAttributes(pugi::xml_node node) {
    std::vector<std::pair<std::string, std::string>> attributes;
    for (const pugi::xml_attribute& attribute : node.attributes())
        attributes.emplace_back(attribute.name(), attribute.value());
    std::sort(attributes.begin(), attributes.end());
    while (node.first_attribute()) node.remove_attribute(node.first_attribute());
    for (const auto& [name, value] : attributes) node.append_attribute(name.c_str()).set_value(value.c_str());
    for (pugi::xml_node child : node.children()) sortAttributes(child);
}

// Entries sort by what names them (a relationship's Id, a Default's Extension,
// an Override's PartName), then by all their attributes.
std::string sortKey(const pugi::xml_node& node) {
    std::string key = node.name();
    for (const char* naming : {"Id", "Extension", "PartName"})
        key.append(1, '\0').append(node.attribute(naming).value());
    for (const pugi::xml_attribute& attribute : node.attributes()) {
        key.append(1, '\0').append(attribute.name()).append(1, '\0').append(attribute.value());
    }
    return key;
}

}  // namespace

std::string prettyXml(std::string_view xml) { return save(parse(xml)); }

std::string canonicalXml(std::string_view xml) {
    pugi::xml_document document = parse(xml);
    pugi::xml_node root = document.document_element();
    sortAttributes(root);
    std::vector<std::pair<std::string, pugi::xml_node>> entries;
    for (pugi::xml_node child : root.children()) {
        if (child.type() == pugi::node_element) entries.emplace_back(sortKey(child), child);
    }
    std::stable_sort(entries.begin(), entries.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
    for (auto& entry : entries) root.append_move(entry.second);
    return save(document);
}

ContentTypeEntries readContentTypes(std::string_view xml) {
    const pugi::xml_document document = parse(xml);
    ContentTypeEntries entries;
    for (const pugi::xml_node& child : document.document_element().children()) {
        const std::string_view name = localName(child);
        const std::string type = child.attribute("ContentType").value();
        if (name == "Default") {
            entries.defaults.push_back({child.attribute("Extension").value(), type});
        } else if (name == "Override") {
            entries.overrides.push_back({child.attribute("PartName").value(), type});
        }
    }
    return entries;
}

std::vector<Relationship> readRelationships(std::string_view xml) {
    const pugi::xml_document document = parse(xml);
    std::vector<Relationship> relationships;
    for (const pugi::xml_node& child : document.document_element().children()) {
        if (localName(child) != "Relationship") continue;
        relationships.push_back({child.attribute("Id").value(), child.attribute("Type").value(),
                                 child.attribute("Target").value(),
                                 std::string_view(child.attribute("TargetMode").value()) == "External"});
    }
    return relationships;
}

}  // namespace opcdir
