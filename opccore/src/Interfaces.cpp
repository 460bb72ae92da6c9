// The interfaces' destructors are their key functions: defining them here puts
// each vtable and type_info in this library alone, so that dynamic_cast and
// catch work the same on both sides of a shared-library boundary.
#include <opccore/interfaces/IPhysicalInputStream.h>
#include <opccore/interfaces/IPhysicalOutputStream.h>
#include <opccore/interfaces/IPhysicalPackage.h>
#include <opccore/interfaces/IPhysicalPart.h>
#include <opccore/interfaces/IPhysicalPartInfo.h>

namespace opc::interfaces {

IPhysicalPackage::~IPhysicalPackage() = default;
IPhysicalPart::~IPhysicalPart() = default;
IPhysicalPartInfo::~IPhysicalPartInfo() = default;
IPhysicalInputStream::~IPhysicalInputStream() = default;
IPhysicalOutputStream::~IPhysicalOutputStream() = default;

}  // namespace opc::interfaces
