#include <opccore/Exception.h>

#include <utility>

namespace opc {

Exception::Exception(const std::string& message, boost::system::error_code code)
    : std::runtime_error(message), errorCode(std::move(code)) {}

const boost::system::error_code& Exception::code() const { return errorCode; }

}  // namespace opc
