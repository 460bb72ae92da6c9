// Writers in several processes, each under the exclusive lock, and a reader
// under the shared lock meanwhile: no update is lost, the package is never
// missing, and the reader only ever sees whole commits.

#include "LockTest.h"

#include "support/StreamHelpers.h"

#include <opcfspackage/FileSystemPartInfo.h>
#include <opcfspackage/FileSystemPhysicalPackage.h>

#include <poll.h>

#include <fstream>
#include <map>
#include <set>
#include <sstream>

namespace opc::test {
namespace {

using opc::fspackage::FileSystemPhysicalPackage;
using opc::interfaces::IPhysicalPart;
using opc::interfaces::OpenMode;

constexpr int kWriters = 8;
constexpr int kRounds = 3;

// Every commit writes its own part "/w<round>-<writer>.xml" holding its name,
// and "/index.txt" naming every part the new package holds, so a reader that
// sees the index of one commit with the parts of another notices.
std::string partName(int round, int writer) {
    return "/w" + std::to_string(round) + "-" + std::to_string(writer) + ".xml";
}

// The parts of the package at path, each with its content.
std::map<std::string, std::string> readPackage(const std::u16string& path) {
    FileSystemPhysicalPackage package(path);
    package.open(OpenMode::Read);
    std::map<std::string, std::string> parts;
    for (IPhysicalPart* part : package.getParts()) parts[toUtf8(part->getName())] = readAll(part->getInputStream());
    package.close(false);
    return parts;
}

// Empty when the parts are one commit's whole package, else what is wrong.
std::string inconsistency(const std::map<std::string, std::string>& parts) {
    const auto index = parts.find("/index.txt");
    if (index == parts.end()) return "no index";
    std::set<std::string> listed;
    std::istringstream lines(index->second);
    for (std::string line; std::getline(lines, line);) listed.insert(line);
    std::set<std::string> present;
    for (const auto& [name, content] : parts) {
        if (name == "/index.txt") continue;
        if (content != name) return name + " holds " + content;
        present.insert(name);
    }
    return listed == present ? ""
                             : "the index names " + std::to_string(listed.size()) + " parts, the package holds " +
                                   std::to_string(present.size());
}

void commitPart(const std::u16string& path, const std::string& name) {
    PackageLock lock(path, LockMode::Exclusive);
    FileSystemPhysicalPackage package(path);
    package.open(OpenMode::ReadWrite);
    std::string index;
    IPhysicalPart* indexPart = nullptr;
    for (IPhysicalPart* part : package.getParts()) {
        if (part->getName() == u"/index.txt")
            indexPart = part;
        else
            index += toUtf8(part->getName()) + "\n";
    }
    writeAll(package.createPart(fromUtf8(name), u"", opc::fspackage::FileSystemPartInfo())->getOutputStream(), name);
    index += name + "\n";
    writeAll(indexPart->getOutputStream(), index);
    package.close(false);
}

TEST(ConcurrentWriters, EveryReportedCommitIsKeptAndTheReaderSeesOnlyWholeCommits) {
    TempDir dir;
    const std::u16string pkg = dir.u16("pkg");
    writeFile(dir.path() / "pkg" / "[Content_Types].xml", "<Types/>");
    writeFile(dir.path() / "pkg" / "index.txt", "");

    int stop[2];
    ASSERT_EQ(::pipe(stop), 0);
    const std::filesystem::path readerLog = dir.path() / "reader.log";
    const pid_t reader = forkChild([&] {
        ::close(stop[1]);
        std::ofstream log(readerLog);
        int reads = 0;
        for (char byte = 0;; ++reads) {
            pollfd poll{stop[0], POLLIN, 0};
            if (::poll(&poll, 1, 0) == 1 && ::read(stop[0], &byte, 1) == 0) break;
            PackageLock lock(pkg, LockMode::Shared);
            if (const std::string wrong = inconsistency(readPackage(pkg)); !wrong.empty()) {
                log << "read " << reads << ": " << wrong << "\n";
                return 1;
            }
        }
        log << reads << " reads\n";
        return 0;
    });
    ::close(stop[0]);

    std::set<std::string> expected;
    for (int round = 0; round < kRounds; ++round) {
        std::vector<pid_t> writers;
        for (int writer = 0; writer < kWriters; ++writer) {
            writers.push_back(forkChild([&] {
                commitPart(pkg, partName(round, writer));
                return 0;
            }));
        }
        for (int writer = 0; writer < kWriters; ++writer) {
            EXPECT_EQ(waitChild(writers[static_cast<std::size_t>(writer)]), 0) << partName(round, writer);
            expected.insert(partName(round, writer));
        }
        const std::map<std::string, std::string> parts = readPackage(pkg);
        EXPECT_EQ(inconsistency(parts), "");
        std::set<std::string> names;
        for (const auto& [name, content] : parts) names.insert(name);
        names.erase("/index.txt");
        EXPECT_EQ(names, expected) << "round " << round;
    }
    ::close(stop[1]);
    EXPECT_EQ(waitChild(reader), 0) << readFile(readerLog);
    EXPECT_NE(readFile(readerLog), "0 reads\n");
    EXPECT_EQ(listFolder(dir.path()), (std::vector<std::string>{".opc-lock-pkg", "pkg", "reader.log"}));
}

}  // namespace
}  // namespace opc::test
