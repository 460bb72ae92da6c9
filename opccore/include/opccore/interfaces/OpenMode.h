#pragma once

#include <cstdint>

namespace opc::interfaces {

// How a physical package is opened. Unscoped, so that both OpenMode::Read and
// opc::interfaces::Read spell the same value; any other 32-bit value may be
// passed with static_cast<OpenMode>(n) and only marks a package open.
enum OpenMode : std::int32_t {
    Read = 0,       // an existing package, read only
    Create = 1,     // a new package that replaces whatever is at the path on commit
    ReadWrite = 2,  // an existing package whose changes are staged and committed
};

}  // namespace opc::interfaces
