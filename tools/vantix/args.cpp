#include "args.h"

#include <cctype>
#include <cerrno>
#include <cstdlib>

#include "errors.h"

namespace vtool {

void throwUsage(const std::string& message) { throw UsageError(message); }

bool equalsIgnoringCase(const std::string& a, const std::string& b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    if (std::tolower(static_cast<unsigned char>(a[i])) !=
        std::tolower(static_cast<unsigned char>(b[i]))) {
      return false;
    }
  }
  return true;
}

namespace {

// "-12" is a (negative) number, not an option.
bool looksLikeOption(const std::string& arg) {
  if (arg.size() < 2 || arg[0] != '-') return false;
  return !std::isdigit(static_cast<unsigned char>(arg[1]));
}

}  // namespace

Args::Args(std::string command, const std::vector<std::string>& argv,
           const std::vector<OptionSpec>& options,
           const std::vector<std::string>& positionalNames)
    : command_(std::move(command)) {
  // --help wins over every other problem of the command line.
  for (const std::string& arg : argv) {
    if (arg == "--help" || arg == "-h") {
      help_ = true;
      return;
    }
  }
  bool onlyPositionals = false;
  for (size_t i = 0; i < argv.size(); ++i) {
    std::string arg = argv[i];
    // "-x" stands for "--x" when the command has a one-letter option x.
    if (!onlyPositionals && arg.size() == 2 && arg[0] == '-' && arg[1] != '-') {
      for (const OptionSpec& candidate : options) {
        if (candidate.name == arg.substr(1)) arg = "-" + arg;
      }
    }
    if (onlyPositionals || !looksLikeOption(arg)) {
      positionals_.push_back(arg);
      continue;
    }
    if (arg == "--") {
      onlyPositionals = true;
      continue;
    }
    if (arg.compare(0, 2, "--") != 0) throwUsage("unknown option '" + arg + "'");
    const size_t equals = arg.find('=');
    const std::string name = arg.substr(2, equals == std::string::npos ? std::string::npos
                                                                       : equals - 2);
    const OptionSpec* spec = nullptr;
    for (const OptionSpec& candidate : options) {
      if (candidate.name == name) spec = &candidate;
    }
    if (spec == nullptr) throwUsage("unknown option '--" + name + "'");
    if (!spec->takesValue) {
      if (equals != std::string::npos) throwUsage("option '--" + name + "' takes no value");
      values_[name] = "";
    } else if (equals != std::string::npos) {
      values_[name] = arg.substr(equals + 1);
    } else if (i + 1 < argv.size()) {
      values_[name] = argv[++i];
    } else {
      throwUsage("option '--" + name + "' needs a value");
    }
    if (spec->takesValue && values_[name].empty()) {
      throwUsage("option '--" + name + "' needs a non-empty value");
    }
  }
  if (positionals_.size() < positionalNames.size()) {
    throwUsage("missing argument " + positionalNames[positionals_.size()]);
  }
  // A last name ending in "..." (as in "FRAME...") takes one or more arguments.
  const bool repeats = !positionalNames.empty() && positionalNames.back().size() > 3 &&
                       positionalNames.back().compare(positionalNames.back().size() - 3, 3,
                                                      "...") == 0;
  if (!repeats && positionals_.size() > positionalNames.size()) {
    throwUsage("unexpected argument '" + positionals_[positionalNames.size()] + "'");
  }
}

std::optional<std::string> Args::option(const std::string& name) const {
  const auto found = values_.find(name);
  if (found == values_.end()) return std::nullopt;
  return found->second;
}

int64_t parseInteger(const std::string& text, const std::string& what, int64_t min,
                     int64_t max) {
  errno = 0;
  char* end = nullptr;
  const long long value = std::strtoll(text.c_str(), &end, 10);
  if (text.empty() || *end != '\0' || errno == ERANGE || std::isspace(
      static_cast<unsigned char>(text[0]))) {
    throwUsage(what + " must be an integer, not '" + text + "'");
  }
  if (value < min || value > max) {
    throwUsage(what + " must be between " + std::to_string(min) + " and " +
               std::to_string(max) + ", not " + text);
  }
  return value;
}

cv::Size parseSize(const std::string& text, const std::string& what) {
  const size_t x = text.find_first_of("xX");
  const auto bad = [&]() {
    throwUsage(what + " must be WIDTHxHEIGHT with positive integers (e.g. 640x480), not '" +
               text + "'");
  };
  if (x == std::string::npos || x == 0 || x + 1 >= text.size()) bad();
  const std::string width = text.substr(0, x);
  const std::string height = text.substr(x + 1);
  for (const std::string& part : {width, height}) {
    for (char c : part) {
      if (!std::isdigit(static_cast<unsigned char>(c))) bad();
    }
  }
  constexpr int64_t kMax = 1 << 16;
  return cv::Size(static_cast<int>(parseInteger(width, what + " width", 1, kMax)),
                  static_cast<int>(parseInteger(height, what + " height", 1, kMax)));
}

}  // namespace vtool
