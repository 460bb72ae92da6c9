// A client of the installed (or embedded) libraries: creates a package in the
// folder given on the command line, commits it, reopens it to change one part
// and delete another, then checks every file on disk byte for byte.
// Exits 0 only when everything is as expected.
#include <opccore/Exception.h>
#include <opccore/NameCodec.h>
#include <opccore/interfaces/IPhysicalInputStream.h>
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
using opc::fspackage::FileSystemPartInfo;
using opc::fspackage::FileSystemPhysicalPackage;
using Tree = std::map<std::string, std::string>;  // relative path -> bytes; folders end in "/"

namespace {

const std::string kTypes =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>"
    "<Types xmlns=\"http://schemas.openxmlformats.org/package/2006/content-types\"/>";

int failures = 0;

void expect(bool ok, const std::string& what) {
    if (!ok) std::cerr << "consumer: FAILED: " << what << '\n';
    failures += ok ? 0 : 1;
}

void write(opc::interfaces::IPhysicalOutputStream* out, const std::string& bytes) {
    const auto size = static_cast<std::streamsize>(bytes.size());
    expect(out->write(bytes.data(), size) == size && !out->isFailed(), "write of " + std::to_string(size) + " bytes");
}

void writePart(FileSystemPhysicalPackage& package, const std::u16string& name, const std::string& bytes) {
    write(package.createPart(name, u"application/xml", FileSystemPartInfo())->getOutputStream(), bytes);
}

std::string read(opc::interfaces::IPhysicalInputStream* in) {
    std::string bytes;
    char buffer[4096];
    for (std::streamsize got; (got = in->read(buffer, sizeof buffer)) > 0;)
        bytes.append(buffer, static_cast<std::size_t>(got));
    return bytes;
}

void expectTree(const fs::path& root, const Tree& expected, const std::string& when) {
    Tree actual;
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
        const std::string name = entry.path().lexically_relative(root).generic_string();
        if (entry.is_directory()) {
            actual[name + "/"] = "";
            continue;
        }
        std::ifstream file(entry.path(), std::ios::binary);
        actual[name] = std::string(std::istreambuf_iterator<char>(file), {});
    }
    std::string listing;
    for (const auto& [name, bytes] : actual) listing += "  " + name + " [" + bytes + "]\n";
    expect(actual == expected, "tree " + when + ":\n" + listing);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: consumer EMPTY-FOLDER\n";
        return 2;
    }
    const fs::path root = argv[1];
    const std::u16string packagePath = opc::NameCodec::decode((root / "pkg").string());
    try {
        {
            FileSystemPhysicalPackage package(packagePath);
            package.open(opc::interfaces::Create);
            write(package.getContentTypeOutputStream(), kTypes);
            writePart(package, u"/word/document.xml", "<document>first</document>");
            writePart(package, u"/docProps/app.xml", "<app/>");
            package.close(false);
        }
        expectTree(root,
                   {{"pkg/", ""},
                    {"pkg/[Content_Types].xml", kTypes},
                    {"pkg/docProps/", ""},
                    {"pkg/docProps/app.xml", "<app/>"},
                    {"pkg/word/", ""},
                    {"pkg/word/document.xml", "<document>first</document>"}},
                   "after the first commit");
        {
            FileSystemPhysicalPackage package(packagePath);
            package.open(opc::interfaces::ReadWrite);
            std::map<std::u16string, std::string> contents;
            for (opc::interfaces::IPhysicalPart* part : package.getParts())
                contents[part->getName()] = read(part->getInputStream());
            expect(contents ==
                       std::map<std::u16string, std::string>{{u"/docProps/app.xml", "<app/>"},
                                                             {u"/word/document.xml", "<document>first</document>"}},
                   "parts read back after reopening");
            package.deletePart(u"/docProps/app.xml");
            writePart(package, u"/word/document.xml", "<document>second</document>");
            package.close(false);
        }
        expectTree(root,
                   {{"pkg/", ""},
                    {"pkg/[Content_Types].xml", kTypes},
                    {"pkg/word/", ""},
                    {"pkg/word/document.xml", "<document>second</document>"}},
                   "after the second commit");
    } catch (const opc::Exception& e) {
        std::cerr << "consumer: FAILED: opc::Exception: " << e.what() << '\n';
        return 1;
    }
    if (failures != 0) return 1;
    std::cout << "consumer: package written, committed and checked\n";
    return 0;
}
