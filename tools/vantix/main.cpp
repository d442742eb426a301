// vantix: command-line access to libvantix's image operations.
//
// Every failure ends as exactly one line "vantix: ..." on stderr and a
// non-zero exit status (2 for a wrong command line, 1 otherwise).
#include <cstdio>
#include <exception>
#include <new>
#include <string>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/core/utils/logger.hpp>

#include "commands.h"
#include "errors.h"

namespace {

using vtool::Command;

const std::vector<Command>& commandTable() {
  static const std::vector<Command> table = {
      vtool::resizeCommand(),
      vtool::demosaicCommand(),
      vtool::edgeCommand(),
      vtool::edfCommand(),
      vtool::stitchCommand(),
      vtool::spotCommand(),
      vtool::demoCommand(),
  };
  return table;
}

void printOverview(std::FILE* out) {
  std::fprintf(out,
               "usage: vantix <command> [arguments] [options]\n"
               "\n"
               "Image operations of libvantix from the command line.\n"
               "\n"
               "commands:\n");
  for (const Command& command : commandTable()) {
    std::fprintf(out, "  %-10s %s\n", command.name, command.summary);
  }
  std::fprintf(out,
               "\n"
               "'vantix <command> --help' describes a command.\n"
               "Exit status: 0 success, 1 failure, 2 wrong command line.\n");
}

int fail(const std::string& message, int status) {
  std::fflush(stdout);
  std::fprintf(stderr, "vantix: %s\n", message.c_str());
  return status;
}

int dispatch(int argc, char** argv) {
  if (argc < 2) return fail("missing command (see 'vantix --help')", 2);
  const std::string name = argv[1];
  if (name == "--help" || name == "-h" || name == "help") {
    if (name == "help" && argc > 2) {
      for (const Command& command : commandTable()) {
        if (command.name == std::string(argv[2])) {
          std::fputs(command.usage, stdout);
          return 0;
        }
      }
      return fail("unknown command '" + std::string(argv[2]) + "' (see 'vantix --help')", 2);
    }
    printOverview(stdout);
    return 0;
  }
  const Command* command = nullptr;
  for (const Command& candidate : commandTable()) {
    if (name == candidate.name) command = &candidate;
  }
  if (command == nullptr) return fail("unknown command '" + name + "' (see 'vantix --help')", 2);

  const std::vector<std::string> arguments(argv + 2, argv + argc);
  try {
    const vtool::Args args(command->name, arguments, command->options, command->positionals);
    if (args.helpRequested()) {
      std::fputs(command->usage, stdout);
      return 0;
    }
    return command->run(args);
  } catch (const vtool::UsageError& e) {
    return fail(std::string(command->name) + ": " + e.what() + " (see 'vantix " + command->name +
                    " --help')",
                2);
  } catch (const vtool::ToolError& e) {
    return fail(std::string(command->name) + ": " + e.what(), 1);
  } catch (const cv::Exception& e) {
    return fail(std::string(command->name) + ": OpenCV error: " + e.err, 1);
  } catch (const std::bad_alloc&) {
    return fail(std::string(command->name) + ": out of memory", 1);
  } catch (const std::exception& e) {
    return fail(std::string(command->name) + ": " + e.what(), 1);
  }
}

}  // namespace

int main(int argc, char** argv) {
  // OpenCV's own warnings would add lines to the tool's one-line errors.
  cv::utils::logging::setLogLevel(cv::utils::logging::LOG_LEVEL_SILENT);
  try {
    return dispatch(argc, argv);
  } catch (...) {
    return fail("internal error", 1);
  }
}
