// The simulated camera now lives in testing/simcam/; this forwarder keeps
// existing includes building until they name the new place.
#include "../../testing/simcam/simcam_loader.h"
