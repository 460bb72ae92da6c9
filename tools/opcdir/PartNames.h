#pragma once

#include <string>
#include <string_view>

namespace opcdir {

// Part names and ZIP entry names are UTF-8 bytes here; the library speaks
// UTF-16. Bytes that are not UTF-8 survive the round trip unchanged.
std::u16string toUtf16(std::string_view utf8);
std::string toUtf8(std::u16string_view utf16);

// The file name of the content-types part, also its ZIP entry name.
inline constexpr std::string_view kContentTypesName = "[Content_Types].xml";

// Why a package-relative path (a ZIP entry name, or a part name without its
// leading "/") cannot name a part file, or empty when it can. Refused:
// absolute names, backslashes, NUL, empty, "." and ".." segments, a trailing
// "/", and the reserved "[trash]" folder.
std::string unsafeNameReason(std::string_view relative);

// A part name typed by a user, with or without its leading "/", checked as
// above. Throws Failure(subject, ...) when it cannot be a part name.
std::string partNameArgument(const std::string& subject, const std::string& argument);

// ASCII letters lowered: part names compare without regard to ASCII case.
std::string foldCase(std::string_view text);

// The name quoted for a message, with control bytes escaped so that an error
// stays on one line.
std::string quoteName(std::string_view name);

}  // namespace opcdir
