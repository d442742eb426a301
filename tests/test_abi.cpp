// The shared library as a host sees it: its dynamic symbols, its soname, and
// every declared function resolvable after dlopen.
#include <dlfcn.h>

#include <fstream>
#include <regex>
#include <set>
#include <sstream>

#include "support/test_support.h"

// The public header's inline helpers and records as a C99 compiler sees
// them (header_c99.c): 1 when all give what the header documents.
extern "C" int vantix_header_c99_check(void);

namespace {

std::string runCommand(const std::string& command) {
  std::string output;
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return output;
  char buffer[4096];
  for (size_t n; (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;) output.append(buffer, n);
  pclose(pipe);
  return output;
}

// The functions the header declares: the name before the "(" that follows
// each VANTIX_API (inline helpers carry no VANTIX_API).
std::set<std::string> declaredFunctions() {
  std::ifstream in(VANTIX_SOURCE_DIR "/include/vantix.h");
  std::stringstream text;
  text << in.rdbuf();
  const std::string header = text.str();
  const std::regex declaration(R"(VANTIX_API\s+[\w\s*]*?\b(vantix_\w+)\s*\()");
  std::set<std::string> names;
  for (std::sregex_iterator at(header.begin(), header.end(), declaration), end; at != end; ++at)
    names.insert((*at)[1]);
  return names;
}

TEST(Abi, TheHeaderCompiledAsC99GivesWhatItDocuments) {
  EXPECT_EQ(vantix_header_c99_check(), 1);
}

TEST(Abi, ExportsExactlyTheThirtySevenDeclaredFunctions) {
  const std::set<std::string> declared = declaredFunctions();
  EXPECT_EQ(declared.size(), 37u);
  std::set<std::string> exported;
  std::istringstream lines(runCommand("nm -D --defined-only " VANTIX_LIB_SONAME_PATH));
  for (std::string address, type, name; lines >> address >> type >> name;) exported.insert(name);
  ASSERT_FALSE(exported.empty()) << "nm found no symbols in " VANTIX_LIB_SONAME_PATH;
  EXPECT_EQ(exported, declared);

  // A host loading the library resolves all of them (and nothing is left
  // unresolved in the library itself: RTLD_NOW).
  void* library = dlopen(VANTIX_LIB_SONAME_PATH, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(library, nullptr) << dlerror();
  for (const std::string& name : declared) EXPECT_NE(dlsym(library, name.c_str()), nullptr) << name;
  dlclose(library);

  EXPECT_NE(runCommand("objdump -p " VANTIX_LIB_PATH).find("SONAME               libvantix.so.1"),
            std::string::npos);
}

}  // namespace
