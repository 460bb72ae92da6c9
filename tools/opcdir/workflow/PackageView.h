#pragma once

#include <opccore/FileSystemOps.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace opcdir {

// An entry among the parts of a folder package that is not a part: the
// library lists only regular files, so a commit drops it.
struct StrayEntry {
    std::string name;  // as a part name would be: "/word/link.xml"
    std::string kind;  // "symbolic link", "FIFO", "socket", "device"
};

// The parts of a package, read without changing anything, whether the
// package is a folder (read through the library) or a ZIP package file.
// Every failure is a Failure whose subject is the package as the user named it.
class PackageView {
public:
    using Sink = std::function<void(const char*, std::size_t)>;

    // A folder opens as a folder package; anything else is read as a ZIP
    // package file.
    static std::unique_ptr<PackageView> open(opc::FileSystemOps& fileSystem, const std::string& argument);

    virtual ~PackageView() = default;
    PackageView(const PackageView&) = delete;
    PackageView& operator=(const PackageView&) = delete;

    const std::string& subject() const { return name; }

    // Every part name, "/[Content_Types].xml" included when present, in byte
    // order. A ZIP file's folder entries are not parts.
    virtual const std::vector<std::string>& partNames() const = 0;

    // Passes the part's bytes to sink piece by piece.
    // REQUIRES: partName is one of partNames().
    virtual void read(const std::string& partName, const Sink& sink) = 0;

    // The whole content of a part.
    std::string readAll(const std::string& partName);

    // What lies among the parts without being one; never anything for a ZIP
    // file.
    virtual std::vector<StrayEntry> strays() { return {}; }

protected:
    explicit PackageView(std::string subject) : name(std::move(subject)) {}

private:
    std::string name;
};

}  // namespace opcdir
