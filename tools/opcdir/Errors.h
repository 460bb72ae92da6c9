#pragma once

#include <stdexcept>
#include <string>
#include <utility>

namespace opcdir {

// A failure reported as "opcdir: <subject>: <cause>" with exit status 1. The
// subject is the file or folder the failure is about, as the user spelled it.
class Failure : public std::runtime_error {
public:
    Failure(std::string subject, const std::string& cause)
        : std::runtime_error(cause), subjectName(std::move(subject)) {}
    const std::string& subject() const { return subjectName; }

private:
    std::string subjectName;
};

// A command line that cannot be carried out; exit status 2.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

}  // namespace opcdir
