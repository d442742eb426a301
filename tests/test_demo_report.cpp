// "vantix demo" run once: the figures it prints against the simulated
// camera's truth, and its report rendered in headless Chromium (Debian's
// chromium), where every embedded image must load.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace {

namespace fs = std::filesystem;

std::string slurp(const fs::path& file) {
  std::ifstream in(file);
  return {std::istreambuf_iterator<char>(in), {}};
}

// The number printed after `label` (NaN when the label is missing).
double after(const std::string& text, const std::string& label) {
  const size_t at = text.find(label);
  double value = NAN;
  if (at != std::string::npos) std::sscanf(text.c_str() + at + label.size(), "%lf", &value);
  return value;
}

size_t countOf(const std::string& text, const std::string& part) {
  size_t count = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
  return count;
}

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

  // Nine frames in ten placed within 2 px of the camera's true positions,
  // spot diameters within 1 px, and a fusion 3 dB above the sharpest frame.
  unsigned placed = 0, frames = 0;
  const size_t line = out.rfind('\n', out.find(" frames placed")) + 1;
  ASSERT_EQ(std::sscanf(out.c_str() + line, "%u of %u", &placed, &frames), 2) << out;
  EXPECT_GE(placed * 10, frames * 9);
  EXPECT_LT(after(out, " px, max "), 2.0) << out;
  EXPECT_LT(after(out, "largest diameter error "), 1.0) << out;
  EXPECT_GT(after(out.substr(out.find("Best fusion")), "): "),
            after(out, "sharpest single frame: ") + 3.0)
      << out;

  // Self-contained, and every image loads in a browser: a script added to
  // the page counts, once it has loaded, the images that decoded and the
  // plots drawn.
  const std::string html = slurp(report);
  EXPECT_EQ(html.find("<script"), std::string::npos);
  EXPECT_EQ(countOf(html, "src=\""), countOf(html, "src=\"data:image/"));
  const size_t images = countOf(html, "<img ");
  ASSERT_GE(images, 10u);
  std::string page = html;
  page.insert(page.rfind("</body>"),
              "<script>addEventListener('load', () => {"
              "const ok = [...document.images].filter(i => i.complete && i.naturalWidth > 0);"
              "document.body.setAttribute('data-loaded', ok.length);"
              "document.body.setAttribute('data-plots', "
              "document.querySelectorAll('svg polyline').length);"
              "});</script>");
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
