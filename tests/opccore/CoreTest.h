#pragma once

#include <opccore/Exception.h>
#include <opccore/LocalFileSystemOps.h>

#include "support/OpcAssertions.h"
#include "support/TempDir.h"
#include "support/TreeSnapshot.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <vector>

namespace opc::test {

namespace fs = std::filesystem;
using opc::ExistsMode;
using opc::LockMode;
using Ops = opc::LocalFileSystemOps;
using Strings = std::vector<std::string>;

inline const auto kIn = std::ios_base::in | std::ios_base::binary;
inline const auto kOut = std::ios_base::out | std::ios_base::binary;

// A fresh folder and a service working on it.
struct Fixture : ::testing::Test {
    TempDir dir;
    Ops ops;
};

// The throwing forms' message: "Cannot <operation> "<path>"[ to "<second>"]".
inline std::string message(const std::string& operation, const std::u16string& path, const std::u16string& to = {}) {
    return "Cannot " + operation + " \"" + toUtf8(path) + "\"" + (to.empty() ? "" : " to \"" + toUtf8(to) + "\"");
}

}  // namespace opc::test
