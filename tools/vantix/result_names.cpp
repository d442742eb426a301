#include "result_names.h"

#include <cstdio>

namespace vtool {

namespace {

struct NamedResult {
  VantixResult code;
  const char* name;
};

// The codes the library documents, then the common COM codes that a camera
// SDK may hand back unchanged through the pull functions.
constexpr NamedResult kNames[] = {
    {VANTIX_S_OK, "S_OK"},
    {VANTIX_E_NOTIMPL, "E_NOTIMPL"},
    {VANTIX_E_POINTER, "E_POINTER"},
    {VANTIX_E_INVALIDARG, "E_INVALIDARG"},
    {VANTIX_E_OUTOFMEMORY, "E_OUTOFMEMORY"},
    {VANTIX_E_FAIL, "E_FAIL"},
    {0x00000001u, "S_FALSE"},
    {0x80004002u, "E_NOINTERFACE"},
    {0x80004004u, "E_ABORT"},
    {0x8000FFFFu, "E_UNEXPECTED"},
    {0x80070005u, "E_ACCESSDENIED"},
    {0x80070006u, "E_HANDLE"},
};

}  // namespace

std::string resultName(VantixResult result) {
  char hex[16];
  std::snprintf(hex, sizeof hex, "0x%08X", static_cast<unsigned>(result));
  for (const NamedResult& entry : kNames) {
    if (entry.code == result) return std::string(entry.name) + " (" + hex + ")";
  }
  return hex;
}

}  // namespace vtool
