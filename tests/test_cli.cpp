// The vantix command-line tool run as a separate process: what each command
// line maps to, its exit status (0 done, 1 failed with a reason, 2 wrong
// command line) and the outputs of the sizes and types asked for; and the
// demo: its printed figures against the simulated camera's truth, and its
// report rendered in headless Chromium (Debian's chromium), where every
// embedded image must load.

#include <sys/wait.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include <opencv2/imgcodecs.hpp>

#include "support/test_support.h"

namespace {

namespace fs = std::filesystem;

std::string slurp(const fs::path& file) {
  std::ifstream in(file);
  return {std::istreambuf_iterator<char>(in), {}};
}

// A new empty folder under /tmp (an empty path if none could be made).
fs::path freshFolder() {
  char pattern[] = "/tmp/vantix_cli_XXXXXX";
  return mkdtemp(pattern) != nullptr ? pattern : "";
}

// Runs the tool in `dir`, its output going to out.txt and err.txt there.
int run(const fs::path& dir, const std::string& args) {
  const std::string command =
      "cd " + dir.string() + " && " VANTIX_TOOL_PATH " " + args + " >out.txt 2>err.txt";
  const int status = std::system(command.c_str());
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
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

struct Case {
  std::string args;  // run in the test's folder, where the inputs are
  int status;
  std::string says;  // in stdout when the status is 0, else on stderr
  cv::Size size{};   // of o.tif, which the command writes, within `slack`, if given
  int type = CV_8UC3;
  int slack = 0;
};

TEST(Cli, CommandLinesMapToTheirWorkAndStatus) {
  const fs::path dir = freshFolder();
  ASSERT_FALSE(dir.empty());
  const auto write = [&](const std::string& name, const cv::Mat& image) {
    EXPECT_TRUE(cv::imwrite((dir / name).string(), image)) << name;
    return name;
  };

  write("in.png", vtest::texturedScene({30, 20}));
  // A flat colour (B G R 40 120 200) seen through an RGGB filter.
  write("raw.png", cv::repeat((cv::Mat_<uint8_t>(2, 2) << 200, 120, 120, 40), 8, 8));
  // A bright square with its top-left corner at (50, 40).
  cv::Mat square(100, 120, CV_8UC3, cv::Scalar::all(30));
  cv::rectangle(square, cv::Rect(50, 40, 14, 14), cv::Scalar::all(230), cv::FILLED);
  write("square.png", square);
  // A focus stack whose names sort differently as text and as numbers.
  fs::create_directory(dir / "stack");
  for (int i : {10, 2, 1})
    write("stack/f" + std::to_string(i) + ".png", vtest::texturedScene({64, 48}));
  // Frames of 320 x 240 every 30 px along a row of a photograph: the scan
  // covers 530 x 240.  Flat frames give the registration nothing.
  const cv::Mat photo = vtest::photo("aloeL.jpg");
  std::string scan, flat;
  for (int x = 0; x <= 210; x += 30) {
    scan += " " + write(cv::format("s%03d.png", x), photo(cv::Rect(100 + x, 100, 320, 240)));
  }
  for (int i = 0; i < 6; ++i) {
    flat += " " + write(cv::format("g%d.png", i), cv::Mat(120, 160, CV_8UC3, cv::Scalar::all(90)));
  }
  // A round beam (4-sigma diameter 20 px) centred at (30.5, 20), 12 bits in
  // 16-bit samples.
  write("b16.png", vtest::beamImage(64, 48, {30.5, 20, 5, 5, 0, 4095}, CV_16UC1));

  const Case cases[] = {
      {"--help", 0, "Exit status: 0 success, 1 failure, 2 wrong command line."},
      {"stitch --help --bogus", 0, "--whole-canvas"},
      {"in.png out.png", 2, "unknown command 'in.png'"},
      {"resize in.png o.png", 2, "resize: --size is required"},
      {"resize in.png o.png --size 3y4", 2, "is not WIDTHxHEIGHT"},
      {"edf in.png -o o.png --kind sharpest", 2, "pyramid_max"},
      {"stitch in.png -o o.png --crop --whole-canvas", 2, "excludes"},
      {"stitch in.png -o o.png --strict-level 5", 2, "strict-level"},
      {"spot in.png --average 3", 2, "--average 3 needs at least 3 images"},
      {"resize missing.png o.png --size 8x8", 1, "missing.png"},
      {"demosaic raw.png o.png --pattern rggb --bits 12", 1, "16-bit"},
      // Names and aliases of the name table, case ignored.
      {"resize in.png o.tif --size 61x41 --interp LANCZOS4", 0, "interpolation lanczos", {61, 41}},
      {"demosaic raw.png c.tif --pattern rggb --bits 8 --order rgb --algorithm ea", 0, ""},
      {"edge square.png 44 35", 0, "snapped (44,35) -> (50,40)\n"},
      {"edge square.png 44 35 --size 6", 0, "no edge within 6 px of (44,35)\n"},
      // A folder gives its images in number order.
      {"edf stack -o o.tif --format 1", 0, "frame 3 of 3: stack/f10.png", {64, 48}, CV_16UC3},
      {"stitch" + scan + " -o o.tif", 0, "", {530, 240}, CV_8UC3, 4},
      // A panorama is written all the same, and the reasons follow.
      {"stitch" + flat + " -o o.tif", 1, "5 of 6 frames were not placed", {160, 120}},
      // Centre column and row.
      {"spot b16.png --passes 3", 0, "30.500    20.000"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.args);
    fs::remove(dir / "o.tif");
    const int status = run(dir, c.args);
    const std::string out = slurp(dir / "out.txt"), err = slurp(dir / "err.txt");
    EXPECT_EQ(status, c.status) << err;
    EXPECT_NE((c.status == 0 ? out : err).find(c.says), std::string::npos) << out << err;
    // Failures give their reason; usage errors exactly one line of it.
    EXPECT_TRUE(c.status == 0 || err.rfind("vantix: ", 0) == 0) << err;
    EXPECT_TRUE(c.status != 2 || (err.find('\n') == err.size() - 1 && out.empty())) << err;
    if (!c.size.empty()) {
      const cv::Mat image = cv::imread((dir / "o.tif").string(), cv::IMREAD_UNCHANGED);
      EXPECT_EQ(image.type(), c.type);
      EXPECT_NEAR(image.cols, c.size.width, c.slack);
      EXPECT_NEAR(image.rows, c.size.height, c.slack);
    }
  }
  // Asked for R G B, the tool still writes the true colours.
  const cv::Mat colour = cv::imread((dir / "c.tif").string());
  ASSERT_EQ(colour.size(), cv::Size(16, 16));
  EXPECT_EQ(colour.at<cv::Vec3b>(8, 8), cv::Vec3b(40, 120, 200));
  fs::remove_all(dir);
}

TEST(Cli, DemoFiguresMeetTheTruthAndEveryImageLoads) {
  const fs::path dir = freshFolder();
  ASSERT_FALSE(dir.empty());
  // A relative --out: the report's path is printed absolute all the same.
  ASSERT_EQ(run(dir, "demo --out out"), 0) << slurp(dir / "err.txt");
  const std::string out = slurp(dir / "out.txt");
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
