// Human-readable names of the library's result codes (the library itself has
// no error text).
#pragma once

#include <string>

#include <vantix.h>

namespace vtool {

// "E_INVALIDARG (0x80070057)"; codes without a name give "0x%08X" alone.
std::string resultName(VantixResult result);

}  // namespace vtool
