// Demo step placeholder until the edf demo is written.
#include "demo.h"

namespace vtool {

void demoEdf(DemoContext&) { say("not available yet"); }

}  // namespace vtool
