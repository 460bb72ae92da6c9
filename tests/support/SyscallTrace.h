#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace opc::test {

// One call of a file-system primitive, with the paths it named (a descriptor
// is spelled as the path it is open on).
struct SyscallEvent {
    std::string call;
    std::string path;
    std::string second;  // rename's destination, else empty
};

// Linked in, this replaces the C library's calls that change a folder (see the
// .cpp): it records them on request and can stop the process at the n-th.
class SyscallTrace {
public:
    static void startRecording();
    static std::vector<SyscallEvent> stopRecording();
    // From now on, the n-th call (from 1) raises SIGKILL before it is made; 0 disarms.
    static void killAt(std::size_t n);
};

}  // namespace opc::test
