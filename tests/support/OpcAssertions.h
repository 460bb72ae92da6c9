#pragma once

#include <opccore/Exception.h>

#include <gtest/gtest.h>
#include <boost/system/error_code.hpp>

#include <exception>
#include <string>

namespace opc::test {

// Whether statement throws opc::Exception with exactly this what() and this
// code (value and category).
template <class Statement>
::testing::AssertionResult throwsOpcException(Statement&& statement,
                                              const std::string& message,
                                              const boost::system::error_code& code) {
    try {
        statement();
    } catch (const opc::Exception& e) {
        if (e.what() != message || e.code() != code) {
            return ::testing::AssertionFailure()
                   << "threw opc::Exception(\"" << e.what() << "\", " << e.code().category().name() << ":"
                   << e.code().value() << ")\n  expected (\"" << message << "\", " << code.category().name() << ":"
                   << code.value() << ")";
        }
        return ::testing::AssertionSuccess();
    } catch (const std::exception& e) {
        return ::testing::AssertionFailure() << "threw another exception: " << e.what();
    }
    return ::testing::AssertionFailure() << "threw nothing; expected \"" << message << "\"";
}

// The what() of the E that statement throws, or "nothing thrown".
template <class E = std::exception, class Statement>
std::string thrownWhat(Statement&& statement) {
    try {
        statement();
    } catch (const E& e) {
        return e.what();
    }
    return "nothing thrown";
}

// The empty code: what every failure the package finds itself carries.
inline boost::system::error_code emptyCode() { return {}; }

inline boost::system::error_code systemCode(int value) {
    return boost::system::error_code(value, boost::system::system_category());
}

}  // namespace opc::test

#define EXPECT_OPC_EXCEPTION(statement, message, code) \
    EXPECT_TRUE(::opc::test::throwsOpcException([&] { statement; }, (message), (code)))
