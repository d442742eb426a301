// Demo step placeholder until the spot demo is written.
#include "demo.h"

namespace vtool {

void demoSpot(DemoContext&) { say("not available yet"); }

}  // namespace vtool
