#pragma once

#include <opccore/LocalFileSystemOps.h>

#include <string>
#include <string_view>

namespace opc::test {

// Test text is written in UTF-8; the library speaks UTF-16.
inline std::u16string fromUtf8(std::string_view text) { return opc::LocalFileSystemOps::fromNativePath(text); }
inline std::string toUtf8(std::u16string_view text) { return opc::LocalFileSystemOps::toNativePath(text); }

}  // namespace opc::test
