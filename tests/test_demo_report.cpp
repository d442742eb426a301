// "vantix demo" run once: its figures against the simulated camera's truth,
// and its report rendered in headless Chromium (Debian's chromium), where
// every embedded image must load.
#include <gtest/gtest.h>

#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace {

namespace fs = std::filesystem;

std::string slurp(const fs::path& file) {
  std::ifstream in(file);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

size_t countOf(const std::string& text, const std::string& part) {
  size_t count = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
  return count;
}

// Counts, once the page has loaded, the images that decoded and the plots
// drawn, into the body's data-loaded and data-plots attributes.
constexpr char kCheck[] =
    "<script>addEventListener('load', () => {"
    "const ok = [...document.images].filter(i => i.complete && i.naturalWidth > 0).length;"
    "document.body.setAttribute('data-loaded', ok);"
    "document.body.setAttribute('data-plots', document.querySelectorAll('svg polyline').length);"
    "});</script>";

TEST(DemoReport, FiguresMatchTheTruthAndEveryImageLoads) {
  char pattern[] = "/tmp/vantix_demo_XXXXXX";
  ASSERT_NE(mkdtemp(pattern), nullptr);
  const fs::path dir = pattern;
  // A relative --out: the report's path is printed absolute all the same.
  ASSERT_EQ(std::system(("cd " + dir.string() +
                         " && " VANTIX_TOOL_PATH " demo --out out >stdout.txt 2>stderr.txt")
                            .c_str()),
            0)
      << slurp(dir / "stderr.txt");
  const std::string out = slurp(dir / "stdout.txt");
  const fs::path report = dir / "out" / "report.html";
  EXPECT_NE(out.find("Open " + report.string() + " in a browser"), std::string::npos) << out;
  for (const char* file :
       {"stitch-panorama.png", "edf-sharpest-slice.png", "edf-kind2.png", "spot-track.png",
        "edge-snap.png", "demosaic-bilinear.png", "resize-up.png"}) {
    EXPECT_TRUE(fs::exists(dir / "out" / file)) << file;
  }

  // Stitch placements and spot diameters against the camera's truth; the
  // fusion beats the sharpest single frame of the sweep.
  const std::string html = slurp(report);
  unsigned placed = 0, frames = 0;
  double mean = 0, worst = 99, diameter = 99, fused = 0, slice = 99;
  const char* at = html.c_str();
  const size_t sentence = html.rfind('>', html.find(" frames placed;")) + 1;
  ASSERT_EQ(std::sscanf(at + sentence,
                        "%u of %u frames placed; placement error against the true "
                        "camera positions: mean %lf px, max %lf",
                        &placed, &frames, &mean, &worst),
            4);
  EXPECT_GE(placed * 10, frames * 9);
  EXPECT_LT(worst, 2.0);
  ASSERT_NE(std::strstr(at, "largest diameter error "), nullptr);
  std::sscanf(std::strstr(at, "largest diameter error "), "largest diameter error %lf", &diameter);
  EXPECT_LT(diameter, 1.0);
  ASSERT_NE(std::strstr(at, "Best fusion"), nullptr);
  std::sscanf(std::strstr(at, "Best fusion"),
              "Best fusion (kind %*u, %*[^)]): %lf dB; sharpest "
              "single frame: %lf dB",
              &fused, &slice);
  EXPECT_GT(fused, slice + 3.0);

  // Self-contained, and every image loads in a browser.
  EXPECT_EQ(html.find("<script"), std::string::npos);
  EXPECT_EQ(countOf(html, "src=\""), countOf(html, "src=\"data:image/"));
  const size_t images = countOf(html, "<img ");
  ASSERT_GE(images, 10u);
  std::string page = html;
  page.insert(page.rfind("</body>"), kCheck);
  std::ofstream(dir / "checked.html") << page;
  const std::string chromium =
      "env -u LD_PRELOAD -u ASAN_OPTIONS -u UBSAN_OPTIONS -u LSAN_OPTIONS -u TSAN_OPTIONS HOME=" +
      dir.string() +
      " timeout 120 /usr/bin/chromium --headless --no-sandbox --disable-gpu "
      "--disable-dev-shm-usage --no-first-run --user-data-dir=" +
      (dir / "profile").string() + " --virtual-time-budget=5000 --dump-dom file://" +
      (dir / "checked.html").string() + " >" + (dir / "dom.html").string() + " 2>/dev/null";
  ASSERT_EQ(std::system(chromium.c_str()), 0) << "chromium (Debian package) is needed";
  const std::string dom = slurp(dir / "dom.html");
  EXPECT_NE(dom.find("data-loaded=\"" + std::to_string(images) + "\""), std::string::npos)
      << dom.substr(0, 300);
  EXPECT_NE(dom.find("data-plots=\"5\""), std::string::npos);  // error; 4 diameters
  fs::remove_all(dir);
}

}  // namespace
