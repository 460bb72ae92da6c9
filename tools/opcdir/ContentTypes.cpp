#include "ContentTypes.h"

#include "PartNames.h"

#include <cstdint>
#include <optional>

namespace opcdir {
namespace {

bool isSpace(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

void appendUtf8(std::string& out, std::uint32_t code) {
    if (code < 0x80) {
        out += static_cast<char>(code);
    } else if (code < 0x800) {
        out += static_cast<char>(0xc0 | (code >> 6));
        out += static_cast<char>(0x80 | (code & 0x3f));
    } else if (code < 0x10000) {
        out += static_cast<char>(0xe0 | (code >> 12));
        out += static_cast<char>(0x80 | ((code >> 6) & 0x3f));
        out += static_cast<char>(0x80 | (code & 0x3f));
    } else {
        out += static_cast<char>(0xf0 | (code >> 18));
        out += static_cast<char>(0x80 | ((code >> 12) & 0x3f));
        out += static_cast<char>(0x80 | ((code >> 6) & 0x3f));
        out += static_cast<char>(0x80 | (code & 0x3f));
    }
}

// The code point that "&#" digits ";" stands for, in the given base.
std::optional<std::uint32_t> characterReference(std::string_view digits, int base) {
    if (digits.empty()) return std::nullopt;
    std::uint32_t value = 0;
    for (const char c : digits) {
        const int digit = hexValue(c);
        if (digit < 0 || digit >= base) return std::nullopt;
        value = value * static_cast<std::uint32_t>(base) + static_cast<std::uint32_t>(digit);
        if (value > 0x10ffff) return std::nullopt;
    }
    return value;
}

// The five predefined entities and character references; an unknown entity
// is kept as written.
std::string decodeEntities(std::string_view text) {
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const std::size_t semicolon = text[i] == '&' ? text.find(';', i) : std::string_view::npos;
        if (semicolon == std::string_view::npos) {
            out += text[i];
            continue;
        }
        const std::string_view entity = text.substr(i + 1, semicolon - i - 1);
        static const std::map<std::string_view, char> named = {
            {"amp", '&'}, {"lt", '<'}, {"gt", '>'}, {"quot", '"'}, {"apos", '\''}};
        std::optional<std::uint32_t> code;
        if (const auto found = named.find(entity); found != named.end()) {
            code = static_cast<unsigned char>(found->second);
        } else if (entity.compare(0, 2, "#x") == 0) {
            code = characterReference(entity.substr(2), 16);
        } else if (entity.compare(0, 1, "#") == 0) {
            code = characterReference(entity.substr(1), 10);
        }
        if (!code) {
            out += text[i];
            continue;
        }
        appendUtf8(out, *code);
        i = semicolon;
    }
    return out;
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

// The attributes of the tag that starts at text[position] (just after its
// name), up to its closing ">".
std::map<std::string, std::string> readAttributes(std::string_view text, std::size_t& position) {
    std::map<std::string, std::string> attributes;
    while (position < text.size()) {
        while (position < text.size() && isSpace(text[position])) ++position;
        if (position >= text.size() || text[position] == '>' || text[position] == '/') break;
        const std::size_t nameStart = position;
        while (position < text.size() && text[position] != '=' && !isSpace(text[position]) && text[position] != '>')
            ++position;
        const std::string name(text.substr(nameStart, position - nameStart));
        while (position < text.size() && isSpace(text[position])) ++position;
        if (position >= text.size() || text[position] != '=') break;
        ++position;
        while (position < text.size() && isSpace(text[position])) ++position;
        if (position >= text.size() || (text[position] != '"' && text[position] != '\'')) break;
        const char quote = text[position++];
        const std::size_t valueEnd = text.find(quote, position);
        if (valueEnd == std::string_view::npos) break;
        attributes[name] = decodeEntities(text.substr(position, valueEnd - position));
        position = valueEnd + 1;
    }
    return attributes;
}

}  // namespace

ContentTypes ContentTypes::parse(std::string_view xml) {
    ContentTypes types;
    std::size_t position = 0;
    while ((position = xml.find('<', position)) != std::string_view::npos) {
        ++position;
        if (xml.compare(position, 3, "!--") == 0) {
            position = xml.find("-->", position);
            if (position == std::string_view::npos) break;
            continue;
        }
        const std::size_t nameStart = position;
        while (position < xml.size() && !isSpace(xml[position]) && xml[position] != '>' && xml[position] != '/')
            ++position;
        std::string_view name = xml.substr(nameStart, position - nameStart);
        if (const std::size_t colon = name.find(':'); colon != std::string_view::npos) name.remove_prefix(colon + 1);
        if (name != "Default" && name != "Override") continue;
        const auto attributes = readAttributes(xml, position);
        const auto type = attributes.find("ContentType");
        if (type == attributes.end()) continue;
        if (name == "Default") {
            if (const auto extension = attributes.find("Extension"); extension != attributes.end()) {
                types.defaults.emplace(foldCase(extension->second), type->second);
            }
        } else if (const auto part = attributes.find("PartName"); part != attributes.end()) {
            types.overrides.emplace(partKey(part->second), type->second);
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
