#include "CoreTest.h"

namespace opc::test {
namespace {

TEST(Exception, KeepsTheExactMessageAndTheCode) {
    const opc::Exception e("Could not remove the original package", systemCode(EBUSY));
    EXPECT_STREQ(e.what(), "Could not remove the original package");
    EXPECT_EQ(e.code(), systemCode(EBUSY));
}

TEST(Exception, PackageDoesNotExistComparesEqualToNoSuchFileOrDirectory) {
    const opc::Exception e("Package does not exist",
                           boost::system::errc::make_error_code(boost::system::errc::no_such_file_or_directory));
    EXPECT_TRUE(e.code() == boost::system::errc::no_such_file_or_directory);
    EXPECT_FALSE(e.code() == boost::system::errc::permission_denied);
}

TEST(Exception, EmptyCodeIsValueZeroSystemCategoryAndNoFailure) {
    const opc::Exception e("Part does not exist", emptyCode());
    EXPECT_EQ(e.code().value(), 0);
    EXPECT_EQ(e.code().category(), boost::system::system_category());
    EXPECT_FALSE(e.code());
}

}  // namespace
}  // namespace opc::test
