// vantix: command-line access to libvantix's image operations.
//
// Every failure ends as one line "vantix: ..." on stderr and a non-zero exit
// status: 2 for a wrong command line, 1 for work that failed.
#include <cstdio>
#include <exception>
#include <new>

#include <opencv2/core/utils/logger.hpp>

#include "tool.h"

namespace {

int fail(const std::string& message, int status) {
  std::fflush(stdout);
  std::fprintf(stderr, "vantix: %s\n", message.c_str());
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  // OpenCV's own warnings would add lines to the tool's one-line errors.
  cv::utils::logging::setLogLevel(cv::utils::logging::LOG_LEVEL_SILENT);
  CLI::App app("Image operations of libvantix from the command line.", "vantix");
  app.require_subcommand(1);
  app.get_formatter()->label("Usage", "usage");
  app.footer(
      "'vantix <command> --help' describes a command.\n"
      "Exit status: 0 success, 1 failure, 2 wrong command line.");
  std::vector<std::pair<CLI::App*, vtool::Runner>> commands;
  for (auto add : {vtool::addResize, vtool::addDemosaic, vtool::addEdge, vtool::addEdf,
                   vtool::addStitch, vtool::addSpot, vtool::addDemo}) {
    vtool::Runner run = add(app);
    commands.emplace_back(app.get_subcommands({}).back(), std::move(run));
  }
  // The subcommand a message is about: the one named on the command line.
  const auto chosen = [&]() -> std::string {
    for (const auto& command : commands) {
      if (command.first->parsed()) return command.first->get_name();
    }
    return "";
  };
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    if (e.get_exit_code() == 0) return app.exit(e);  // --help
    const std::string name = chosen();
    if (name.empty() && argc > 1 && argv[1][0] != '-') {
      return fail(std::string("unknown command '") + argv[1] + "' (see 'vantix --help')", 2);
    }
    const std::string where = name.empty() ? "" : name + ": ";
    return fail(where + e.what() + " (see 'vantix " + (name.empty() ? "" : name + " ") + "--help')",
                2);
  }
  const std::string name = chosen();
  try {
    vantix::init();
    for (auto& command : commands) {
      if (command.first->parsed()) return command.second();
    }
    return fail("missing command (see 'vantix --help')", 2);
  } catch (const vtool::UsageError& e) {
    return fail(name + ": " + e.what() + " (see 'vantix " + name + " --help')", 2);
  } catch (const cv::Exception& e) {
    return fail(name + ": OpenCV error: " + e.err, 1);
  } catch (const std::bad_alloc&) {
    return fail(name + ": out of memory", 1);
  } catch (const std::exception& e) {
    return fail(name + ": " + e.what(), 1);
  } catch (...) {
    return fail(name + ": internal error", 1);
  }
}
