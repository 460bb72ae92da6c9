#pragma once

#include <opccore/interfaces/IPhysicalPartInfo.h>
#include <opcfspackage/Export.h>

#include <cstdint>

namespace opc::fspackage {

// The part information of this library: none. Every query answers 0.
class OPCFSPACKAGE_EXPORT FileSystemPartInfo : public opc::interfaces::IPhysicalPartInfo {
public:
    FileSystemPartInfo() = default;

    std::uint32_t getInfoValue1() override;
    std::uint32_t getInfoValue2() override;
    std::uint32_t getInfoValue3() override;

    ~FileSystemPartInfo() override;
};

}  // namespace opc::fspackage
