// Tests through the shared library as a host uses it: loaded with dlopen,
// reached only through the exported C functions.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <set>
#include <sstream>
#include <string>

#include <vantix.h>

namespace {

std::string runCommand(const std::string& command) {
  std::string output;
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return output;
  char buffer[4096];
  size_t n = 0;
  while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0) output.append(buffer, n);
  pclose(pipe);
  return output;
}

// Functions the header declares: the first vantix_ name after each
// VANTIX_API, which is the function's (return types carry no such name).
std::set<std::string> declaredFunctions() {
  std::ifstream in(VANTIX_SOURCE_DIR "/include/vantix.h");
  std::stringstream text;
  text << in.rdbuf();
  const std::string header = text.str();
  std::set<std::string> names;
  const std::string marker = "VANTIX_API ";
  for (size_t at = header.find(marker); at != std::string::npos;
       at = header.find(marker, at + 1)) {
    const size_t name = header.find("vantix_", at);
    const size_t open = header.find('(', at);
    if (name == std::string::npos || open == std::string::npos || name > open) continue;
    size_t end = name;
    while (end < header.size() && (std::isalnum(static_cast<unsigned char>(header[end])) ||
                                   header[end] == '_')) {
      ++end;
    }
    names.insert(header.substr(name, end - name));
  }
  return names;
}

// Every symbol the library defines in its dynamic symbol table.
std::set<std::string> exportedSymbols() {
  std::set<std::string> names;
  std::istringstream lines(runCommand("nm -D --defined-only " VANTIX_LIB_SONAME_PATH));
  std::string address, type, name;
  while (lines >> address >> type >> name) names.insert(name);
  return names;
}

// The families built so far; the whole interface is 37 functions.
const char* const kImplementedFamilies[] = {"vantix_init", "vantix_resize", "vantix_demosaic",
                                            "vantix_edge_", "vantix_edf_", "vantix_spot_",
                                            "vantix_stitch_"};

TEST(Abi, TheHeaderDeclaresThirtySevenFunctions) {
  EXPECT_EQ(declaredFunctions().size(), 37u);
}

TEST(Abi, ExportsExactlyTheDeclaredFunctionsOfTheBuiltFamilies) {
  const std::set<std::string> declared = declaredFunctions();
  const std::set<std::string> exported = exportedSymbols();
  ASSERT_FALSE(exported.empty()) << "nm found no symbols in " VANTIX_LIB_SONAME_PATH;
  for (const std::string& name : exported) {
    EXPECT_TRUE(declared.count(name)) << "exported but not declared in vantix.h: " << name;
  }
  for (const std::string& name : declared) {
    bool built = false;
    for (const char* family : kImplementedFamilies) built |= name.rfind(family, 0) == 0;
    if (built) {
      EXPECT_TRUE(exported.count(name)) << "declared but not exported: " << name;
    }
  }
}

TEST(Abi, SharedLibraryCarriesAVersionedSoname) {
  const std::string dynamic = runCommand("objdump -p " VANTIX_LIB_PATH);
  EXPECT_NE(dynamic.find("SONAME               libvantix.so.1"), std::string::npos) << dynamic;
}

class LoadedLibrary : public ::testing::Test {
 protected:
  void SetUp() override {
    handle_ = dlopen(VANTIX_LIB_SONAME_PATH, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(handle_, nullptr) << dlerror();
  }
  void TearDown() override {
    if (handle_ != nullptr) dlclose(handle_);
  }
  template <typename Fn>
  Fn get(const char* name) {
    void* symbol = dlsym(handle_, name);
    EXPECT_NE(symbol, nullptr) << name;
    return reinterpret_cast<Fn>(symbol);
  }
  void* handle_ = nullptr;
};

void* hostAllocate(uint64_t bytes) { return std::malloc(bytes); }

TEST_F(LoadedLibrary, EdgeSessionsNeedTheHostAllocator) {
  auto init = get<decltype(&vantix_init)>("vantix_init");
  auto edgeNew = get<decltype(&vantix_edge_new)>("vantix_edge_new");
  auto edgeDelete = get<decltype(&vantix_edge_delete)>("vantix_edge_delete");
  auto edgeGet = get<decltype(&vantix_edge_get)>("vantix_edge_get");
  ASSERT_TRUE(init && edgeNew && edgeDelete && edgeGet);

  EXPECT_EQ(edgeNew(0, 64, 48, 10), nullptr);  // before vantix_init
  init(hostAllocate);
  VantixEdge* edge = edgeNew(0, 64, 48, 10);
  ASSERT_NE(edge, nullptr);
  // A bright square on black: a click a few pixels off its top-left corner
  // snaps onto the corner (contours keep the corners of straight runs).
  std::vector<uint8_t> frame(64 * 3 * 48, 0);
  for (int y = 10; y < 40; ++y) {
    for (int x = 20; x < 50; ++x) {
      for (int c = 0; c < 3; ++c) frame[(y * 64 + x) * 3 + c] = 220;
    }
  }
  int32_t x = 17, y = 8;
  EXPECT_EQ(edgeGet(edge, frame.data(), &x, &y, 0), 1);
  EXPECT_NEAR(x, 20, 1.5);
  EXPECT_NEAR(y, 10, 1.5);
  EXPECT_EQ(edgeGet(edge, nullptr, &x, &y, 0), 0);
  edgeDelete(edge);
  edgeDelete(nullptr);

  init(nullptr);  // clears the allocator again
  EXPECT_EQ(edgeNew(0, 64, 48, 10), nullptr);
}

TEST_F(LoadedLibrary, ImageOperationsThroughTheExports) {
  auto resizeV1 = get<decltype(&vantix_resizeV1)>("vantix_resizeV1");
  auto resizeV2 = get<decltype(&vantix_resizeV2)>("vantix_resizeV2");
  auto demosaic = get<decltype(&vantix_demosaic)>("vantix_demosaic");
  ASSERT_TRUE(resizeV1 && resizeV2 && demosaic);

  // A 4x2 24-bit image (rows of 12 bytes) halved to 2x1 with nearest.
  alignas(8) uint8_t src[40 + 24] = {};
  alignas(8) uint8_t dst[40 + 8] = {};
  auto* sh = reinterpret_cast<VantixImageHeader*>(src);
  auto* dh = reinterpret_cast<VantixImageHeader*>(dst);
  *sh = VantixImageHeader{40, 4, 2, 1, 24, 0, 0, 0, 0, 0, 0};
  *dh = VantixImageHeader{40, 2, 1, 1, 24, 0, 0, 0, 0, 0, 0};
  for (int i = 0; i < 24; ++i) src[40 + i] = static_cast<uint8_t>(i * 10);
  EXPECT_EQ(resizeV1(sh, dh, VANTIX_INTER_NEAREST), VANTIX_S_OK);
  EXPECT_EQ(dst[40], 0);
  EXPECT_EQ(dst[43], 60);  // second output pixel = source pixel 2
  EXPECT_EQ(resizeV1(nullptr, dh, 0), VANTIX_E_POINTER);
  EXPECT_EQ(resizeV2(sh, 0, src + 40, dh, 0, dst + 40, 9), VANTIX_E_INVALIDARG);

  std::vector<uint8_t> raw(16 * 16, 100), out(16 * 16 * 4);
  EXPECT_EQ(demosaic(raw.data(), out.data(), 16, 16, 8, VANTIX_BAYER_RGGB, 1, 0), VANTIX_E_FAIL);
  EXPECT_EQ(out[8 * 64 + 8 * 4], 100);
  EXPECT_EQ(demosaic(raw.data(), out.data(), 16, 16, 12, VANTIX_BAYER_RGGB, 0, 1), VANTIX_E_NOTIMPL);
  EXPECT_TRUE(VANTIX_FAILED(VANTIX_E_FAIL));
  EXPECT_FALSE(VANTIX_FAILED(1u));
}

}  // namespace
