#pragma once

#include "support/TempDir.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

namespace opc::test {

// An entry that is no regular file, as a folder from someone else may hold.
struct IrregularEntry {
    std::string name;
    int openError;  // what opening it to read reports
};

// Makes in folder links to outside/secret, /dev/zero, nothing and the folder
// outside (made with "secret" and "inner/file.xml"), a FIFO, a socket and,
// where allowed, a device. Returns the entries made but the linked folder.
inline std::vector<IrregularEntry> makeIrregularEntries(const std::filesystem::path& folder,
                                                        const std::filesystem::path& outside) {
    namespace fs = std::filesystem;
    writeFile(outside / "secret", "outside secret");
    writeFile(outside / "inner" / "file.xml", "outside inner");
    fs::create_directories(folder);
    fs::create_symlink(outside / "secret", folder / "out.xml");
    fs::create_symlink("/dev/zero", folder / "zero.xml");
    fs::create_symlink("missing.xml", folder / "dangling.xml");
    fs::create_directory_symlink(outside, folder / "linked");
    if (::mkfifo((folder / "fifo.xml").c_str(), 0644) != 0) throw std::runtime_error("mkfifo failed");
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string socketPath = folder / "socket.xml";
    if (socketPath.size() >= sizeof address.sun_path) throw std::runtime_error("socket path too long");
    std::strcpy(address.sun_path, socketPath.c_str());
    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    const bool bound = fd >= 0 && ::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    if (fd >= 0) ::close(fd);  // the socket file stays
    if (!bound) throw std::runtime_error("cannot make socket " + socketPath);
    std::vector<IrregularEntry> made = {
        {"out.xml", ELOOP}, {"zero.xml", ELOOP}, {"dangling.xml", ELOOP}, {"fifo.xml", ENXIO}, {"socket.xml", ENXIO}};
    if (::mknod((folder / "null.xml").c_str(), S_IFCHR | 0644, makedev(1, 3)) == 0) made.push_back({"null.xml", ENXIO});
    return made;
}

// While it lives, a call that blocks (on a FIFO without writer, say) ends the
// test program within seconds instead of at the CTest time-out.
struct NoHang {
    NoHang() { ::alarm(20); }
    NoHang(const NoHang&) = delete;
    NoHang& operator=(const NoHang&) = delete;
    ~NoHang() { ::alarm(0); }
};

}  // namespace opc::test
