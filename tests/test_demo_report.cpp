// "vantix demo" as a person sees it: the progress it prints, and its HTML
// report rendered in headless Chromium (Debian's chromium package), where
// every embedded image has to load.  The demo runs once, from its own
// folder with a relative --out, and the tests look at what it left.
#include <gtest/gtest.h>

#include <sys/wait.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <opencv2/core/utility.hpp>
#include <opencv2/imgcodecs.hpp>

namespace {

namespace fs = std::filesystem;

constexpr char kChromium[] = "/usr/bin/chromium";

std::string slurp(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

void spit(const fs::path& file, const std::string& text) {
  std::ofstream(file, std::ios::binary) << text;
}

std::string quote(const std::string& arg) {
  std::string quoted = "'";
  for (char c : arg) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

int shell(const std::string& command) {
  const int status = std::system(command.c_str());
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + (WIFSIGNALED(status) ? WTERMSIG(status) : 0);
}

size_t countOf(const std::string& text, const std::string& needle) {
  size_t count = 0;
  for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) {
    ++count;
  }
  return count;
}

std::vector<std::string> lines(const std::string& text) {
  std::vector<std::string> out;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) out.push_back(line);
  return out;
}

// Plain base64 decoding (the standard alphabet, '=' padding).
std::vector<uint8_t> unbase64(const std::string& text) {
  std::vector<uint8_t> out;
  uint32_t bits = 0;
  int count = 0;
  for (char c : text) {
    int value;
    if (c >= 'A' && c <= 'Z') value = c - 'A';
    else if (c >= 'a' && c <= 'z') value = c - 'a' + 26;
    else if (c >= '0' && c <= '9') value = c - '0' + 52;
    else if (c == '+') value = 62;
    else if (c == '/') value = 63;
    else break;  // '=' or the end of the attribute
    bits = (bits << 6) | static_cast<uint32_t>(value);
    count += 6;
    if (count >= 8) {
      count -= 8;
      out.push_back(static_cast<uint8_t>(bits >> count));
    }
  }
  return out;
}

struct EmbeddedImage {
  std::string alt;
  std::string mime;
  cv::Mat image;  // decoded; empty when the data does not decode
};

// Every <img> of the page, found by plain text search.
std::vector<EmbeddedImage> embeddedImages(const std::string& html) {
  std::vector<EmbeddedImage> images;
  for (size_t at = html.find("<img "); at != std::string::npos; at = html.find("<img ", at + 1)) {
    const size_t end = html.find('>', at);
    const std::string tag = html.substr(at, end - at);
    EmbeddedImage image;
    const size_t alt = tag.find("alt=\"");
    if (alt != std::string::npos) image.alt = tag.substr(alt + 5, tag.find('"', alt + 5) - alt - 5);
    const size_t src = tag.find("src=\"data:");
    if (src != std::string::npos) {
      const size_t comma = tag.find(";base64,", src);
      image.mime = tag.substr(src + 10, comma - src - 10);
      const std::vector<uint8_t> bytes = unbase64(tag.substr(comma + 8));
      if (!bytes.empty()) image.image = cv::imdecode(bytes, cv::IMREAD_UNCHANGED);
    }
    images.push_back(image);
  }
  return images;
}

// The value of attribute `name` in the element that has id `id`.
int attributeOf(const std::string& dom, const std::string& id, const std::string& name) {
  const size_t at = dom.find("id=\"" + id + "\"");
  if (at == std::string::npos) return -1;
  const size_t end = dom.find('>', at);
  const size_t attribute = dom.find(name + "=\"", at);
  if (attribute == std::string::npos || attribute > end) return -1;
  return std::atoi(dom.c_str() + attribute + name.size() + 2);
}

// Marks every image as loaded or broken once the page has loaded, and sums
// up in a <div id="vantix-check">: images, loaded, svg (drawn plots).
constexpr char kCheckScript[] = R"(<script>
window.addEventListener('load', function () {
  var images = Array.prototype.slice.call(document.images);
  var loaded = 0;
  images.forEach(function (img) {
    var ok = img.complete && img.naturalWidth > 0 && img.naturalHeight > 0;
    img.setAttribute('data-check', ok ? 'loaded' : 'broken');
    if (ok) loaded++;
  });
  var plots = Array.prototype.slice.call(document.querySelectorAll('svg')).filter(function (svg) {
    var box = svg.getBoundingClientRect();
    return box.width > 0 && box.height > 0 && svg.querySelector('polyline') !== null;
  });
  var mark = document.createElement('div');
  mark.id = 'vantix-check';
  mark.setAttribute('data-images', images.length);
  mark.setAttribute('data-loaded', loaded);
  mark.setAttribute('data-svg', plots.length);
  document.body.appendChild(mark);
});
</script>
)";

class DemoReport : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    char pattern[] = "/tmp/vantix_demo_report_XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = new fs::path(pattern);
    // A relative --out: the report path printed at the end must still be
    // absolute, to be pasted into a browser.
    status_ = shell("cd " + quote(dir_->string()) + " && " + quote(VANTIX_TOOL_PATH) +
                    " demo --out out >stdout.txt 2>stderr.txt");
    out_ = new std::string(slurp(*dir_ / "stdout.txt"));
    err_ = new std::string(slurp(*dir_ / "stderr.txt"));
    html_ = new std::string(slurp(*dir_ / "out" / "report.html"));
  }
  static void TearDownTestSuite() {
    std::error_code ignored;
    fs::remove_all(*dir_, ignored);
    delete dir_;
    delete out_;
    delete err_;
    delete html_;
  }

  // Renders `page` (a copy of the report with the check script) in headless
  // Chromium and returns the DOM after the page's load.  Chromium is not
  // built with the sanitizers: it gets an environment without their
  // settings, a profile of its own and a time limit.
  static std::string render(const std::string& page, const std::string& name) {
    const fs::path file = *dir_ / (name + ".html");
    spit(file, page);
    const fs::path dom = *dir_ / (name + ".dom");
    const std::string command =
        "env -u LD_PRELOAD -u ASAN_OPTIONS -u UBSAN_OPTIONS -u LSAN_OPTIONS -u TSAN_OPTIONS "
        "HOME=" + quote(dir_->string()) + " timeout 90 " + std::string(kChromium) +
        " --headless --no-sandbox --disable-gpu --disable-dev-shm-usage --no-first-run"
        " --user-data-dir=" + quote((*dir_ / "chromium-profile").string()) +
        " --virtual-time-budget=5000 --dump-dom " + quote("file://" + file.string()) + " >" +
        quote(dom.string()) + " 2>" + quote((*dir_ / (name + ".log")).string());
    const int status = shell(command);
    EXPECT_EQ(status, 0) << "chromium failed:\n" << slurp(*dir_ / (name + ".log"));
    return slurp(dom);
  }

  static std::string withCheck(const std::string& html) {
    std::string page = html;
    const size_t body = page.rfind("</body>");
    EXPECT_NE(body, std::string::npos);
    if (body != std::string::npos) page.insert(body, kCheckScript);
    return page;
  }

  static fs::path* dir_;
  static int status_;
  static std::string* out_;
  static std::string* err_;
  static std::string* html_;
};

fs::path* DemoReport::dir_ = nullptr;
int DemoReport::status_ = -1;
std::string* DemoReport::out_ = nullptr;
std::string* DemoReport::err_ = nullptr;
std::string* DemoReport::html_ = nullptr;

TEST_F(DemoReport, ConsoleShowsNumberedStepsCompactProgressAndTheReportPath) {
  ASSERT_EQ(status_, 0) << *err_ << *out_;
  EXPECT_EQ(*err_, "");
  const std::vector<std::string> text = lines(*out_);
  // The six steps announce themselves in order.
  size_t from = 0;
  for (int step = 1; step <= 6; ++step) {
    const std::string tag = "[" + std::to_string(step) + "/6] ";
    const auto found = std::find_if(text.begin() + static_cast<long>(from), text.end(),
                                    [&](const std::string& line) { return line.rfind(tag, 0) == 0; });
    ASSERT_NE(found, text.end()) << tag << " missing or out of order:\n" << *out_;
    from = static_cast<size_t>(found - text.begin()) + 1;
  }
  // Not a terminal: no carriage returns, a few progress lines a long step
  // (not one a frame), and the final count of each.
  EXPECT_EQ(out_->find('\r'), std::string::npos);
  for (const char* progress : {"frames fused", "frames stitched", "frames measured"}) {
    SCOPED_TRACE(progress);
    const size_t count = countOf(*out_, std::string("  ") + progress + " ");
    EXPECT_GE(count, 2u);
    EXPECT_LE(count, 5u);
  }
  EXPECT_NE(out_->find("frames stitched 204/204 done"), std::string::npos) << *out_;
  EXPECT_NE(out_->find("frames measured 32/32 done"), std::string::npos) << *out_;
  EXPECT_LT(text.size(), 70u) << "per-frame tables belong in the report:\n" << *out_;

  const fs::path report = *dir_ / "out" / "report.html";
  EXPECT_EQ(text.back(), "Open " + report.string() + " in a browser");
  EXPECT_NE(out_->find("Report: " + report.string()), std::string::npos);
  EXPECT_NE(out_->find((*dir_ / "out" / "stitch-panorama.png").string()), std::string::npos);
}

TEST_F(DemoReport, AccuracyFiguresAgainstTheSimulatorAreGoodAndInTheReport) {
  ASSERT_EQ(status_, 0) << *err_ << *out_;
  int placed = 0;
  unsigned frames = 0;
  double mean = -1, worst = -1;
  const size_t stitch = out_->find("frames placed;");
  ASSERT_NE(stitch, std::string::npos) << *out_;
  const size_t line = out_->rfind('\n', stitch) + 1;
  ASSERT_EQ(std::sscanf(out_->c_str() + line, " %d of %u frames placed; placement error mean %lf "
                                              "px, max %lf px",
                        &placed, &frames, &mean, &worst),
            4);
  EXPECT_GE(placed * 10, static_cast<int>(frames) * 9) << "most frames of a smooth scan place";
  EXPECT_LT(worst, 2.0) << "placements against the camera's true positions";
  // The report quotes the same figures.
  char figures[160];
  std::snprintf(figures, sizeof figures, "%d of %u frames placed; placement error against the "
                "true camera positions: mean %.2f px, max %.2f px", placed, frames, mean, worst);
  EXPECT_NE(html_->find(figures), std::string::npos) << figures;

  double diameterError = -1;
  const size_t spot = out_->find("largest diameter error: ");
  ASSERT_NE(spot, std::string::npos);
  ASSERT_EQ(std::sscanf(out_->c_str() + spot, "largest diameter error: %lf", &diameterError), 1);
  EXPECT_LT(diameterError, 1.0) << "4-sigma diameters of a Gaussian of known sigma";
  std::snprintf(figures, sizeof figures, "largest diameter error %.2f px", diameterError);
  EXPECT_NE(html_->find(figures), std::string::npos) << figures;

  // The best fusion beats the sharpest single frame of the sweep.
  const size_t edf = html_->find("Best fusion (kind ");
  ASSERT_NE(edf, std::string::npos);
  unsigned kind = 9;
  double fused = 0, fusedSharpness = 0, slice = 0;
  ASSERT_EQ(std::sscanf(html_->c_str() + edf, "Best fusion (kind %u, %*[^)]): %lf dB, sharpness "
                                               "%lf; sharpest single frame: %lf dB",
                        &kind, &fused, &fusedSharpness, &slice),
            4);
  EXPECT_GT(fused, slice + 3.0);
}

// The foundation steps ran on the sample photos: the photos are named, the
// resized copies have the sizes asked for, the bilinear demosaic keeps the
// colours (a channel mix-up stays far below 30 dB) and most clicks snap.
TEST_F(DemoReport, FoundationStepsUseTheSamplePhotos) {
  ASSERT_EQ(status_, 0) << *err_ << *out_;
  if (!fs::exists("/usr/share/doc/opencv-doc/examples/data/baboon.jpg")) {
    GTEST_SKIP() << "opencv-doc sample images are not installed";
  }
  for (const char* photo : {"baboon.jpg", "fruits.jpg", "building.jpg"}) {
    EXPECT_NE(out_->find(photo), std::string::npos) << photo;
  }
  const auto sizeOf = [](const char* file) {
    return cv::imread((*dir_ / "out" / file).string(), cv::IMREAD_UNCHANGED).size();
  };
  EXPECT_EQ(sizeOf("resize-down.png"), cv::Size(256, 256));
  EXPECT_EQ(sizeOf("resize-up.png"), cv::Size(1024, 1024));
  const size_t at = out_->find("bilinear");
  ASSERT_NE(at, std::string::npos);
  double milliseconds = 0, psnr = 0;
  ASSERT_EQ(std::sscanf(out_->c_str() + at, "bilinear %lf ms PSNR %lf", &milliseconds, &psnr), 2);
  EXPECT_GT(psnr, 30.0);
  const size_t summary = out_->find("clicks snapped");
  ASSERT_NE(summary, std::string::npos);
  int snapped = 0, clicks = 0;
  ASSERT_EQ(std::sscanf(out_->c_str() + out_->rfind('\n', summary) + 1, " %d of %d", &snapped,
                        &clicks),
            2);
  EXPECT_GE(clicks, 6);
  EXPECT_GE(snapped * 4, clicks * 3) << "clicks next to edges mostly snap";
}

TEST_F(DemoReport, ReportIsOneFileWithDecodableImagesAndPlots) {
  ASSERT_EQ(status_, 0) << *err_ << *out_;
  ASSERT_FALSE(html_->empty());
  // Self-contained: no scripts, no links out, nothing to fetch.
  EXPECT_EQ(html_->find("<script"), std::string::npos);
  EXPECT_EQ(html_->find("http://"), std::string::npos);
  EXPECT_EQ(html_->find("https://"), std::string::npos);
  EXPECT_EQ(countOf(*html_, "src=\""), countOf(*html_, "src=\"data:image/"));

  const std::vector<EmbeddedImage> images = embeddedImages(*html_);
  ASSERT_GE(images.size(), 12u);
  for (const EmbeddedImage& image : images) {
    SCOPED_TRACE(image.alt);
    EXPECT_TRUE(image.mime == "image/png" || image.mime == "image/jpeg") << image.mime;
    ASSERT_FALSE(image.image.empty()) << "does not decode";
    EXPECT_LE(image.image.cols, 1600);
  }
  // The pictures a visitor looks for, each with the file it shows.
  for (const char* file : {"stitch-panorama.png", "edf-sharpest-slice.png", "edf-kind2.png",
                           "spot-beam.png", "spot-track.png", "edge-snap.png",
                           "demosaic-bilinear.png", "resize-down.png", "resize-up.png"}) {
    SCOPED_TRACE(file);
    const auto found = std::find_if(images.begin(), images.end(), [&](const EmbeddedImage& i) {
      return i.alt.rfind(file, 0) == 0;
    });
    ASSERT_NE(found, images.end());
    // The page copy shows the whole picture: the aspect of the full-size file.
    const cv::Mat full = cv::imread((*dir_ / "out" / file).string(), cv::IMREAD_UNCHANGED);
    ASSERT_FALSE(full.empty());
    EXPECT_NEAR(static_cast<double>(found->image.cols) / found->image.rows,
                static_cast<double>(full.cols) / full.rows, 0.01);
  }

  // The diameters plot: measured and true dX and dY, one point a frame.
  const size_t plot = html_->find("aria-label=\"Beam diameters over the frames\"");
  ASSERT_NE(plot, std::string::npos);
  const std::string svg = html_->substr(plot, html_->find("</svg>", plot) - plot);
  EXPECT_EQ(countOf(svg, "<polyline"), 4u);
  for (size_t at = svg.find("points=\""); at != std::string::npos;
       at = svg.find("points=\"", at + 1)) {
    const std::string points = svg.substr(at + 8, svg.find('"', at + 8) - at - 8);
    EXPECT_EQ(countOf(points, ","), 32u);
  }
  for (const char* series : {"dX measured", "dY measured", "dX true", "dY true"}) {
    EXPECT_NE(svg.find(series), std::string::npos) << series;
  }

  // Versions and the timings of every step.
  EXPECT_NE(html_->find(cv::getVersionString()), std::string::npos);
  EXPECT_NE(html_->find("libvantix:</b> 1."), std::string::npos);
  const size_t timings = html_->find("<section id=\"timings\">");
  ASSERT_NE(timings, std::string::npos);
  for (const char* step : {"resize", "demosaic", "edge snapping", "extended depth of field",
                           "live stitching", "spot measurement", "all steps"}) {
    EXPECT_NE(html_->find(std::string("<td>") + step + "</td>", timings), std::string::npos)
        << step;
  }
}

TEST_F(DemoReport, EveryImageLoadsInChromiumAndABrokenOneIsCaught) {
  ASSERT_EQ(status_, 0) << *err_ << *out_;
  ASSERT_TRUE(fs::exists(kChromium))
      << kChromium << " is missing: install Debian's chromium package "
      << "(apt-get install --no-install-recommends chromium)";
  const size_t images = countOf(*html_, "<img ");
  const size_t plots = countOf(*html_, "<svg ");
  ASSERT_GE(images, 12u);
  ASSERT_GE(plots, 2u);

  const std::string dom = render(withCheck(*html_), "checked");
  ASSERT_NE(dom.find("id=\"vantix-check\""), std::string::npos)
      << "the check did not run; DOM starts:\n" << dom.substr(0, 2000);
  EXPECT_EQ(attributeOf(dom, "vantix-check", "data-images"), static_cast<int>(images));
  EXPECT_EQ(attributeOf(dom, "vantix-check", "data-loaded"), static_cast<int>(images));
  EXPECT_EQ(attributeOf(dom, "vantix-check", "data-svg"), static_cast<int>(plots));
  EXPECT_EQ(countOf(dom, "data-check=\"loaded\""), images);

  // The check must notice a damaged image: the panorama's data loses its
  // file signature.
  std::string damaged = *html_;
  const size_t panorama = damaged.find("<img alt=\"stitch-panorama.png");
  ASSERT_NE(panorama, std::string::npos);
  const size_t data = damaged.find(";base64,", panorama) + 8;
  damaged.replace(data, 16, "AAAAAAAAAAAAAAAA");
  const std::string broken = render(withCheck(damaged), "damaged");
  EXPECT_EQ(attributeOf(broken, "vantix-check", "data-images"), static_cast<int>(images));
  EXPECT_EQ(attributeOf(broken, "vantix-check", "data-loaded"), static_cast<int>(images) - 1);
  EXPECT_EQ(countOf(broken, "data-check=\"broken\""), 1u);
}

}  // namespace
