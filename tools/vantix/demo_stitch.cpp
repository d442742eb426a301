// Demo step placeholder until the stitch demo is written.
#include "demo.h"

namespace vtool {

void demoStitch(DemoContext&) { say("not available yet"); }

}  // namespace vtool
