// vantix edf: placeholder until the subcommand is written.
#include "commands.h"
#include "errors.h"

namespace vtool {

namespace {

int run(const Args&) { throw ToolError("the edf command is not available yet"); }

}  // namespace

Command edfCommand() { return {"edf", "(not available yet)", "usage: vantix edf\n", {}, {}, &run}; }

}  // namespace vtool
