// vantix spot: placeholder until the subcommand is written.
#include "commands.h"
#include "errors.h"

namespace vtool {

namespace {

int run(const Args&) { throw ToolError("the spot command is not available yet"); }

}  // namespace

Command spotCommand() { return {"spot", "(not available yet)", "usage: vantix spot\n", {}, {}, &run}; }

}  // namespace vtool
