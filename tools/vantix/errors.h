// The tool's two kinds of failure.  Both end up as one "vantix: ..." line on
// stderr (see main.cpp); they differ only in the exit status.
#pragma once

#include <stdexcept>
#include <string>

namespace vtool {

// Something went wrong while doing the work: unreadable file, unsupported
// image, a library call that failed.  Exit status 1.
class ToolError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The command line itself is wrong: unknown option, missing or malformed
// argument.  Exit status 2.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace vtool
