#pragma once

#include <sys/stat.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <ostream>

namespace opc::test {

// What a commit must keep of an entry: permission bits, owner and group.
struct Attributes {
    mode_t mode;
    uid_t owner;
    gid_t group;
    bool operator==(const Attributes& other) const {
        return mode == other.mode && owner == other.owner && group == other.group;
    }
};

inline std::ostream& operator<<(std::ostream& out, const Attributes& a) {
    return out << std::oct << a.mode << std::dec << " " << a.owner << ":" << a.group;
}

// The entry's own attributes (a link's, not its target's).
inline Attributes attributesOf(const std::filesystem::path& path) {
    struct stat info {};
    EXPECT_EQ(::lstat(path.c_str(), &info), 0) << path;
    return {info.st_mode & 07777, info.st_uid, info.st_gid};
}

}  // namespace opc::test
