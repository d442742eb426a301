// vantix stitch: placeholder until the subcommand is written.
#include "commands.h"
#include "errors.h"

namespace vtool {

namespace {

int run(const Args&) { throw ToolError("the stitch command is not available yet"); }

}  // namespace

Command stitchCommand() { return {"stitch", "(not available yet)", "usage: vantix stitch\n", {}, {}, &run}; }

}  // namespace vtool
