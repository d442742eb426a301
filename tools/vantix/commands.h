// The subcommands of the tool.  Adding one: write cmd_<name>.cpp defining a
// <name>Command() that returns its Command, declare it here and list it in
// the table of main.cpp.
#pragma once

#include <string>
#include <vector>

#include "args.h"

namespace vtool {

struct Command {
  const char* name;
  const char* summary;                    // one line for "vantix --help"
  const char* usage;                      // full text for "vantix <name> --help"
  std::vector<std::string> positionals;   // names of the required arguments
  std::vector<OptionSpec> options;
  int (*run)(const Args& args);           // returns the exit status
};

Command resizeCommand();
Command demosaicCommand();
Command edgeCommand();
Command edfCommand();
Command stitchCommand();
Command spotCommand();
Command demoCommand();

}  // namespace vtool
