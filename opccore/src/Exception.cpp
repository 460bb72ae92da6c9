#include <opccore/Exception.h>

namespace opc {

Exception::Exception(const std::string& message, boost::system::error_code code)
    : std::runtime_error(message), errorCode(code) {}

const boost::system::error_code& Exception::code() const { return errorCode; }

}  // namespace opc
