#include "PartNames.h"

#include "Errors.h"

#include <opccore/NameCodec.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

namespace opcdir {

std::u16string toUtf16(std::string_view utf8) { return opc::NameCodec::decode(utf8); }

std::string toUtf8(std::u16string_view utf16) { return opc::NameCodec::encode(utf16); }

namespace {

constexpr std::string_view kTrash = "[trash]";

std::string tooLong(std::size_t size, std::size_t limit, const char* what) {
    return std::strerror(ENAMETOOLONG) + std::string(": ") + what + std::to_string(size) + " bytes (at most " +
           std::to_string(limit) + ")";
}

}  // namespace

std::string contentTypesPartName() { return "/" + std::string(kContentTypesName); }

std::string unsafeNameReason(std::string_view relative) {
    if (relative.empty()) return "empty name";
    if (relative.front() == '/') return "absolute name";
    if (relative.find('\\') != std::string_view::npos) return "backslash in name";
    if (relative.find('\0') != std::string_view::npos) return "NUL byte in name";
    if (relative.back() == '/') return "name ends with '/'";
    // The package folder keeps every name beginning with "[trash]" out of the
    // package: a part there would be written and then never seen again.
    if (relative.compare(0, kTrash.size(), kTrash) == 0) return "reserved name '[trash]'";
    if (relative.size() >= PATH_MAX) return tooLong(relative.size(), PATH_MAX - 1, "");
    std::size_t start = 0;
    for (;;) {
        const std::size_t end = relative.find('/', start);
        const std::string_view segment = relative.substr(start, end - start);
        if (segment.empty()) return "empty segment in name";
        if (segment == "." || segment == "..") return "'" + std::string(segment) + "' segment in name";
        if (segment.size() > NAME_MAX) return tooLong(segment.size(), NAME_MAX, "a segment of ");
        if (end == std::string_view::npos) return {};
        start = end + 1;
    }
}

std::string partNameArgument(const std::string& subject, const std::string& argument) {
    const std::string relative = !argument.empty() && argument.front() == '/' ? argument.substr(1) : argument;
    if (const std::string reason = unsafeNameReason(relative); !reason.empty()) {
        throw Failure(subject, "invalid part name " + quoteName(argument) + ": " + reason);
    }
    return "/" + relative;
}

std::string foldCase(std::string_view text) {
    std::string folded(text);
    for (char& c : folded) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    return folded;
}

int hexDigitValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

std::string equivalenceKey(std::string_view partName) {
    std::string decoded;
    for (std::size_t i = 0; i < partName.size(); ++i) {
        if (partName[i] == '%' && i + 2 < partName.size() && hexDigitValue(partName[i + 1]) >= 0 &&
            hexDigitValue(partName[i + 2]) >= 0) {
            decoded += static_cast<char>(hexDigitValue(partName[i + 1]) * 16 + hexDigitValue(partName[i + 2]));
            i += 2;
        } else {
            decoded += partName[i];
        }
    }
    return foldCase(decoded);
}

std::string escapeControls(std::string_view text) {
    std::string result;
    result.reserve(text.size());
    const auto escape = [&](unsigned char byte) {
        char escaped[5];
        std::snprintf(escaped, sizeof escaped, "\\x%02x", byte);
        result += escaped;
    };
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        if (byte < 0x20 || byte == 0x7f) {
            escape(byte);
        } else if (byte == '\\') {
            result += "\\\\";
        } else if (byte < 0x80) {
            result += text[i];
        } else {
            // A byte outside well-formed UTF-8 is escaped alone: some
            // terminals take a raw 0x9b for CSI.
            const std::size_t length = byte >= 0xf0 ? 4 : byte >= 0xe0 ? 3 : byte >= 0xc0 ? 2 : 1;
            const std::string_view sequence = text.substr(i, length);
            const bool c1 = byte == 0xc2 && sequence.size() == 2 && static_cast<unsigned char>(sequence[1]) <= 0x9f;
            if (length == 1 || sequence.size() < length || !opc::NameCodec::isUtf8(sequence)) {
                escape(byte);
            } else if (c1) {
                escape(byte);
                escape(static_cast<unsigned char>(sequence[1]));
                ++i;
            } else {
                result.append(sequence);
                i += length - 1;
            }
        }
    }
    return result;
}

std::string quoteName(std::string_view name) { return "'" + escapeControls(name) + "'"; }

namespace {

char fold(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

std::uint64_t hashOf(std::uint32_t parent, std::string_view segment) {
    std::uint64_t hash = 0xcbf29ce484222325u ^ parent;  // FNV-1a over the folded bytes
    for (const char c : segment) hash = (hash ^ static_cast<unsigned char>(fold(c))) * 0x100000001b3u;
    return hash;
}

bool sameFolded(std::string_view a, std::string_view b) {
    return a.size() == b.size() &&
           std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) { return fold(x) == fold(y); });
}

// Calls visit(offset, length, last) for each segment of name, without a
// leading "/" or a folder's trailing "/".
template <class Visit>
bool forEachSegment(std::string_view name, Visit&& visit) {
    std::size_t start = !name.empty() && name.front() == '/' ? 1 : 0;
    const std::size_t end = std::max(start, !name.empty() && name.back() == '/' ? name.size() - 1 : name.size());
    for (;;) {
        const std::size_t slash = name.find('/', start);
        const bool last = slash == std::string_view::npos || slash >= end;
        if (!visit(start, (last ? end : slash) - start, last)) return false;
        if (last) return true;
        start = slash + 1;
    }
}

}  // namespace

std::string_view NameTree::segmentOf(const Node& node) const {
    return std::string_view(names[node.name]).substr(node.offset, node.length);
}

std::uint32_t NameTree::find(std::uint32_t parent, std::string_view segment) const {
    if (slots.empty()) return kNone;
    const std::size_t mask = slots.size() - 1;
    for (std::size_t slot = hashOf(parent, segment) & mask;; slot = (slot + 1) & mask) {
        const std::uint32_t entry = slots[slot];
        if (entry == 0) return kNone;
        const Node& node = nodes[entry - 1];
        if (node.parent == parent && sameFolded(segmentOf(node), segment)) return entry - 1;
    }
}

// Slots are kept at most half full, so a search ends after a few probes.
void NameTree::insert(const Node& node) {
    nodes.push_back(node);
    if (nodes.size() * 2 > slots.size()) {
        slots.assign(std::max<std::size_t>(16, slots.size() * 2), 0);
        for (std::uint32_t i = 0; i + 1 < nodes.size(); ++i) {
            std::size_t slot = hashOf(nodes[i].parent, segmentOf(nodes[i])) & (slots.size() - 1);
            while (slots[slot] != 0) slot = (slot + 1) & (slots.size() - 1);
            slots[slot] = i + 1;
        }
    }
    const std::size_t mask = slots.size() - 1;
    std::size_t slot = hashOf(node.parent, segmentOf(node)) & mask;
    while (slots[slot] != 0) slot = (slot + 1) & mask;
    slots[slot] = static_cast<std::uint32_t>(nodes.size());
}

NameTree::Result NameTree::check(const std::string& name) const {
    const bool isFolder = !name.empty() && name.back() == '/';
    Result result;
    std::uint32_t parent = kNone;
    forEachSegment(name, [&](std::size_t offset, std::size_t length, bool last) {
        const std::uint32_t found = find(parent, std::string_view(name).substr(offset, length));
        if (found == kNone) return false;  // nothing below a new folder can clash
        const Node& node = nodes[found];
        const std::string& other = names[node.name];
        if (!last) {
            if (node.isFile) result = {Clash::InFile, other};
        } else if (node.isFile) {
            result = {isFolder ? Clash::InFile : Clash::Duplicate, other};
        } else if (!isFolder) {
            result = {Clash::IsFolder, other};
        }
        parent = found;
        return result.clash == Clash::None;
    });
    return result;
}

NameTree::Result NameTree::add(const std::string& name) {
    Result result = check(name);
    if (result.clash != Clash::None) return result;
    const bool isFolder = !name.empty() && name.back() == '/';
    const auto index = static_cast<std::uint32_t>(names.size());
    names.push_back(name);
    std::uint32_t parent = kNone;
    forEachSegment(name, [&](std::size_t offset, std::size_t length, bool last) {
        const std::uint32_t found = find(parent, std::string_view(name).substr(offset, length));
        if (found != kNone) {
            parent = found;
            return true;
        }
        insert(Node{parent, index, static_cast<std::uint32_t>(offset), static_cast<std::uint32_t>(length),
                    last && !isFolder});
        parent = static_cast<std::uint32_t>(nodes.size() - 1);
        return true;
    });
    return result;
}

}  // namespace opcdir
