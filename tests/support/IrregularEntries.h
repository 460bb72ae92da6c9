#pragma once

#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

namespace opc::test {

// An entry that is no regular file, as a folder from someone else may hold.
struct IrregularEntry {
    std::string name;
    int openError;  // what opening it to read reports
};

// Makes in folder, beside whatever it holds: links to the file outside/secret
// and to /dev/zero, a dangling link, a link to the folder outside, a FIFO, a
// socket and, where the process may make one, a character device. outside is
// made with "secret" and "inner/file.xml" in it. Returns the entries made,
// the linked folder excepted.
std::vector<IrregularEntry> makeIrregularEntries(const std::filesystem::path& folder,
                                                 const std::filesystem::path& outside);

// While it lives, a call that blocks (on a FIFO without writer, say) ends the
// test program within seconds instead of at the CTest time-out.
struct NoHang {
    NoHang() { ::alarm(20); }
    NoHang(const NoHang&) = delete;
    NoHang& operator=(const NoHang&) = delete;
    ~NoHang() { ::alarm(0); }
};

}  // namespace opc::test
