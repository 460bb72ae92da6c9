#include <opccore/Exception.h>

#include "support/OpcAssertions.h"

#include <boost/system/error_code.hpp>
#include <gtest/gtest.h>

#include <cerrno>
#include <stdexcept>
#include <string>

namespace {

using opc::test::emptyCode;
using opc::test::systemCode;

TEST(Exception, WhatIsExactlyTheMessageWithoutTheCode) {
    const opc::Exception e("Could not copy original part to destination package: No such file or directory",
                           systemCode(ENOENT));
    EXPECT_STREQ(e.what(), "Could not copy original part to destination package: No such file or directory");
    const opc::Exception plain("Part does not exist", systemCode(EIO));
    EXPECT_STREQ(plain.what(), "Part does not exist");
}

TEST(Exception, KeepsValueAndCategoryOfTheCode) {
    const opc::Exception system("x", systemCode(EACCES));
    EXPECT_EQ(system.code().value(), EACCES);
    EXPECT_EQ(system.code().category(), boost::system::system_category());

    const opc::Exception generic("y", boost::system::error_code(EACCES, boost::system::generic_category()));
    EXPECT_EQ(generic.code().value(), EACCES);
    EXPECT_EQ(generic.code().category(), boost::system::generic_category());
}

TEST(Exception, PackageDoesNotExistComparesEqualToNoSuchFileOrDirectory) {
    const opc::Exception e("Package does not exist",
                           boost::system::errc::make_error_code(boost::system::errc::no_such_file_or_directory));
    EXPECT_STREQ(e.what(), "Package does not exist");
    EXPECT_EQ(e.code().value(), 2);
    EXPECT_EQ(e.code().category(), boost::system::generic_category());
    EXPECT_TRUE(e.code() == boost::system::errc::no_such_file_or_directory);
    EXPECT_FALSE(e.code() == boost::system::errc::permission_denied);
}

TEST(Exception, EmptyCodeIsValueZeroSystemCategoryAndNoFailure) {
    const opc::Exception e("Part does not exist", emptyCode());
    EXPECT_EQ(e.code().value(), 0);
    EXPECT_EQ(e.code().category(), boost::system::system_category());
    EXPECT_FALSE(e.code());
    EXPECT_STREQ(e.what(), "Part does not exist");
}

TEST(Exception, IsCaughtAsRuntimeErrorWithTheSameMessage) {
    try {
        throw opc::Exception("Content types stream does not exist", emptyCode());
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "Content types stream does not exist");
        const auto* opcException = dynamic_cast<const opc::Exception*>(&e);
        ASSERT_NE(opcException, nullptr);
        EXPECT_FALSE(opcException->code());
        return;
    }
    ADD_FAILURE() << "nothing was caught";
}

TEST(Exception, CopyKeepsMessageAndCode) {
    const opc::Exception original("Could not remove the original package", systemCode(EBUSY));
    const opc::Exception copy = original;  // NOLINT(performance-unnecessary-copy-initialization)
    EXPECT_STREQ(copy.what(), "Could not remove the original package");
    EXPECT_EQ(copy.code(), systemCode(EBUSY));
}

TEST(Exception, AssertionHelperComparesMessageAndCodeExactly) {
    const auto throwIt = [] { throw opc::Exception("Part does not exist", systemCode(ENOENT)); };
    EXPECT_TRUE(opc::test::throwsOpcException(throwIt, "Part does not exist", systemCode(ENOENT)));
    EXPECT_FALSE(opc::test::throwsOpcException(throwIt, "Part does not exist", emptyCode()));
    EXPECT_FALSE(opc::test::throwsOpcException(throwIt, "Part does not exis", systemCode(ENOENT)));
    EXPECT_FALSE(opc::test::throwsOpcException(
        throwIt, "Part does not exist", boost::system::error_code(ENOENT, boost::system::generic_category())));
    EXPECT_FALSE(opc::test::throwsOpcException([] {}, "Part does not exist", emptyCode()));
    EXPECT_FALSE(opc::test::throwsOpcException([] { throw std::runtime_error("Part does not exist"); },
                                               "Part does not exist", emptyCode()));
}

}  // namespace
