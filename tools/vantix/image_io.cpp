#include "image_io.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <system_error>

#include <opencv2/imgcodecs.hpp>

#include "errors.h"

namespace vtool {

namespace fs = std::filesystem;

namespace {

// Image codecs (libpng, libjpeg, libtiff) print their own complaints about
// damaged files straight to stderr.  The tool reports problems in one line
// of its own, so stderr is pointed at /dev/null while a codec runs.
class QuietStderr {
 public:
  QuietStderr() {
    std::fflush(stderr);
    saved_ = ::dup(STDERR_FILENO);
    const int null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (saved_ >= 0 && null >= 0) ::dup2(null, STDERR_FILENO);
    if (null >= 0) ::close(null);
  }
  ~QuietStderr() {
    if (saved_ < 0) return;
    std::fflush(stderr);
    ::dup2(saved_, STDERR_FILENO);
    ::close(saved_);
  }
  QuietStderr(const QuietStderr&) = delete;
  QuietStderr& operator=(const QuietStderr&) = delete;

 private:
  int saved_ = -1;
};

std::string lowerExtension(const std::string& path) {
  std::string extension = fs::path(path).extension().string();
  std::transform(extension.begin(), extension.end(), extension.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return extension;
}

// Name order for a folder's files: runs of digits compare by value, so that
// frame2 comes before frame10; equal-valued runs ("7", "007") and everything
// else compare byte by byte.
bool nameBefore(const std::string& a, const std::string& b) {
  size_t i = 0, j = 0;
  while (i < a.size() && j < b.size()) {
    const bool digitA = std::isdigit(static_cast<unsigned char>(a[i])) != 0;
    const bool digitB = std::isdigit(static_cast<unsigned char>(b[j])) != 0;
    if (digitA && digitB) {
      size_t endA = i, endB = j;
      while (endA < a.size() && std::isdigit(static_cast<unsigned char>(a[endA]))) ++endA;
      while (endB < b.size() && std::isdigit(static_cast<unsigned char>(b[endB]))) ++endB;
      size_t startA = i, startB = j;
      while (startA + 1 < endA && a[startA] == '0') ++startA;
      while (startB + 1 < endB && b[startB] == '0') ++startB;
      const size_t lengthA = endA - startA, lengthB = endB - startB;
      if (lengthA != lengthB) return lengthA < lengthB;
      const int order = a.compare(startA, lengthA, b, startB, lengthB);
      if (order != 0) return order < 0;
      i = endA;
      j = endB;
      continue;
    }
    if (a[i] != b[j]) return static_cast<unsigned char>(a[i]) < static_cast<unsigned char>(b[j]);
    ++i;
    ++j;
  }
  if (a.size() - i != b.size() - j) return a.size() - i < b.size() - j;
  return a < b;
}

// Pages of a TIFF file (1 for any other file or when they cannot be counted:
// reading the file then reports the problem).
int pageCount(const std::string& path) {
  const std::string extension = lowerExtension(path);
  if (extension != ".tif" && extension != ".tiff") return 1;
  size_t count = 1;
  try {
    QuietStderr quiet;
    count = cv::imcount(path, cv::IMREAD_UNCHANGED);
  } catch (const cv::Exception&) {
    count = 1;
  }
  return count > 1 ? static_cast<int>(std::min<size_t>(count, 1u << 20)) : 1;
}

void addFile(const std::string& path, std::vector<FrameSource>& frames) {
  const int pages = pageCount(path);
  if (pages == 1) {
    frames.push_back({path, -1, 1});
    return;
  }
  for (int page = 0; page < pages; ++page) frames.push_back({path, page, pages});
}

}  // namespace

std::string FrameSource::label() const {
  if (page < 0) return path;
  return path + " page " + std::to_string(page + 1) + " of " + std::to_string(pages);
}

std::vector<FrameSource> listFrames(const std::vector<std::string>& paths) {
  std::vector<FrameSource> frames;
  for (const std::string& path : paths) {
    std::error_code error;
    const fs::file_status status = fs::status(path, error);
    if (!fs::exists(status)) throw ToolError("cannot open '" + path + "': no such file");
    if (!fs::is_directory(status)) {
      addFile(path, frames);
      continue;
    }
    std::vector<std::string> names;
    for (fs::directory_iterator it(path, error), end; !error && it != end; it.increment(error)) {
      const std::string name = it->path().filename().string();
      if (name.empty() || name[0] == '.') continue;
      std::error_code statError;
      if (!fs::is_regular_file(it->path(), statError)) continue;
      bool image = false;
      try {
        QuietStderr quiet;
        image = cv::haveImageReader(it->path().string());
      } catch (const cv::Exception&) {
        image = false;
      }
      if (image) names.push_back(name);
    }
    if (error) throw ToolError("cannot read folder '" + path + "': " + error.message());
    if (names.empty()) throw ToolError("folder '" + path + "' holds no image files");
    std::sort(names.begin(), names.end(), nameBefore);
    for (const std::string& name : names) addFile((fs::path(path) / name).string(), frames);
  }
  return frames;
}

cv::Mat readFrame(const FrameSource& source) {
  if (source.page < 0) return readImage(source.path);
  std::vector<cv::Mat> pages;
  try {
    QuietStderr quiet;
    cv::imreadmulti(source.path, pages, source.page, 1, cv::IMREAD_UNCHANGED);
  } catch (const cv::Exception&) {
    pages.clear();
  }
  if (pages.empty() || pages[0].empty()) {
    throw ToolError("cannot read " + source.label() + ": not an image OpenCV can decode");
  }
  return pages[0];
}

cv::Mat readImage(const std::string& path) {
  std::error_code error;
  const fs::file_status status = fs::status(path, error);
  if (!fs::exists(status)) throw ToolError("cannot open '" + path + "': no such file");
  if (fs::is_directory(status)) throw ToolError("cannot read '" + path + "': it is a directory");
  if (::access(path.c_str(), R_OK) != 0) {
    throw ToolError("cannot open '" + path + "': permission denied");
  }
  cv::Mat image;
  try {
    QuietStderr quiet;
    image = cv::imread(path, cv::IMREAD_UNCHANGED);
  } catch (const cv::Exception&) {
    image.release();
  }
  if (image.empty()) {
    throw ToolError("cannot read '" + path + "': not an image file OpenCV can decode");
  }
  return image;
}

bool formatHolds16Bit(const std::string& path) {
  const std::string extension = lowerExtension(path);
  for (const char* candidate : {".png", ".tif", ".tiff", ".pgm", ".ppm", ".pnm", ".pxm"}) {
    if (extension == candidate) return true;
  }
  return false;
}

void checkOutputPath(const std::string& path) {
  if (lowerExtension(path).empty()) {
    throw ToolError("cannot write '" + path +
                    "': give the file an extension that names its format (.png, .tif, .jpg)");
  }
  bool writable = false;
  try {
    writable = cv::haveImageWriter(path);
  } catch (const cv::Exception&) {
    writable = false;
  }
  if (!writable) {
    throw ToolError("cannot write '" + path + "': no image format for extension '" +
                    fs::path(path).extension().string() + "'");
  }
  const fs::path parent = fs::path(path).parent_path();
  std::error_code error;
  if (!parent.empty() && !fs::is_directory(parent, error)) {
    throw ToolError("cannot write '" + path + "': directory '" + parent.string() +
                    "' does not exist");
  }
  if (fs::is_directory(path, error)) {
    throw ToolError("cannot write '" + path + "': it is a directory");
  }
}

bool writeImage(const std::string& path, const cv::Mat& image) {
  checkOutputPath(path);
  cv::Mat out = image;
  bool reduced = false;
  if (image.depth() == CV_16U && !formatHolds16Bit(path)) {
    image.convertTo(out, CV_8U, 1.0 / 257.0);
    reduced = true;
  }
  bool written = false;
  try {
    QuietStderr quiet;
    written = cv::imwrite(path, out);
  } catch (const cv::Exception&) {
    written = false;
  }
  if (!written) throw ToolError("cannot write '" + path + "'");
  return reduced;
}

cv::Mat widenSamples(const cv::Mat& image, int bits, bool* clipped) {
  if (image.depth() != CV_16U || bits >= 16) return image;
  const int shift = 16 - bits;
  if (clipped != nullptr) *clipped = sampleDepth(image).bits > bits;
  cv::Mat wide;
  image.convertTo(wide, CV_16U, static_cast<double>(1 << shift));  // saturates
  return wide;
}

SampleDepth sampleDepth(const cv::Mat& image) {
  SampleDepth depth;
  if (image.empty()) return depth;
  cv::minMaxLoc(image.reshape(1), nullptr, &depth.largest);
  for (auto v = static_cast<uint32_t>(depth.largest); v > 0; v >>= 1) ++depth.bits;
  return depth;
}

std::string sampleDepthHint(const cv::Mat& first16Bit, int* suggested) {
  *suggested = 0;
  const SampleDepth depth = sampleDepth(first16Bit);
  if (first16Bit.depth() != CV_16U || depth.bits == 0 || depth.bits >= 16) return std::string();
  *suggested = std::max(depth.bits, 9);  // the least --bits takes
  const long levels = std::lround(depth.largest / 257.0) + 1;
  const std::string give = "--bits " + std::to_string(*suggested);
  return "; the first frame's largest sample, " + std::to_string(std::lround(depth.largest)) +
         ", fits in " + std::to_string(depth.bits) + " bits: " +
         (depth.bits == *suggested
              ? "for " + std::to_string(*suggested) + "-bit data give " + give
              : "give " + give + ", the fewest it takes") +
         " (as read, the samples use " + std::to_string(levels) + " of the 256 8-bit levels)";
}

std::string describeType(int type) {
  const int depth = CV_MAT_DEPTH(type);
  const int channels = CV_MAT_CN(type);
  std::string bits;
  switch (depth) {
    case CV_8U: bits = "8-bit"; break;
    case CV_8S: bits = "8-bit signed"; break;
    case CV_16U: bits = "16-bit"; break;
    case CV_16S: bits = "16-bit signed"; break;
    case CV_32S: bits = "32-bit integer"; break;
    case CV_32F: bits = "32-bit float"; break;
    case CV_64F: bits = "64-bit float"; break;
    default: bits = "16-bit float"; break;
  }
  const bool plain = depth == CV_8U || depth == CV_16U;
  if (plain && channels == 1) return bits + " grey";
  if (plain && channels == 3) return bits + " BGR";
  if (plain && channels == 4) return bits + " BGRA";
  return bits + " " + std::to_string(channels) + "-channel";
}

std::string sizeText(cv::Size size) {
  return std::to_string(size.width) + "x" + std::to_string(size.height);
}

}  // namespace vtool
