#include "image_io.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
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

}  // namespace

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
