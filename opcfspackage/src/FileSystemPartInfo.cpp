#include <opcfspackage/FileSystemPartInfo.h>

namespace opc::fspackage {

std::uint32_t FileSystemPartInfo::getInfoValue1() { return 0; }

std::uint32_t FileSystemPartInfo::getInfoValue2() { return 0; }

std::uint32_t FileSystemPartInfo::getInfoValue3() { return 0; }

FileSystemPartInfo::~FileSystemPartInfo() = default;

}  // namespace opc::fspackage
