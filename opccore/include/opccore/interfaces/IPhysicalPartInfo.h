#pragma once

#include <opccore/Export.h>

#include <cstdint>

namespace opc::interfaces {

// Information a higher layer passes along with a new part. The physical layer
// only borrows it for the call of createPart.
class OPCCORE_EXPORT IPhysicalPartInfo {
public:
    IPhysicalPartInfo(const IPhysicalPartInfo&) = delete;
    IPhysicalPartInfo& operator=(const IPhysicalPartInfo&) = delete;

    virtual std::uint32_t getInfoValue1() = 0;
    virtual std::uint32_t getInfoValue2() = 0;
    virtual std::uint32_t getInfoValue3() = 0;

    virtual ~IPhysicalPartInfo();

protected:
    IPhysicalPartInfo() = default;
};

}  // namespace opc::interfaces
