#pragma once

#include <opccore/Export.h>

#include <boost/system/error_code.hpp>

#include <stdexcept>
#include <string>

namespace opc {

// The one exception type of the OPC libraries. what() is exactly the message
// given to the constructor; the code tells where the failure came from:
// - the empty code (value 0, system category): a failure the package found
//   itself;
// - errc::no_such_file_or_directory (generic category): "Package does not exist";
// - errc::timed_out (generic category): a package lock not granted in time;
// - any other code: a failed file-system operation, passed on unchanged.
class OPCCORE_EXPORT Exception : public std::runtime_error {
public:
    Exception(const std::string& message, boost::system::error_code code);

    const boost::system::error_code& code() const;

private:
    boost::system::error_code errorCode;
};

}  // namespace opc
