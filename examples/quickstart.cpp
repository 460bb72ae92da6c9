// Opens a folder package, reads a part, writes a part and commits.
// Usage: quickstart PACKAGE-FOLDER
#include <opccore/Exception.h>
#include <opccore/NameCodec.h>
#include <opcfspackage/FileSystemPartInfo.h>
#include <opcfspackage/FileSystemPhysicalPackage.h>

#include <iostream>
#include <string>

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: quickstart PACKAGE-FOLDER\n";
        return 2;
    }
    const std::u16string path = opc::NameCodec::decode(argv[1]);
    try {
        opc::fspackage::FileSystemPhysicalPackage package(path);
        package.open(opc::interfaces::ReadWrite);

        // Read every part; reads always see the package folder as it is on disk.
        for (opc::interfaces::IPhysicalPart* part : package.getParts()) {
            opc::interfaces::IPhysicalInputStream* in = part->getInputStream();
            char buffer[64 * 1024];
            std::streamsize size = 0;
            for (std::streamsize got; (got = in->read(buffer, sizeof buffer)) > 0;) size += got;
            std::cout << opc::NameCodec::encode(part->getName()) << ' ' << size << '\n';
        }

        // Write a part: staged in a temporary folder beside the package.
        opc::interfaces::IPhysicalPart* note =
            package.createPart(u"/docProps/note.txt", u"text/plain", opc::fspackage::FileSystemPartInfo());
        const std::string text = "written by quickstart\n";
        note->getOutputStream()->write(text.data(), static_cast<std::streamsize>(text.size()));

        // Commit: the old folder is swapped for the new one as a whole.
        package.close(false);
    } catch (const opc::Exception& e) {
        std::cerr << "quickstart: " << e.what() << '\n';
        return 1;
    }
    return 0;
}
