#include "PartNames.h"

#include "Errors.h"

#include <opccore/NameCodec.h>

#include <cstdio>

namespace opcdir {

std::u16string toUtf16(std::string_view utf8) { return opc::NameCodec::decode(utf8); }

std::string toUtf8(std::u16string_view utf16) { return opc::NameCodec::encode(utf16); }

std::string contentTypesPartName() { return "/" + std::string(kContentTypesName); }

std::string unsafeNameReason(std::string_view relative) {
    if (relative.empty()) return "empty name";
    if (relative.front() == '/') return "absolute name";
    if (relative.find('\\') != std::string_view::npos) return "backslash in name";
    if (relative.find('\0') != std::string_view::npos) return "NUL byte in name";
    if (relative.back() == '/') return "name ends with '/'";
    std::size_t start = 0;
    for (;;) {
        const std::size_t end = relative.find('/', start);
        const std::string_view segment = relative.substr(start, end - start);
        if (segment.empty()) return "empty segment in name";
        if (segment == "." || segment == "..") return "'" + std::string(segment) + "' segment in name";
        // The package folder keeps everything below "[trash]" out of the
        // package: a part there would be written and then never seen again.
        if (start == 0 && segment == "[trash]") return "reserved name '[trash]'";
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

std::string quoteName(std::string_view name) {
    std::string result = "'";
    for (const char c : name) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte == 0x7f) {
            char escape[5];
            std::snprintf(escape, sizeof escape, "\\x%02x", byte);
            result += escape;
        } else {
            result += c;
        }
    }
    return result + "'";
}

namespace {

struct Split {
    std::string folded;  // without a folder's trailing "/"
    bool isFolder;
};

Split split(const std::string& name) {
    const bool isFolder = !name.empty() && name.back() == '/';
    return {foldCase(isFolder ? std::string_view(name).substr(0, name.size() - 1) : std::string_view(name)), isFolder};
}

// Calls visit with each folder above the name (a leading "/" is none).
template <class Visit>
void forEachFolder(const std::string& folded, Visit&& visit) {
    for (std::size_t slash = folded.find('/', 1); slash != std::string::npos; slash = folded.find('/', slash + 1)) {
        visit(folded.substr(0, slash));
    }
}

}  // namespace

// Each folder above a name is looked up once, so a whole archive's names are
// checked in time linear in their length.
NameTree::Result NameTree::check(const std::string& name) const {
    const auto [folded, isFolder] = split(name);
    Result result;
    forEachFolder(folded, [&](const std::string& folder) {
        const auto found = nodes.find(folder);
        if (result.clash == Clash::None && found != nodes.end() && found->second.isFile)
            result = {Clash::InFile, found->second.name};
    });
    if (result.clash != Clash::None) return result;
    const auto found = nodes.find(folded);
    if (found == nodes.end()) return result;
    if (found->second.isFile) return {isFolder ? Clash::InFile : Clash::Duplicate, found->second.name};
    if (!isFolder) return {Clash::IsFolder, found->second.name};
    return result;
}

NameTree::Result NameTree::add(const std::string& name) {
    Result result = check(name);
    if (result.clash != Clash::None) return result;
    const auto [folded, isFolder] = split(name);
    forEachFolder(folded, [&](const std::string& folder) { nodes.emplace(folder, Node{false, name}); });
    nodes.emplace(folded, Node{!isFolder, name});
    return result;
}

}  // namespace opcdir
