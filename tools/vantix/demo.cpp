#include "tool.h"
namespace vtool {
Runner addDemo(CLI::App& app) {
  app.add_subcommand("demo", "run the library on sample images; write PNG results and a report");
  return [] { return 0; };
}
}
