// A client of the installed (or embedded) libraries: creates a package in the
// folder given on the command line, writes a part, commits, and checks every
// file on disk byte for byte. Exits 0 only when everything is as expected.
// What the libraries do beyond that is for the unit tests to show.
#include <opccore/Exception.h>
#include <opccore/NameCodec.h>
#include <opccore/interfaces/IPhysicalOutputStream.h>
#include <opccore/interfaces/IPhysicalPart.h>
#include <opccore/interfaces/OpenMode.h>
#include <opcfspackage/FileSystemPartInfo.h>
#include <opcfspackage/FileSystemPhysicalPackage.h>

#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <string>

namespace fs = std::filesystem;

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: consumer EMPTY-FOLDER\n";
        return 2;
    }
    const fs::path root = argv[1];
    const std::string types = "<Types xmlns=\"http://schemas.openxmlformats.org/package/2006/content-types\"/>";
    const std::string document = "<document>first</document>";
    const auto write = [](opc::interfaces::IPhysicalOutputStream* out, const std::string& bytes) {
        return out->write(bytes.data(), static_cast<std::streamsize>(bytes.size())) ==
                   static_cast<std::streamsize>(bytes.size()) &&
               !out->isFailed();
    };
    try {
        opc::fspackage::FileSystemPhysicalPackage package(opc::NameCodec::decode((root / "pkg").string()));
        package.open(opc::interfaces::Create);
        const bool written =
            write(package.getContentTypeOutputStream(), types) &&
            write(package.createPart(u"/word/document.xml", u"application/xml", opc::fspackage::FileSystemPartInfo())
                      ->getOutputStream(),
                  document);
        package.close(false);
        if (!written) {
            std::cerr << "consumer: FAILED: a write failed\n";
            return 1;
        }
    } catch (const opc::Exception& e) {
        std::cerr << "consumer: FAILED: opc::Exception: " << e.what() << '\n';
        return 1;
    }
    // Relative path -> bytes; a folder -> "/".
    std::map<std::string, std::string> tree;
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
        std::ifstream file(entry.path(), std::ios::binary);
        tree[entry.path().lexically_relative(root).generic_string()] =
            entry.is_directory() ? "/" : std::string(std::istreambuf_iterator<char>(file), {});
    }
    if (tree !=
        std::map<std::string, std::string>{
            {"pkg", "/"}, {"pkg/[Content_Types].xml", types}, {"pkg/word", "/"}, {"pkg/word/document.xml", document}}) {
        std::cerr << "consumer: FAILED: the committed folder holds\n";
        for (const auto& [name, bytes] : tree) std::cerr << "  " << name << " [" << bytes << "]\n";
        return 1;
    }
    std::cout << "consumer: package written, committed and checked\n";
    return 0;
}
