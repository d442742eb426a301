// Names of the library's choices, the library's set-up and result checks,
// image files and pixel layouts: what tool.h declares.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdarg>
#include <cstdlib>
#include <filesystem>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "names_table.h"
#include "tool.h"

namespace vtool {

namespace fs = std::filesystem;

namespace {

std::string lower(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

// The names and aliases of a row, lower case.
std::vector<std::string> spellings(const NameRow& row) {
  std::vector<std::string> all = {lower(row.name)};
  std::string alias;
  for (const char* c = row.aliases;; ++c) {
    if (*c == ',' || *c == '\0') {
      if (!alias.empty()) all.push_back(lower(alias));
      alias.clear();
      if (*c == '\0') break;
    } else {
      alias += *c;
    }
  }
  return all;
}

// libpng and libtiff write warnings of their own to stderr; the tool keeps
// its one-line errors by silencing them around OpenCV's file calls.
struct QuietStderr {
  int saved = -1;
  QuietStderr() {
    std::fflush(stderr);
    saved = ::dup(STDERR_FILENO);
    const int null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (saved >= 0 && null >= 0) ::dup2(null, STDERR_FILENO);
    if (null >= 0) ::close(null);
  }
  ~QuietStderr() {
    if (saved < 0) return;
    ::dup2(saved, STDERR_FILENO);
    ::close(saved);
  }
};

std::string extensionOf(const std::string& path) {
  return lower(fs::path(path).extension());
}

// Name order with runs of digits compared by value: f2 before f10.
bool nameBefore(const std::string& a, const std::string& b) {
  size_t i = 0, j = 0;
  while (i < a.size() && j < b.size()) {
    if (std::isdigit(static_cast<unsigned char>(a[i])) &&
        std::isdigit(static_cast<unsigned char>(b[j]))) {
      const size_t endA = a.find_first_not_of("0123456789", i);
      const size_t endB = b.find_first_not_of("0123456789", j);
      const std::string x = a.substr(i, endA - i), y = b.substr(j, endB - j);
      const std::string u = x.substr(std::min(x.find_first_not_of('0'), x.size() - 1));
      const std::string v = y.substr(std::min(y.find_first_not_of('0'), y.size() - 1));
      if (u.size() != v.size()) return u.size() < v.size();
      if (u != v) return u < v;
      i = std::min(endA, a.size());
      j = std::min(endB, b.size());
    } else if (a[i] != b[j]) {
      return static_cast<unsigned char>(a[i]) < static_cast<unsigned char>(b[j]);
    } else {
      ++i, ++j;
    }
  }
  return a.size() - i != b.size() - j ? a.size() - i < b.size() - j : a < b;
}

void addFile(const std::string& path, std::vector<FrameSource>& frames) {
  size_t pages = 1;
  const std::string extension = extensionOf(path);
  if (extension == ".tif" || extension == ".tiff") {
    try {
      QuietStderr quiet;
      pages = std::max<size_t>(1, cv::imcount(path, cv::IMREAD_UNCHANGED));
    } catch (const cv::Exception&) {
    }
  }
  if (pages == 1) frames.push_back({path, -1, 1});
  for (size_t page = 0; pages > 1 && page < pages; ++page) {
    frames.push_back({path, static_cast<int>(page), static_cast<int>(pages)});
  }
}

}  // namespace

CLI::Validator names(const char* group) {
  std::string choices;
  for (const NameRow& row : kNameRows) {
    if (std::string(row.group) == group)
      choices += (choices.empty() ? "" : "|") + std::string(row.name);
  }
  return CLI::Validator(
      [group, choices](std::string& text) {
        for (const NameRow& row : kNameRows) {
          if (std::string(row.group) != group) continue;
          const std::vector<std::string> all = spellings(row);
          if (std::find(all.begin(), all.end(), lower(text)) != all.end()) {
            text = std::to_string(row.value);
            return std::string();
          }
        }
        return "'" + text + "' is not one of " + choices;
      },
      choices);
}

std::string nameOf(const char* group, uint32_t value) {
  for (const NameRow& row : kNameRows) {
    if (std::string(row.group) == group && row.value == value) return row.name;
  }
  return std::to_string(value);
}

cv::Mat readImage(const std::string& path) {
  std::error_code error;
  if (!fs::exists(path, error)) throw ToolError("cannot open '" + path + "': no such file");
  if (fs::is_directory(path, error)) throw ToolError("cannot read '" + path + "': a directory");
  cv::Mat image;
  try {
    QuietStderr quiet;
    image = cv::imread(path, cv::IMREAD_UNCHANGED);
  } catch (const cv::Exception&) {
  }
  if (image.empty()) throw ToolError("cannot read '" + path + "': not an image OpenCV decodes");
  return image;
}

void checkOutputPath(const std::string& path) {
  bool writable = false;
  try {
    writable = !extensionOf(path).empty() && cv::haveImageWriter(path);
  } catch (const cv::Exception&) {
  }
  if (!writable) {
    throw ToolError("cannot write '" + path +
                    "': its extension names no image format (.png, "
                    ".tif, .jpg, ...)");
  }
  const fs::path folder = fs::path(path).parent_path();
  std::error_code error;
  if (!folder.empty() && !fs::is_directory(folder, error)) {
    throw ToolError("cannot write '" + path + "': no folder '" + folder.string() + "'");
  }
}

bool writeImage(const std::string& path, const cv::Mat& image) {
  checkOutputPath(path);
  const std::string extension = extensionOf(path);
  const bool holds16 = extension == ".png" || extension == ".tif" || extension == ".tiff" ||
                       extension == ".pgm" || extension == ".ppm" || extension == ".pnm";
  cv::Mat out = image;
  const bool reduced = image.depth() == CV_16U && !holds16;
  if (reduced) image.convertTo(out, CV_8U, 1.0 / 257.0);
  bool written = false;
  try {
    QuietStderr quiet;
    written = cv::imwrite(path, out);
  } catch (const cv::Exception&) {
  }
  if (!written) throw ToolError("cannot write '" + path + "'");
  return reduced;
}

std::string FrameSource::label() const {
  return page < 0 ? path : format("%s page %d of %d", path.c_str(), page + 1, pages);
}

std::vector<FrameSource> listFrames(const std::vector<std::string>& paths) {
  std::vector<FrameSource> frames;
  for (const std::string& path : paths) {
    std::error_code error;
    if (!fs::exists(path, error)) throw ToolError("cannot open '" + path + "': no such file");
    if (!fs::is_directory(path, error)) {
      addFile(path, frames);
      continue;
    }
    std::vector<std::string> files;
    for (const auto& entry : fs::directory_iterator(path, error)) {
      const std::string name = entry.path().filename();
      QuietStderr quiet;
      if (name[0] != '.' && entry.is_regular_file() && cv::haveImageReader(entry.path())) {
        files.push_back(name);
      }
    }
    if (files.empty()) throw ToolError("folder '" + path + "' holds no image files");
    std::sort(files.begin(), files.end(), nameBefore);
    for (const std::string& name : files) addFile(fs::path(path) / name, frames);
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
  }
  if (pages.empty() || pages[0].empty()) throw ToolError("cannot read " + source.label());
  return pages[0];
}

cv::Mat FrameReader::read(const FrameSource& source) {
  cv::Mat image = readFrame(source);
  if (image.depth() != CV_16U) return image;
  double largest = 0;
  cv::minMaxLoc(image.reshape(1), nullptr, &largest);
  int used = 0;
  for (auto v = static_cast<uint32_t>(largest); v > 0; v >>= 1) ++used;
  std::string note;
  if (!noted_ && bitsGiven_) {
    note = format(", after scaling %d-bit samples to 16 bits", bits_);
  } else if (!noted_ && used > 0 && used < 16) {
    suggested_ = std::max(used, 9);  // the fewest --bits takes
    note = format(
        "; the first frame's largest sample, %.0f, fits in %d bits: give --bits %d "
        "(as read, the samples use %ld of the 256 8-bit levels)",
        largest, used, suggested_, std::lround(largest / 257.0) + 1);
  }
  std::fflush(stdout);
  if (!noted_) {
    std::fprintf(stderr, "vantix: %s: note: 16-bit frames are %s at 8 bits a channel%s\n", command_,
                 std::string(command_) == "edf" ? "fused" : "stitched", note.c_str());
  }
  noted_ = true;
  if (used > bits_ && !clipNoted_) {
    clipNoted_ = true;
    std::fprintf(stderr,
                 "vantix: %s: note: %s has samples above %d, the largest of %d bits: "
                 "they are taken as %d\n",
                 command_, source.label().c_str(), (1 << bits_) - 1, bits_, (1 << bits_) - 1);
  }
  std::fflush(stderr);
  if (bits_ < 16) image.convertTo(image, CV_16U, 1 << (16 - bits_));  // saturates
  return image;
}

uint16_t bitCountFor(const cv::Mat& image) {
  switch (image.type()) {
    case CV_8UC1: return 8;
    case CV_16UC1: return 16;
    case CV_8UC3: return 24;
    case CV_8UC4: return 32;
    case CV_16UC3: return 48;
    default:
      throw ToolError(describeType(image.type()) +
                      " images are not supported (8-bit grey, BGR or BGRA; 16-bit grey or BGR)");
  }
}

Padded padded(cv::Size size, int type, uint32_t bits) {
  const uint32_t stride = vantix_default_stride(static_cast<uint32_t>(size.width), bits);
  Padded out;
  out.buffer = cv::Mat(size.height, static_cast<int>(stride), CV_8U, cv::Scalar(0));
  out.view = cv::Mat(size, type, out.buffer.data, stride);
  return out;
}

cv::Mat toBgr8(const cv::Mat& image) {
  cv::Mat out = image;
  if (out.depth() == CV_16U) out.convertTo(out, CV_8U, 1.0 / 257.0);
  if (out.depth() != CV_8U) {
    throw ToolError(describeType(image.type()) + " images are not supported (8- or 16-bit)");
  }
  if (out.channels() == 1) cv::cvtColor(out, out, cv::COLOR_GRAY2BGR);
  if (out.channels() == 4) cv::cvtColor(out, out, cv::COLOR_BGRA2BGR);
  return out;
}

std::string describeType(int type) {
  static const char* const depths[] = {"8-bit",         "8-bit signed",   "16-bit",
                                       "16-bit signed", "32-bit integer", "32-bit float",
                                       "64-bit float",  "16-bit float"};
  const int depth = CV_MAT_DEPTH(type), channels = CV_MAT_CN(type);
  const bool plain = depth == CV_8U || depth == CV_16U;
  const std::string kind = plain && channels == 1   ? "grey"
                           : plain && channels == 3 ? "BGR"
                           : plain && channels == 4 ? "BGRA"
                                                    : std::to_string(channels) + "-channel";
  return std::string(depths[depth]) + " " + kind;
}

std::string sizeText(cv::Size size) {
  return format("%dx%d", size.width, size.height);
}

std::string format(const char* fmt, ...) {
  va_list args, copy;
  va_start(args, fmt);
  va_copy(copy, args);
  const int length = std::vsnprintf(nullptr, 0, fmt, copy);
  va_end(copy);
  std::string text(static_cast<size_t>(std::max(length, 0)), '\0');
  std::vsnprintf(text.data(), text.size() + 1, fmt, args);
  va_end(args);
  return text;
}

}  // namespace vtool
