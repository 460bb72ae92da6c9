#include "Commands.h"

#include "support/TempDir.h"
#include "support/TreeSnapshot.h"
#include "support/ZipFixture.h"

#include <opccore/LocalFileSystemOps.h>

#include <gtest/gtest.h>
#include <zip.h>

#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

namespace opcdir {
namespace {

namespace fs = std::filesystem;
using opc::test::TempDir;

std::pair<int, std::string> run(const std::vector<std::string>& arguments) {
    opc::LocalFileSystemOps fileSystem;
    std::istringstream in;
    std::ostringstream out;
    std::ostringstream err;
    Io io{in, out, err, false};
    const int status = opcdir::run(arguments, io, fileSystem);
    return {status, out.str() + err.str()};
}

// Each entry's name and whether it is deflated.
std::vector<std::string> methods(const fs::path& archive) {
    int error = 0;
    zip_t* zip = zip_open(archive.c_str(), ZIP_RDONLY, &error);
    std::vector<std::string> listed;
    for (zip_int64_t i = 0; zip != nullptr && i < zip_get_num_entries(zip, 0); ++i) {
        zip_stat_t stat;
        zip_stat_index(zip, static_cast<zip_uint64_t>(i), 0, &stat);
        listed.push_back(std::string(stat.comp_method == ZIP_CM_DEFLATE ? "deflated " : "stored ") + stat.name);
    }
    if (zip != nullptr) zip_discard(zip);
    return listed;
}

// Whether Debian's python3 with this module opens the file with it: 1 yes,
// 0 no, -1 when the module is missing.
int readsWithPython(const std::string& module, const std::string& call, const fs::path& file) {
    const std::string probe = "/usr/bin/python3 -c 'import " + module + "' 2>/dev/null";
    if (std::system(probe.c_str()) != 0) return -1;
    const std::string command = "/usr/bin/python3 -c 'import sys, " + module + "; " + call + "(sys.argv[1])' '" +
                                file.string() + "' 2>/dev/null";
    return std::system(command.c_str()) == 0 ? 1 : 0;
}

TEST(Pack, SameBytesWhateverTheJobsAndReadBackByUnpackAndRealClients) {
    struct Client {
        std::string file, module, call;
    };
    const std::vector<Client> clients = {
        {"pydocx-having-images.docx", "docx", "docx.Document"},
        {"openpyxl-libreoffice_nrt.xlsx", "openpyxl", "openpyxl.load_workbook"},
    };
    for (const Client& client : clients) {
        TempDir dir;
        const fs::path folder = dir.path() / "folder";
        // openpyxl goes by the file name's extension.
        const std::string extension = fs::path(client.file).extension().string();
        ASSERT_EQ(run({"unpack", (opc::test::testDataDir() / "corpus" / client.file).string(), folder.string()}).first,
                  0);
        for (const std::string level : {"0", "1", "6", "9"}) {
            std::string first;
            for (const std::string jobs : {"1", "2", "5"}) {
                const fs::path packed = dir.path() / ("l" + level + "j" + jobs + extension);
                ASSERT_EQ(run({"pack", "--level", level, "--jobs", jobs, folder.string(), packed.string()}),
                          std::make_pair(0, std::string()));
                const std::string bytes = opc::test::readFile(packed);
                if (first.empty()) first = bytes;
                EXPECT_EQ(bytes, first) << client.file << " level " << level << " jobs " << jobs;
            }
            const fs::path packed = dir.path() / ("l" + level + "j1" + extension);
            const fs::path back = dir.path() / ("back" + level);
            ASSERT_EQ(run({"unpack", packed.string(), back.string()}).first, 0);
            EXPECT_EQ(opc::test::snapshotTree(back), opc::test::snapshotTree(folder));
            if (level == "0" || level == "6") {
                EXPECT_NE(readsWithPython(client.module, client.call, packed), 0) << client.file << " level " << level;
            }
        }
        // Level 0 stores all; at 6 every XML part shrinks, and PNG images do not.
        for (const std::string& entry : methods(dir.path() / ("l0j1" + extension)))
            EXPECT_EQ(entry.rfind("stored ", 0), 0u);
        for (const std::string& entry : methods(dir.path() / ("l6j1" + extension))) {
            const bool xml = entry.size() > 4 && (entry.compare(entry.size() - 4, 4, ".xml") == 0 ||
                                                  entry.compare(entry.size() - 5, 5, ".rels") == 0);
            const bool png = entry.compare(entry.size() - 4, 4, ".png") == 0;
            if (xml || png) {
                EXPECT_EQ(entry.rfind(xml ? "deflated " : "stored ", 0), 0u) << entry;
            }
        }
        EXPECT_LT(fs::file_size(dir.path() / ("l9j1" + extension)), fs::file_size(dir.path() / ("l1j1" + extension)));
    }
}

TEST(Pack, LevelAndJobsOutOfRangeAreUsageErrors) {
    TempDir dir;
    ASSERT_EQ(run({"new", (dir.path() / "p").string()}).first, 0);
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{"--level", "10"}, "opcdir: pack: --level must be a number from 0 to 9, not '10'\n"},
        {{"--level", "-1"}, "opcdir: pack: --level must be a number from 0 to 9, not '-1'\n"},
        {{"--jobs", "0"}, "opcdir: pack: --jobs must be a number from 1 to 256, not '0'\n"},
        {{"--jobs", "x"}, "opcdir: pack: --jobs must be a number from 1 to 256, not 'x'\n"},
    };
    for (const auto& [options, message] : cases) {
        std::vector<std::string> arguments = {"pack"};
        arguments.insert(arguments.end(), options.begin(), options.end());
        arguments.push_back((dir.path() / "p").string());
        arguments.push_back((dir.path() / "p.docx").string());
        EXPECT_EQ(run(arguments), std::make_pair(2, message));
        EXPECT_FALSE(fs::exists(dir.path() / "p.docx"));
    }
}

}  // namespace
}  // namespace opcdir
