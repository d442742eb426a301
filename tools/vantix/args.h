// Command-line parsing shared by the subcommands.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <opencv2/core/types.hpp>

namespace vtool {

// One option of a subcommand: "--name VALUE" (or "--name=VALUE") when it
// takes a value, "--name" alone otherwise.
struct OptionSpec {
  std::string name;  // without the leading "--"
  bool takesValue;
  char shortName = 0;  // "-x" alias when not 0
};

// The parsed arguments of one subcommand.  Parsing throws UsageError for an
// unknown option, an option without its value, or a wrong number of
// positional arguments; "--help" anywhere only sets helpRequested.
class Args {
 public:
  // `positionalNames` are the names of the required positional arguments
  // (used in "missing IN" messages).  A last name ending in "..." takes
  // one or more arguments.
  Args(std::string command, const std::vector<std::string>& argv,
       const std::vector<OptionSpec>& options, const std::vector<std::string>& positionalNames);

  bool helpRequested() const { return help_; }
  const std::string& command() const { return command_; }
  const std::string& positional(size_t index) const { return positionals_.at(index); }
  size_t positionalCount() const { return positionals_.size(); }
  std::optional<std::string> option(const std::string& name) const;
  bool flag(const std::string& name) const { return values_.count(name) != 0; }

 private:
  std::string command_;
  bool help_ = false;
  std::vector<std::string> positionals_;
  std::map<std::string, std::string> values_;
};

// Value parsers; `what` names the argument in the message of the UsageError
// they throw.
int64_t parseInteger(const std::string& text, const std::string& what, int64_t min, int64_t max);
cv::Size parseSize(const std::string& text, const std::string& what);  // "WxH"
// Names of the library's numeric choices: names.h.

bool equalsIgnoringCase(const std::string& a, const std::string& b);
[[noreturn]] void throwUsage(const std::string& message);

}  // namespace vtool
