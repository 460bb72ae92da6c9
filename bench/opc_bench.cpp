// opc_bench: times each workload through the library and through a baseline
// that does the same file work with standard tools, in the same run and on the
// same file system, and prints one table.
//
//   opc_bench [--quick] [--verbose] [--repetitions N] [--dir FOLDER] [--only NAME[,NAME...]]
//
// Every library repetition runs in a forked child, so that its peak resident
// memory is its own; the memory check runs in a freshly executed copy of this
// program. After one warm-up run of each side, repetitions of the library and
// the baseline alternate which goes first, and each reported time is the
// least of its side's (see measure). Data lives in
// a fresh folder below --dir (the system's temporary folder by default) and is
// removed at the end.
//
// Exit status: 0 when every workload ran and produced the expected result,
// 1 when one failed. Missed speed targets are reported, not failed.

#include <opcfspackage/FileSystemPartInfo.h>
#include <opcfspackage/FileSystemPhysicalPackage.h>
#include <opcfspackage/PackageLock.h>

#include <fcntl.h>
#include <linux/fs.h>
#include <malloc.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/statfs.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using opc::fspackage::FileSystemPartInfo;
using opc::fspackage::FileSystemPhysicalPackage;
using opc::interfaces::IPhysicalPart;

constexpr std::size_t kKiB = 1024;
constexpr std::size_t kMiB = 1024 * kKiB;
constexpr std::size_t kPiece = 64 * kKiB;  // the read and write piece of the stream workloads

struct Sizes {
    std::size_t openParts;
    std::size_t memoryParts;
    std::size_t readBytes;
    std::size_t writeBytes;
    std::size_t commitParts;
    std::size_t commitBytes;
    std::size_t createParts;
    int repetitions;
    std::size_t lockPairs;
    std::size_t documentXmlParts;  // pack and unpack
    std::size_t documentImages;
};

constexpr Sizes kFull{20000, 100000, 512 * kMiB, 512 * kMiB, 2000, 1024 * kMiB, 10000, 6, 20000, 2000, 50};
constexpr Sizes kQuick{2000, 5000, 16 * kMiB, 16 * kMiB, 200, 32 * kMiB, 1000, 4, 2000, 100, 2};

// ---- Small helpers -------------------------------------------------------------

// Every name made here is ASCII.
std::u16string widen(const std::string& text) { return std::u16string(text.begin(), text.end()); }

std::string narrow(const std::u16string& text) { return std::string(text.begin(), text.end()); }

std::runtime_error systemFailure(const std::string& what) {
    return std::runtime_error(what + ": " + std::strerror(errno));
}

// Pseudo-random bytes, so that no file is sparse or trivially compressible;
// another seed gives another content.
std::vector<char> pattern(std::size_t size, unsigned seed = 0) {
    std::vector<char> bytes(size);
    std::uint32_t state = 0x9E3779B9u ^ seed;
    for (char& byte : bytes) {
        state = state * 1664525u + 1013904223u;
        byte = static_cast<char>(state >> 24);
    }
    return bytes;
}

void writeWhole(int fd, const char* data, std::size_t size) {
    while (size > 0) {
        const ssize_t written = ::write(fd, data, size);
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) throw systemFailure("write");
        data += written;
        size -= static_cast<std::size_t>(written);
    }
}

// Writes size bytes, repeating piece, to a new file at path.
void writeFile(const fs::path& path, const std::vector<char>& piece, std::size_t size) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) throw systemFailure("open " + path.string());
    for (std::size_t done = 0; done < size;) {
        const std::size_t chunk = std::min(piece.size(), size - done);
        writeWhole(fd, piece.data(), chunk);
        done += chunk;
    }
    if (::close(fd) != 0) throw systemFailure("close " + path.string());
}

std::string readFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

std::size_t countFiles(const fs::path& folder) {
    std::size_t count = 0;
    for (const auto& entry : fs::recursive_directory_iterator(folder)) {
        if (entry.is_regular_file()) ++count;
    }
    return count;
}

const char kContentTypes[] =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>"
    "<Types xmlns=\"http://schemas.openxmlformats.org/package/2006/content-types\">"
    "<Default Extension=\"xml\" ContentType=\"application/xml\"/></Types>";

void writeContentTypes(const fs::path& package) {
    fs::create_directories(package);
    writeFile(package / "[Content_Types].xml",
              std::vector<char>(std::begin(kContentTypes), std::end(kContentTypes) - 1), sizeof kContentTypes - 1);
}

// Part i of a package of small parts: 50 files to a folder, 20 folders to a
// group, so a listing walks three levels.
std::string smallPartPath(std::size_t i) {
    char name[64];
    std::snprintf(name, sizeof name, "word/g%03zu/f%02zu/part%06zu.xml", i / 1000, (i / 50) % 20, i);
    return name;
}

// Part i of the created package: 100 files to a folder, 10 folders to a group.
std::string createdPartPath(std::size_t i) {
    char name[64];
    std::snprintf(name, sizeof name, "xl/g%02zu/f%zu/sheet%05zu.xml", i / 1000, (i / 100) % 10, i);
    return name;
}

void makeSmallPartPackage(const fs::path& package, std::size_t parts) {
    writeContentTypes(package);
    const std::vector<char> content = pattern(200);
    for (std::size_t i = 0; i < parts; ++i) {
        const fs::path path = package / smallPartPath(i);
        if (i % 50 == 0) fs::create_directories(path.parent_path());
        writeFile(path, content, content.size());
    }
}

long statusKiB(const char* field) {
    std::ifstream status("/proc/self/status");
    std::string line;
    const std::size_t length = std::strlen(field);
    while (std::getline(status, line)) {
        if (line.compare(0, length, field) == 0 && line.size() > length && line[length] == ':') {
            return std::atol(line.c_str() + length + 1);
        }
    }
    return -1;
}

// From here on, VmHWM reports the peak reached after this call only.
void resetPeakMemory() {
    std::ofstream clear("/proc/self/clear_refs");
    clear << "5";
}

double seconds(Clock::duration duration) { return std::chrono::duration<double>(duration).count(); }

int roundUpToEven(int count) { return count + count % 2; }

double least(const std::vector<double>& values) { return *std::min_element(values.begin(), values.end()); }

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const std::size_t middle = values.size() / 2;
    return values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

// ---- Running a measured process ---------------------------------------------------

struct Sample {
    double seconds = 0;
    long peakKiB = 0;  // peak resident memory of the process that did the work
};

// A forked child starts with what the parent has resident; the parent hands
// freed memory back first, so that children's peaks are about their own work.
void prepareFork() {
    std::fflush(nullptr);
    ::malloc_trim(0);
}

// Runs work in a forked child, timed there, so that what the parent holds
// never counts against the library and its peak memory is its own.
Sample runInChild(const std::function<void()>& work) {
    prepareFork();
    int channel[2];
    if (::pipe2(channel, O_CLOEXEC) != 0) throw systemFailure("pipe");
    const pid_t pid = ::fork();
    if (pid < 0) throw systemFailure("fork");
    if (pid == 0) {
        ::close(channel[0]);
        int status = 1;
        try {
            resetPeakMemory();
            const auto start = Clock::now();
            work();
            Sample sample;
            sample.seconds = seconds(Clock::now() - start);
            // A workload that runs a program (pack, unpack) reports that
            // program's peak, which getrusage keeps for waited-for children.
            rusage children{};
            ::getrusage(RUSAGE_CHILDREN, &children);
            sample.peakKiB = std::max(statusKiB("VmHWM"), children.ru_maxrss);
            writeWhole(channel[1], reinterpret_cast<const char*>(&sample), sizeof sample);
            status = 0;
        } catch (const std::exception& e) {
            std::fprintf(stderr, "opc_bench: %s\n", e.what());
        }
        ::_exit(status);
    }
    ::close(channel[1]);
    Sample sample;
    std::size_t got = 0;
    while (got < sizeof sample) {
        const ssize_t n = ::read(channel[0], reinterpret_cast<char*>(&sample) + got, sizeof sample - got);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        got += static_cast<std::size_t>(n);
    }
    ::close(channel[0]);
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (got != sizeof sample || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        throw std::runtime_error("the measured run failed");
    }
    return sample;
}

// Runs a command and times it from fork to exit. Its standard output goes to
// /dev/null, or into a pipe read here to the end, whose bytes are kept in
// *output when given.
Sample runCommand(const std::vector<std::string>& arguments, bool intoPipe, std::string* output = nullptr) {
    std::vector<char*> argv;
    for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    prepareFork();
    int channel[2] = {-1, -1};
    if (intoPipe && ::pipe2(channel, O_CLOEXEC) != 0) throw systemFailure("pipe");
    const auto start = Clock::now();
    const pid_t pid = ::fork();
    if (pid < 0) throw systemFailure("fork");
    if (pid == 0) {
        const int sink = intoPipe ? channel[1] : ::open("/dev/null", O_WRONLY | O_CLOEXEC);
        if (sink < 0 || ::dup2(sink, STDOUT_FILENO) < 0) ::_exit(127);
        ::execvp(argv[0], argv.data());
        ::_exit(127);
    }
    if (intoPipe) {
        ::close(channel[1]);
        char buffer[64 * 1024];
        for (;;) {
            const ssize_t n = ::read(channel[0], buffer, sizeof buffer);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) break;
            if (output != nullptr) output->append(buffer, static_cast<std::size_t>(n));
        }
        ::close(channel[0]);
    }
    int status = 0;
    rusage usage{};
    while (::wait4(pid, &status, 0, &usage) < 0 && errno == EINTR) {
    }
    Sample sample;
    sample.seconds = seconds(Clock::now() - start);
    sample.peakKiB = usage.ru_maxrss;
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) throw std::runtime_error("command failed: " + arguments[0]);
    return sample;
}

// ---- Workloads ---------------------------------------------------------------------

struct Workload {
    std::string name;
    std::string size;
    double target = 0;
    bool writes = false;               // sync() before every timed run, so no run pays for another's writeback
    int repetitions = 0;               // at least this many: a row of milliseconds wants more runs than one of seconds
    std::function<void(int)> library;  // runs in a forked child; the argument is the repetition
    std::function<Sample()> baseline;
    std::function<void(int)> afterLibrary;  // untimed: checks the result and tidies up
    std::function<void()> afterBaseline;
    std::function<void()> beforeRun;  // untimed, before every run of either side
    std::vector<fs::path> data;       // removed once the workload is done
};

struct Row {
    std::string name;
    std::string size;
    double target = 0;
    double ours = 0;
    double baseline = 0;
    long oursPeakKiB = 0;
    long baselinePeakKiB = 0;
    bool failed = false;
};

void require(bool condition, const std::string& what) {
    if (!condition) throw std::runtime_error(what);
}

IPhysicalPart* findPart(FileSystemPhysicalPackage& package, const std::u16string& name) {
    for (IPhysicalPart* part : package.getParts()) {
        if (part->getName() == name) return part;
    }
    throw std::runtime_error("part not found: " + narrow(name));
}

// No temporary or moved-aside folder may outlive a commit.
void requireNoLeftovers(const fs::path& folder) {
    for (const auto& entry : fs::directory_iterator(folder)) {
        require(entry.path().filename().string().rfind(".opc-", 0) != 0, "left behind: " + entry.path().string());
    }
}

Workload openWorkload(const fs::path& root, std::size_t parts) {
    const fs::path package = root / "open";
    makeSmallPartPackage(package, parts);
    Workload w;
    w.name = "open";
    w.size = std::to_string(parts) + " parts";
    w.target = 1.25;
    w.repetitions = 22;
    w.data = {package};
    w.library = [package, parts](int) {
        FileSystemPhysicalPackage opened(widen(package.string()));
        opened.open(opc::interfaces::Read);
        const std::size_t listed = opened.getParts().size();
        opened.close(false);
        require(listed == parts, "open listed " + std::to_string(listed) + " parts");
    };
    // Opening tests that each listed file exists; the least that can do so is
    // a listing with one access test per file.
    w.baseline = [package, parts] {
        std::string listing;
        const Sample sample = runCommand({"find", package.string(), "-type", "f", "-readable"}, true, &listing);
        require(static_cast<std::size_t>(std::count(listing.begin(), listing.end(), '\n')) == parts + 1,
                "find listed the wrong number of files");
        return sample;
    };
    return w;
}

Workload readWorkload(const fs::path& root, std::size_t bytes) {
    const fs::path package = root / "read";
    const fs::path file = package / "media" / "big.bin";
    writeContentTypes(package);
    fs::create_directories(file.parent_path());
    writeFile(file, pattern(kPiece), bytes);
    runCommand({"cat", file.string()}, false);  // warm cache
    Workload w;
    w.name = "read";
    w.size = std::to_string(bytes / kMiB) + " MiB";
    w.target = 1.10;
    w.data = {package};
    w.library = [package, bytes](int) {
        FileSystemPhysicalPackage opened(widen(package.string()));
        opened.open(opc::interfaces::Read);
        opc::interfaces::IPhysicalInputStream* in = findPart(opened, u"/media/big.bin")->getInputStream();
        std::vector<char> buffer(kPiece);
        std::size_t total = 0;
        while (const std::streamsize got = in->read(buffer.data(), static_cast<std::streamsize>(buffer.size()))) {
            total += static_cast<std::size_t>(got);
        }
        opened.close(false);
        require(total == bytes, "read " + std::to_string(total) + " bytes");
    };
    w.baseline = [file] { return runCommand({"cat", file.string()}, false); };
    return w;
}

Workload writeWorkload(const fs::path& root, std::size_t bytes) {
    const fs::path source = root / "write-source.bin";
    const fs::path package = root / "write";
    const fs::path copy = root / "write-dd.bin";
    writeFile(source, pattern(kPiece), bytes);
    Workload w;
    w.name = "write";
    w.size = std::to_string(bytes / kMiB) + " MiB";
    w.target = 1.20;
    w.writes = true;
    w.data = {source, package, copy};
    w.library = [package, bytes](int) {
        const std::vector<char> piece = pattern(kPiece);
        FileSystemPhysicalPackage created(widen(package.string()));
        created.getLocalFSImpl().setDurable(false);  // as dd: what syncs cost, commit-durable shows
        created.open(opc::interfaces::Create);
        opc::interfaces::IPhysicalOutputStream* out =
            created.createPart(u"/media/big.bin", u"application/octet-stream", FileSystemPartInfo())->getOutputStream();
        for (std::size_t done = 0; done < bytes; done += piece.size()) {
            require(out->write(piece.data(), static_cast<std::streamsize>(piece.size())) ==
                        static_cast<std::streamsize>(piece.size()),
                    "write refused");
        }
        require(!out->isFailed(), "output stream failed");
        created.close(false);
    };
    w.afterLibrary = [root, package, bytes](int) {
        require(fs::file_size(package / "media" / "big.bin") == bytes, "written part has the wrong size");
        require(countFiles(package) == 2, "written package has the wrong files");
        requireNoLeftovers(root);
        fs::remove_all(package);
    };
    w.baseline = [source, copy] {
        return runCommand({"dd", "if=" + source.string(), "of=" + copy.string(), "bs=64k", "status=none"}, false);
    };
    w.afterBaseline = [copy, bytes] {
        require(fs::file_size(copy) == bytes, "dd wrote the wrong size");
        fs::remove(copy);
    };
    return w;
}

// Lines printed under the table: what a row's times alone do not tell.
std::vector<std::string>& notes() {
    static std::vector<std::string> lines;
    return lines;
}

// Asks ext4 to place each folder made in folder as it places top-level ones,
// in a block group of its own with free inodes (chattr +T); elsewhere it does
// nothing. Returns whether it did.
bool spreadSubfolders(const fs::path& folder) {
    const int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return false;
    int flags = 0;
    bool spread = ::ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0;
    if (spread) {
        flags |= FS_TOPDIR_FL;
        spread = ::ioctl(fd, FS_IOC_SETFLAGS, &flags) == 0;
    }
    ::close(fd);
    return spread;
}

// The folder of a row's runs, each run's folder made in it with a name new to
// this invocation (see unpackWorkload), spread over block groups where the
// file system can.
struct RunFolders {
    RunFolders(const fs::path& folder, const std::string& row) : root(folder) {
        fs::create_directories(root);
        if (!spreadSubfolders(root)) notes().push_back(row + ": run folders not spread over block groups");
    }
    fs::path operator()(const std::string& name) const { return root / (name + "-" + invocation); }

    fs::path root;
    std::string invocation = std::to_string(std::random_device()());
};

void makeCommitPackage(const fs::path& package, std::size_t parts, std::size_t bytes) {
    constexpr std::size_t kDocument = 4 * kKiB;
    writeContentTypes(package);
    fs::create_directories(package / "word");
    writeFile(package / "word" / "document.xml", pattern(kDocument, 1), kDocument);
    const std::size_t each = (bytes - kDocument) / (parts - 1);
    const std::vector<char> content = pattern(each, 2);
    for (std::size_t i = 0; i + 1 < parts; ++i) {
        char name[64];
        std::snprintf(name, sizeof name, "media/g%02zu/image%05zu.bin", i / 100, i);
        const fs::path path = package / name;
        if (i % 100 == 0) fs::create_directories(path.parent_path());
        writeFile(path, content, each);
    }
}

enum class CommitKind {
    Plain,    // durability off; baseline the commit's whole file work
    Durable,  // durable; baseline that work with the syncs a durable commit needs
};

// The baseline does the commit's whole file work: copy the package, move the
// old folder aside and the copy in, remove the old folder. Durable adds one
// sync of the copy's file system before the move in, and of the parent
// folder before the move aside (where the commit's journal is synced) and
// after the move in. Both share one package; the durable one removes it.
//
// Every run, either side's, first moves the package (untimed) into a folder
// of its own, placed as unpackWorkload places its runs, and works there: in
// the folder the previous run left, the copy's 2,000 new files would skip
// the 2,000 the previous run removed, one scan of them per file (ext4
// without a journal): a quarter of all samples of the row, and half of the
// system time of both commit rows.
Workload commitWorkload(const fs::path& root, std::size_t parts, std::size_t bytes, CommitKind kind) {
    constexpr std::size_t kDocument = 4 * kKiB;
    const fs::path home = root / "commit";  // where the package waits between runs
    if (!fs::exists(home)) makeCommitPackage(home, parts, bytes);
    Workload w;
    const bool durable = kind == CommitKind::Durable;
    w.name = durable ? "commit-durable" : "commit";
    w.size = std::to_string(parts) + " parts, " + std::to_string(bytes / kMiB) + " MiB";
    w.target = durable ? 1.10 : 1.05;
    w.writes = true;
    const RunFolders runs(root / "commit-runs", w.name);
    w.data = durable ? std::vector<fs::path>{home, runs.root} : std::vector<fs::path>{runs.root};
    const auto run = std::make_shared<fs::path>();
    const auto runCount = std::make_shared<int>(0);
    w.beforeRun = [home, runs, run, runCount, name = w.name] {
        *run = runs(name + "-" + std::to_string((*runCount)++));
        fs::create_directory(*run);
        fs::rename(home, *run / "commit");
    };
    // Nothing may be left beside the package: the run's folder must be empty
    // once the package is back home.
    const auto afterRun = [home, run] {
        fs::rename(*run / "commit", home);
        require(fs::is_empty(*run), "left behind in " + run->string());
        fs::remove(*run);
    };
    w.library = [run, durable](int repetition) {
        const std::vector<char> document = pattern(kDocument, static_cast<unsigned>(10 + repetition));
        FileSystemPhysicalPackage changed(widen((*run / "commit").string()));
        changed.getLocalFSImpl().setDurable(durable);
        changed.open(opc::interfaces::ReadWrite);
        findPart(changed, u"/word/document.xml")->getOutputStream()->write(document.data(), kDocument);
        changed.close(false);
    };
    w.afterLibrary = [home, parts, afterRun](int repetition) {
        afterRun();
        const std::vector<char> document = pattern(kDocument, static_cast<unsigned>(10 + repetition));
        require(readFile(home / "word" / "document.xml") == std::string(document.begin(), document.end()),
                "the rewritten part was not committed");
        require(countFiles(home) == parts + 1, "the committed package has the wrong files");
    };
    w.baseline = [run, durable] {
        const fs::path package = *run / "commit";
        const fs::path copy = *run / "commit-copy";
        const fs::path aside = *run / "commit-aside";
        const auto start = Clock::now();
        const Sample copied = runCommand({"cp", "-r", package.string(), copy.string()}, false);
        const auto sync = [&](const fs::path& path, bool wholeFileSystem) {
            if (!durable) return;
            const int fd = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
            const bool synced = fd >= 0 && (wholeFileSystem ? ::syncfs(fd) : ::fsync(fd)) == 0;
            if (fd >= 0) ::close(fd);
            if (!synced) throw systemFailure("sync");
        };
        sync(*run, false);
        runCommand({"mv", package.string(), aside.string()}, false);
        sync(copy, true);
        runCommand({"mv", copy.string(), package.string()}, false);
        sync(*run, false);
        const Sample removed = runCommand({"rm", "-rf", aside.string()}, false);
        Sample sample;
        sample.seconds = seconds(Clock::now() - start);
        sample.peakKiB = std::max(copied.peakKiB, removed.peakKiB);
        return sample;
    };
    w.afterBaseline = [home, parts, afterRun] {
        afterRun();  // also fails if rm left the old folder
        require(countFiles(home) == parts + 1, "the swapped-in copy has the wrong files");
    };
    return w;
}

void createPackage(const fs::path& package, std::size_t parts, bool durable) {
    const std::vector<char> content = pattern(kKiB);
    FileSystemPhysicalPackage created(widen(package.string()));
    created.getLocalFSImpl().setDurable(durable);
    created.open(opc::interfaces::Create);
    for (std::size_t i = 0; i < parts; ++i) {
        IPhysicalPart* part =
            created.createPart(u"/" + widen(createdPartPath(i)), u"application/xml", FileSystemPartInfo());
        opc::interfaces::IPhysicalOutputStream* out = part->getOutputStream();
        out->write(content.data(), kKiB);
        out->close();  // or every part would hold a descriptor until the commit
    }
    created.close(false);
}

// durable: the cost of durability, against the same creation without it.
Workload createWorkload(const fs::path& root, std::size_t parts, bool durable) {
    const fs::path package = root / "create";
    const fs::path copy = root / (durable ? "create-not-durable" : "create-ofstream");
    Workload w;
    w.name = durable ? "create-durable" : "create";
    w.size = std::to_string(parts) + " parts of 1 KiB";
    w.target = durable ? 0 : 1.30;
    w.writes = true;
    w.data = {package, copy};
    w.library = [package, parts, durable](int) { createPackage(package, parts, durable); };
    w.afterLibrary = [root, package, parts](int) {
        require(countFiles(package) == parts + 1, "the created package has the wrong files");
        require(fs::file_size(package / createdPartPath(parts - 1)) == kKiB, "a created part has the wrong size");
        requireNoLeftovers(root);
        fs::remove_all(package);
    };
    if (durable) {
        w.baseline = [copy, parts] { return runInChild([copy, parts] { createPackage(copy, parts, false); }); };
        w.afterBaseline = [copy, parts] {
            require(countFiles(copy) == parts + 1, "the package created without syncs has the wrong files");
            fs::remove_all(copy);
        };
        return w;
    }
    w.baseline = [copy, parts] {
        return runInChild([copy, parts] {
            const std::vector<char> content = pattern(kKiB);
            fs::create_directories(copy);
            std::ofstream(copy / "[Content_Types].xml", std::ios::binary).close();
            for (std::size_t i = 0; i < parts; ++i) {
                const fs::path path = copy / createdPartPath(i);
                if (i % 100 == 0) fs::create_directories(path.parent_path());
                std::ofstream file(path, std::ios::binary);
                file.write(content.data(), kKiB);
                file.close();
                require(!file.fail(), "ofstream failed");
            }
        });
    };
    w.afterBaseline = [copy, parts] {
        require(countFiles(copy) == parts + 1, "the ofstream loop wrote the wrong files");
        fs::remove_all(copy);
    };
    return w;
}

// ---- pack and unpack against zip and unzip ---------------------------------------

// Built only with the tool.
#ifdef OPCDIR_PATH

// A document-like package: XML parts that deflate well, each different, and
// incompressible images.
void makeDocumentPackage(const fs::path& package, std::size_t xmlParts, std::size_t images) {
    static const char* const kWords[] = {"report", "quarter", "revenue", "figure", "table", "summary",
                                         "growth", "market",  "region",  "total",  "note",  "draft"};
    writeContentTypes(package);
    std::uint32_t state = 12345;
    for (std::size_t i = 0; i < xmlParts; ++i) {
        std::string xml = "<?xml version=\"1.0\" encoding=\"UTF-8\"?><w:document><w:body>";
        while (xml.size() < 40 * kKiB) {
            xml += "<w:p><w:r><w:rPr><w:b/></w:rPr><w:t>";
            for (int word = 0; word < 12; ++word) {
                state = state * 1664525u + 1013904223u;
                xml += std::string(kWords[(state >> 16) % 12]) + " " + std::to_string((state >> 8) % 1000) + " ";
            }
            xml += "</w:t></w:r></w:p>";
        }
        xml += "</w:body></w:document>";
        const fs::path path = package / smallPartPath(i);
        if (i % 50 == 0) fs::create_directories(path.parent_path());
        writeFile(path, std::vector<char>(xml.begin(), xml.end()), xml.size());
    }
    fs::create_directories(package / "word" / "media");
    for (std::size_t i = 0; i < images; ++i) {
        writeFile(package / "word" / "media" / ("image" + std::to_string(i) + ".png"),
                  pattern(2 * kMiB, static_cast<unsigned>(100 + i)), 2 * kMiB);
    }
}

std::string packageSize(std::size_t xmlParts, std::size_t images) {
    return std::to_string(xmlParts) + " XML parts, " + std::to_string(images) + " images of 2 MiB";
}

// zip's archive of the folder's contents, timed from fork to exit.
Sample zipFolder(const fs::path& folder, const fs::path& archive) {
    return runCommand({"sh", "-c", "cd \"$0\" && zip -q -r -X \"$1\" .", folder.string(), archive.string()}, false);
}

// opcdir pack at its defaults against zip -q -r -X of the same folder; the
// archive sizes go to the notes.
Workload packWorkload(const fs::path& root, std::size_t xmlParts, std::size_t images) {
    const fs::path package = root / "pack";
    const fs::path ours = root / "pack-opcdir.docx";
    const fs::path theirs = root / "pack-zip.docx";
    makeDocumentPackage(package, xmlParts, images);
    Workload w;
    w.name = "pack";
    w.size = packageSize(xmlParts, images);
    w.target = 0.6;
    w.writes = true;
    w.data = {package, ours, theirs};
    w.library = [package, ours](int) { runCommand({OPCDIR_PATH, "pack", package.string(), ours.string()}, false); };
    w.afterLibrary = [ours](int) {
        require(fs::file_size(ours) > 0, "opcdir pack wrote nothing");
        fs::remove(ours);
    };
    w.baseline = [package, theirs] { return zipFolder(package, theirs); };
    w.afterBaseline = [package, ours, theirs] {
        runCommand({OPCDIR_PATH, "pack", package.string(), ours.string()}, false);
        const double ratio = static_cast<double>(fs::file_size(ours)) / static_cast<double>(fs::file_size(theirs));
        char line[200];
        std::snprintf(line, sizeof line, "pack: archive %ju bytes, zip's %ju bytes, ratio %.4f (target <= 1.01) %s",
                      static_cast<std::uintmax_t>(fs::file_size(ours)),
                      static_cast<std::uintmax_t>(fs::file_size(theirs)), ratio, ratio <= 1.01 ? "met" : "MISSED");
        if (notes().empty() || notes().back() != line) notes().push_back(line);
        fs::remove(ours);
        fs::remove(theirs);
    };
    return w;
}

// opcdir unpack against unzip -q of the same archive, made by zip. Nothing is
// removed until the row is done: every run unpacks into a folder of its own,
// and the source folder stays. On ext4 without a journal, for a minute or
// more after inodes are freed, allocating one skips the recently freed ones
// of its group, scanning them from the group's start each time: a run in a
// group where earlier rows removed thousands of files spends most of its
// time there, as unzip does, which hides what either side does itself. So
// every run's folder is placed in a group of its own. ext4 picks that group
// from a hash of the folder's name: the names are new in every invocation,
// as opcdir's staging folder's is, so that neither side lands where an
// earlier invocation removed its files.
Workload unpackWorkload(const fs::path& root, std::size_t xmlParts, std::size_t images) {
    const fs::path package = root / "unpack-source";
    const fs::path archive = root / "unpack.docx";
    makeDocumentPackage(package, xmlParts, images);
    zipFolder(package, archive);
    const std::size_t files = xmlParts + images + 1;
    Workload w;
    w.name = "unpack";
    w.size = packageSize(xmlParts, images);
    w.target = 0.5;
    w.writes = true;
    // Each run's output, and the package lock file the tool leaves beside
    // it, as it should; the warm-up is repetition -1.
    const RunFolders runs(root / "unpack-runs", w.name);
    w.data = {package, archive, runs.root};
    const auto output = [runs](const char* side, int repetition) {
        return runs(side + std::to_string(repetition + 1));
    };
    w.library = [archive, output](int repetition) {
        runCommand({OPCDIR_PATH, "unpack", archive.string(), output("opcdir-", repetition).string()}, false);
    };
    w.afterLibrary = [output, files](int repetition) {
        require(countFiles(output("opcdir-", repetition)) == files, "opcdir unpack wrote the wrong files");
    };
    const auto baselineRuns = std::make_shared<int>(-1);
    w.baseline = [archive, output, baselineRuns] {
        return runCommand({"unzip", "-q", archive.string(), "-d", output("unzip-", *baselineRuns).string()}, false);
    };
    w.afterBaseline = [output, files, baselineRuns] {
        require(countFiles(output("unzip-", (*baselineRuns)++)) == files, "unzip wrote the wrong files");
    };
    return w;
}
#endif

// Library and baseline alternate which goes first, so that neither always
// meets the state the other left, and each gets as many first places as
// second ones. A side's time is its least: noise on this machine adds time,
// in bursts from outside the guest, and never takes any away. In the commit
// rows about a third of the runs took 1.2 to 3 s, the others 0.75 to 1.1 s,
// with two to four times the system time and the same guest-side counts
// (pages allocated, faults, no reclaim or compaction), whichever side ran
// them. Over five runs with one library build, the ratio of medians of six
// went from 0.71 to 1.22, that of least times from 0.97 to 1.03.
Row measure(Workload& w, int repetitions, bool verbose) {
    Row row{w.name, w.size, w.target};
    if (!w.afterLibrary) w.afterLibrary = [](int) {};
    if (!w.afterBaseline) w.afterBaseline = [] {};
    std::vector<double> ours;
    std::vector<double> baseline;
    // Repetition -1 is a warm-up of each side: the first run after the data
    // is made pays for caches and fresh memory that later runs find ready.
    const int runs = roundUpToEven(std::max(repetitions, w.repetitions));
    for (int repetition = -1; repetition < runs; ++repetition) {
        for (int side = 0; side < 2; ++side) {
            if (w.beforeRun) w.beforeRun();
            if (w.writes) ::sync();
            const bool counted = repetition >= 0;
            if ((side == 0) == (repetition % 2 == 0)) {
                const Sample sample = runInChild([&] { w.library(repetition); });
                w.afterLibrary(repetition);
                if (!counted) continue;
                ours.push_back(sample.seconds);
                if (verbose) std::fprintf(stderr, "  %s ours %.4f s\n", w.name.c_str(), sample.seconds);
                row.oursPeakKiB = std::max(row.oursPeakKiB, sample.peakKiB);
            } else {
                const Sample sample = w.baseline();
                w.afterBaseline();
                if (!counted) continue;
                baseline.push_back(sample.seconds);
                if (verbose) std::fprintf(stderr, "  %s baseline %.4f s\n", w.name.c_str(), sample.seconds);
                row.baselinePeakKiB = std::max(row.baselinePeakKiB, sample.peakKiB);
            }
        }
    }
    row.ours = least(ours);
    row.baseline = least(baseline);
    if (verbose) {
        std::fprintf(stderr, "  %s medians: ours %.4f s, baseline %.4f s\n", w.name.c_str(), median(ours),
                     median(baseline));
    }
    return row;
}

// ---- Peak memory of a large open ---------------------------------------------------

struct MemoryResult {
    std::size_t parts = 0;
    long startKiB = 0;
    long peakKiB = 0;
    double seconds = 0;
};

// Runs in a freshly executed copy of this program: nothing but the library
// and the C++ runtime is resident when it starts.
int measureOpen(const std::string& folder, std::size_t parts) {
    try {
        resetPeakMemory();
        const long startKiB = statusKiB("VmRSS");
        const auto start = Clock::now();
        std::size_t listed = 0;
        {
            FileSystemPhysicalPackage opened(widen(folder));
            opened.open(opc::interfaces::Read);
            listed = opened.getParts().size();
            opened.close(false);
        }
        const double elapsed = seconds(Clock::now() - start);
        require(listed == parts, "open listed " + std::to_string(listed) + " parts");
        std::printf("%ld %ld %.6f\n", startKiB, statusKiB("VmHWM"), elapsed);
        return 0;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "opc_bench: %s\n", e.what());
        return 1;
    }
}

MemoryResult memoryWorkload(const fs::path& root, std::size_t parts) {
    const fs::path package = root / "memory";
    makeSmallPartPackage(package, parts);
    std::string output;
    runCommand({"/proc/self/exe", "--measure-open", package.string(), std::to_string(parts)}, true, &output);
    fs::remove_all(package);
    MemoryResult result;
    result.parts = parts;
    std::istringstream fields(output);
    require(static_cast<bool>(fields >> result.startKiB >> result.peakKiB >> result.seconds),
            "no measurement from the child");
    return result;
}

// ---- Package lock --------------------------------------------------------------------

struct LockResult {
    std::size_t pairs = 0;
    double sharedMicros = 0;
    double exclusiveMicros = 0;
    double baselineMicros = 0;  // open + flock + close of the same file, by hand
};

// Microseconds per take-and-release, the median over repetitions of pairs
// taken back to back, uncontended.
double microsPerPair(int repetitions, std::size_t pairs, const std::function<void()>& pair) {
    std::vector<double> samples;
    for (int repetition = -1; repetition < repetitions; ++repetition) {
        const auto start = Clock::now();
        for (std::size_t i = 0; i < pairs; ++i) pair();
        if (repetition >= 0) samples.push_back(seconds(Clock::now() - start) * 1e6 / static_cast<double>(pairs));
    }
    return median(samples);
}

LockResult lockWorkload(const fs::path& root, std::size_t pairs, int repetitions) {
    const fs::path package = root / "lock";
    const std::u16string path = widen(package.string());
    LockResult result;
    result.pairs = pairs;
    result.sharedMicros =
        microsPerPair(repetitions, pairs, [&] { const opc::fspackage::PackageLock lock(path, opc::LockMode::Shared); });
    result.exclusiveMicros = microsPerPair(
        repetitions, pairs, [&] { const opc::fspackage::PackageLock lock(path, opc::LockMode::Exclusive); });
    const fs::path lockFile = root / ".opc-lock-lock";
    require(fs::is_regular_file(lockFile) && !fs::exists(package), "the lock file is not where it belongs");
    result.baselineMicros = microsPerPair(repetitions, pairs, [&] {
        const int fd = ::open(lockFile.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0666);
        if (fd < 0 || ::flock(fd, LOCK_EX) != 0) throw systemFailure("flock");
        ::close(fd);
    });
    fs::remove(lockFile);
    return result;
}

void printLock(const LockResult& lock) {
    constexpr double kTarget = 20;
    const bool met = lock.sharedMicros <= kTarget && lock.exclusiveMicros <= kTarget;
    std::printf(
        "\nlock: PackageLock taken and released %zu times uncontended: shared %.2f us, exclusive %.2f us per pair "
        "(baseline open + flock + close %.2f us, ratio %.2f; target <= %.0f us) %s\n",
        lock.pairs, lock.sharedMicros, lock.exclusiveMicros, lock.baselineMicros,
        std::max(lock.sharedMicros, lock.exclusiveMicros) / lock.baselineMicros, kTarget, met ? "met" : "MISSED");
}

// ---- Report ------------------------------------------------------------------------

std::string firstLineOf(const char* file, const std::string& prefix) {
    std::ifstream in(file);
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind(prefix, 0) == 0) {
            const std::size_t colon = line.find(':');
            return colon == std::string::npos ? line : line.substr(colon + 2);
        }
    }
    return "unknown";
}

std::string fileSystemType(const fs::path& folder) {
    struct statfs info {};
    if (::statfs(folder.c_str(), &info) != 0) return "unknown";
    switch (static_cast<unsigned long>(info.f_type)) {
        case 0xEF53: return "ext2/3/4";
        case 0x01021994: return "tmpfs";
        case 0x58465342: return "xfs";
        case 0x9123683E: return "btrfs";
        case 0x794C7630: return "overlayfs";
        default: {
            char hex[32];
            std::snprintf(hex, sizeof hex, "0x%lx", static_cast<unsigned long>(info.f_type));
            return hex;
        }
    }
}

void printMachine(const fs::path& root, bool quick, int repetitions) {
    utsname system{};
    ::uname(&system);
    const long pages = ::sysconf(_SC_PHYS_PAGES);
    const long pageSize = ::sysconf(_SC_PAGESIZE);
    std::printf("machine:     %s, %ld cores, %.1f GiB memory\n", firstLineOf("/proc/cpuinfo", "model name").c_str(),
                ::sysconf(_SC_NPROCESSORS_ONLN),
                static_cast<double>(pages) * static_cast<double>(pageSize) / (1024.0 * kMiB));
    std::printf("system:      %s %s, data on %s\n", system.sysname, system.release, fileSystemType(root).c_str());
    std::printf("compiler:    %s%s\n", __VERSION__,
#ifdef __OPTIMIZE__
                ", optimised"
#else
                ", not optimised (times are not representative)"
#endif
    );
    std::printf("run:         %s sizes, least time of %d or more repetitions, library and baseline alternating\n\n",
                quick ? "quick" : "full", roundUpToEven(repetitions));
}

double mebibytes(long kib) { return static_cast<double>(kib) / 1024.0; }

void printTable(const std::vector<Row>& rows) {
    std::printf(
        "| workload | size | ours (s) | baseline (s) | ratio | target | ours peak RSS (MiB) | baseline peak RSS (MiB) "
        "|\n");
    std::printf("|---|---|---:|---:|---:|---:|---:|---:|\n");
    for (const Row& row : rows) {
        if (row.failed) {
            std::printf("| %s | %s | FAILED | | | | | |\n", row.name.c_str(), row.size.c_str());
            continue;
        }
        const double ratio = row.ours / row.baseline;
        char target[32] = "-";
        if (row.target > 0) {
            std::snprintf(target, sizeof target, "<= %.2f %s", row.target, ratio <= row.target ? "met" : "MISSED");
        }
        std::printf("| %s | %s | %.3f | %.3f | %.2f | %s | %.1f | %.1f |\n", row.name.c_str(), row.size.c_str(),
                    row.ours, row.baseline, ratio, target, mebibytes(row.oursPeakKiB), mebibytes(row.baselinePeakKiB));
    }
}

void printMemory(const MemoryResult& memory) {
    const long grown = memory.peakKiB - memory.startKiB;
    const double perPart = static_cast<double>(grown) * 1024.0 / static_cast<double>(memory.parts);
    const bool met = memory.peakKiB < 64 * 1024 && perPart <= 600;
    std::printf(
        "\nmemory: open(Read) + getParts() + close of %zu parts in a fresh process: %.3f s, "
        "RSS before %.1f MiB, peak %.1f MiB, %.0f bytes per part (target: peak < 64 MiB, <= 600 bytes "
        "per part) %s\n",
        memory.parts, memory.seconds, mebibytes(memory.startKiB), mebibytes(memory.peakKiB), perPart,
        met ? "met" : "MISSED");
}

// ---- Main ---------------------------------------------------------------------------

struct Options {
    bool quick = false;
    bool verbose = false;  // every sample to stderr
    int repetitions = 0;
    fs::path dir = fs::temp_directory_path();
    std::vector<std::string> only;
};

bool selected(const Options& options, const std::string& name) {
    return options.only.empty() || std::find(options.only.begin(), options.only.end(), name) != options.only.end();
}

std::optional<Options> parse(int argc, char** argv) {
    Options options;
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        const bool hasValue = i + 1 < argc;
        if (argument == "--quick") {
            options.quick = true;
        } else if (argument == "--verbose") {
            options.verbose = true;
        } else if (argument == "--repetitions" && hasValue) {
            options.repetitions = std::atoi(argv[++i]);
            if (options.repetitions < 1) return std::nullopt;
        } else if (argument == "--dir" && hasValue) {
            options.dir = argv[++i];
        } else if (argument == "--only" && hasValue) {
            std::istringstream names(argv[++i]);
            for (std::string name; std::getline(names, name, ',');) options.only.push_back(name);
        } else {
            return std::nullopt;
        }
    }
    return options;
}

// The run's data folder, removed however the run ends.
class DataFolder {
public:
    explicit DataFolder(const fs::path& parent) {
        std::string pattern = (parent / "opc-bench-XXXXXX").string();
        if (::mkdtemp(pattern.data()) == nullptr) throw systemFailure("mkdtemp in " + parent.string());
        root = pattern;
    }
    DataFolder(const DataFolder&) = delete;
    DataFolder& operator=(const DataFolder&) = delete;
    ~DataFolder() {
        std::error_code ignored;
        fs::remove_all(root, ignored);
    }
    const fs::path& path() const { return root; }

private:
    fs::path root;
};

int run(const Options& options) {
    const Sizes sizes = options.quick ? kQuick : kFull;
    const int repetitions = options.repetitions > 0 ? options.repetitions : sizes.repetitions;
    const DataFolder data(options.dir);
    printMachine(data.path(), options.quick, repetitions);

    using Maker = std::function<Workload()>;
    const std::vector<std::pair<std::string, Maker>> makers = {
        {"open", [&] { return openWorkload(data.path(), sizes.openParts); }},
        {"read", [&] { return readWorkload(data.path(), sizes.readBytes); }},
        {"write", [&] { return writeWorkload(data.path(), sizes.writeBytes); }},
        {"commit",
         [&] { return commitWorkload(data.path(), sizes.commitParts, sizes.commitBytes, CommitKind::Plain); }},
        {"commit-durable",
         [&] { return commitWorkload(data.path(), sizes.commitParts, sizes.commitBytes, CommitKind::Durable); }},
        {"create", [&] { return createWorkload(data.path(), sizes.createParts, false); }},
        {"create-durable", [&] { return createWorkload(data.path(), sizes.createParts, true); }},
#ifdef OPCDIR_PATH
        {"pack", [&] { return packWorkload(data.path(), sizes.documentXmlParts, sizes.documentImages); }},
        {"unpack", [&] { return unpackWorkload(data.path(), sizes.documentXmlParts, sizes.documentImages); }},
#endif
    };
    bool failed = false;
    std::vector<Row> rows;
    for (const auto& [name, make] : makers) {
        if (!selected(options, name)) continue;
        std::fprintf(stderr, "opc_bench: %s...\n", name.c_str());
        Workload workload;
        try {
            workload = make();
            rows.push_back(measure(workload, repetitions, options.verbose));
        } catch (const std::exception& e) {
            std::fprintf(stderr, "opc_bench: %s failed: %s\n", name.c_str(), e.what());
            rows.push_back(Row{name, workload.size, workload.target});
            rows.back().failed = true;
            failed = true;
        }
        for (const fs::path& path : workload.data) {
            std::error_code ignored;
            fs::remove_all(path, ignored);
        }
    }
    if (!rows.empty()) printTable(rows);
    for (const std::string& line : notes()) std::printf("\n%s\n", line.c_str());

    if (selected(options, "lock")) {
        std::fprintf(stderr, "opc_bench: lock...\n");
        try {
            printLock(lockWorkload(data.path(), sizes.lockPairs, repetitions));
        } catch (const std::exception& e) {
            std::fprintf(stderr, "opc_bench: lock failed: %s\n", e.what());
            failed = true;
        }
    }

    if (selected(options, "memory")) {
        std::fprintf(stderr, "opc_bench: memory...\n");
        try {
            printMemory(memoryWorkload(data.path(), sizes.memoryParts));
        } catch (const std::exception& e) {
            std::fprintf(stderr, "opc_bench: memory failed: %s\n", e.what());
            failed = true;
        }
    }
    return failed ? 1 : 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 4 && std::string(argv[1]) == "--measure-open") {
        return measureOpen(argv[2], static_cast<std::size_t>(std::strtoull(argv[3], nullptr, 10)));
    }
    const std::optional<Options> options = parse(argc, argv);
    if (!options) {
        std::fprintf(stderr,
                     "usage: opc_bench [--quick] [--verbose] [--repetitions N] [--dir FOLDER] "
                     "[--only open,read,write,commit,commit-durable,create,create-durable,pack,unpack,lock,memory]\n");
        return 2;
    }
    try {
        return run(*options);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "opc_bench: %s\n", e.what());
        return 1;
    }
}
