// edf_fuse.cpp - the C++ layer (vantix.hpp).
//
// Two frames of a textured scene, each sharp on one half and blurred on the
// other, are fused by an EdfSession; the fused image is halved with
// vantix::resize and saved.  Failed calls throw vantix::Error.
//
//   ./edf_fuse [fused_half.ppm]
//
// Exits 1 when a call fails or the fused image is not closer to the sharp
// scene than either frame.
#include <vantix.hpp>

#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <vector>

namespace {

constexpr uint32_t W = 320, H = 240;

double meanDifference(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b) {
  double sum = 0;
  for (size_t i = 0; i < a.size(); ++i) sum += std::abs(a[i] - b[i]);
  return sum / static_cast<double>(a.size());
}

// The scene with a 5 x 5 box blur on its left or its right half.
std::vector<uint8_t> blurHalf(const std::vector<uint8_t>& scene, bool left) {
  std::vector<uint8_t> out = scene;
  for (uint32_t y = 2; y + 2 < H; ++y)
    for (uint32_t x = 2; x + 2 < W; ++x) {
      if ((x < W / 2) != left) continue;
      for (uint32_t c = 0; c < 3; ++c) {
        int sum = 0;
        for (uint32_t v = y - 2; v <= y + 2; ++v)
          for (uint32_t u = x - 2; u <= x + 2; ++u) sum += scene[(v * W + u) * 3 + c];
        out[(y * W + x) * 3 + c] = static_cast<uint8_t>(sum / 25);
      }
    }
  return out;
}

}  // namespace

int main(int argc, char** argv) try {
  const char* path = argc > 1 ? argv[1] : "fused_half.ppm";
  // Rows of 320 B G R pixels are 960 bytes, already a multiple of 4.
  std::vector<uint8_t> scene(W * H * 3);
  uint32_t seed = 1;
  for (uint8_t& v : scene) v = static_cast<uint8_t>((seed = seed * 1664525u + 1013904223u) >> 24);
  const std::vector<uint8_t> frames[2] = {blurHalf(scene, true), blurHalf(scene, false)};

  std::mutex m;
  std::condition_variable cv;
  int fused = 0;
  uint32_t error = 0;
  vantix::EdfSession session(
      [&](const vantix::EdfFrame&) {
        std::lock_guard<std::mutex> lock(m);
        ++fused;
        cv.notify_all();
      },
      [&](uint32_t code) {
        std::lock_guard<std::mutex> lock(m);
        error = code;
        cv.notify_all();
      });
  session.start();
  for (int i = 0; i < 2; ++i) {  // push each frame once the previous one is fused
    session.pushback(frames[i].data(), W, H);
    std::unique_lock<std::mutex> lock(m);
    cv.wait(lock, [&] { return fused > i || error != 0; });
    if (error != 0) {
      std::fprintf(stderr, "EDF error %s\n", vantix_edf_error_name(error));
      return 1;
    }
  }
  session.stop();
  std::vector<uint8_t> result(scene.size());
  session.readdata(result.data(), W * 3);

  std::vector<uint8_t> half(vantix_default_stride(W / 2, 24) * (H / 2));
  vantix::resize(vantix::ImageView(result.data(), W, H),
                 vantix::ImageView(half.data(), W / 2, H / 2), VANTIX_INTER_AREA);
  FILE* f = std::fopen(path, "wb");
  if (f == nullptr) return std::perror(path), 1;
  std::fprintf(f, "P6\n%u %u\n255\n", W / 2, H / 2);
  for (uint32_t i = 0; i < half.size(); i += 3) {  // B G R -> R G B
    const uint8_t rgb[3] = {half[i + 2], half[i + 1], half[i]};
    std::fwrite(rgb, 1, 3, f);
  }
  if (std::fclose(f) != 0) return std::perror(path), 1;

  const double d = meanDifference(result, scene), d0 = meanDifference(frames[0], scene),
               d1 = meanDifference(frames[1], scene);
  std::printf("fused %u x %u: mean difference to the sharp scene %.2f (frames %.2f, %.2f) -> %s\n",
              W, H, d, d0, d1, path);
  return d < 0.75 * std::fmin(d0, d1) ? 0 : 1;
} catch (const vantix::Error& e) {
  std::fprintf(stderr, "%s\n", e.what());
  return 1;
}
