#include "edf/edf_fuser.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

#include <opencv2/imgproc.hpp>

#include "edf/pyr_fuser.h"
#include "edf/stack_fuser.h"

namespace vantix {

namespace {

// Pyramid levels of the shift search stop before a side would drop under
// this many pixels.
constexpr int kMinLevelSide = 33;
// The scale search stays within this range, and within kScaleReach of the
// current value on each pass.
constexpr double kMinScale = 0.9;
constexpr double kMaxScale = 1.1;
constexpr double kScaleReach = 0.1;
// Guard against a search that keeps finding ever smaller costs (each pass
// strictly lowers an integer cost, so it ends anyway; this only bounds the
// time on pathological images).
constexpr int kMaxPasses = 200;

// Grid step of the cost function along a side of `side` pixels.
int gridStep(int side) { return side < 300 ? 2 : std::max(1, side / 100); }

// Sum of the samples of `image` on the brightness grid, each channel's sum
// rounded to an integer, plus one so that it is never zero.
int64_t sampleTotal(const cv::Mat& image) {
  // A side under 100 pixels is sampled at every pixel rather than dividing
  // by a zero step.
  const int rowStep = std::max(1, image.rows / 100);
  const int colStep = std::max(1, image.cols / 100);
  const int cn = image.channels();
  std::vector<double> sums(static_cast<size_t>(cn), 0.0);
  for (int y = 0; y < image.rows; y += rowStep) {
    const uchar* row = image.ptr<uchar>(y);
    for (int x = 0; x < image.cols; x += colStep) {
      for (int c = 0; c < cn; ++c) sums[c] += row[x * cn + c];
    }
  }
  int64_t total = 1;
  for (double s : sums) total += static_cast<int64_t>(std::llround(s));
  return total;
}

cv::Mat brightnessTable(int64_t average, int64_t total) {
  cv::Mat table(1, 256, CV_8U);
  for (int i = 0; i < 256; ++i) {
    table.at<uchar>(i) = static_cast<uchar>(std::min<int64_t>(255, i * average / total));
  }
  return table;
}

// Reference row/column of each grid point for one candidate; -1 outside.
void mapGrid(int count, int step, int limit, int shift, double scale, int size,
             std::vector<int>& out) {
  out.clear();
  const int half = size / 2;
  for (int i = 0; i < count; ++i) {
    const int p = i * step;
    const int r = cvRound((p - shift - half) * scale + half);
    out.push_back(r >= 0 && r < limit ? r : -1);
  }
}

struct Candidate {
  int dx;
  int dy;
  double scale;
};


void greyPyramid(const cv::Mat& grey, std::vector<cv::Mat>& pyramid) {
  pyramid.assign(1, grey);
  while (true) {
    const cv::Mat& last = pyramid.back();
    const int nextCols = (last.cols + 1) / 2;
    const int nextRows = (last.rows + 1) / 2;
    if (nextCols < kMinLevelSide || nextRows < kMinLevelSide) break;
    cv::Mat down;
    cv::pyrDown(last, down, cv::Size(), cv::BORDER_REFLECT_101);
    pyramid.push_back(down);
  }
}

}  // namespace

std::unique_ptr<CEdfFuser> makeEdfFuser(uint32_t kind) {
  switch (kind) {
    case kEdfPyramidSelect:
    case kEdfPyramidWeighted:
      return std::make_unique<CPyrFuser>(kind);
    case kEdfStack:
      return std::make_unique<CStackFuser>();
    default:
      return nullptr;
  }
}

void matchBrightness(cv::Mat& frame, cv::Mat& reference) {
  const int64_t frameTotal = sampleTotal(frame);
  const int64_t referenceTotal = sampleTotal(reference);
  const int64_t average = (frameTotal + referenceTotal) / 2;
  cv::LUT(frame, brightnessTable(average, frameTotal), frame);
  cv::LUT(reference, brightnessTable(average, referenceTotal), reference);
}

namespace {

// The frame's samples on the cost grid of one level, gathered once so that
// every candidate reads them in order.
struct CostGrid {
  int colStep = 1, rowStep = 1;
  int columns = 0, rows = 0;
  cv::Mat samples;  // rows x columns, 8-bit
};

CostGrid costGrid(const cv::Mat& frame, const cv::Mat& reference) {
  CV_Assert(frame.type() == CV_8UC1 && reference.type() == CV_8UC1);
  CV_Assert(frame.size() == reference.size());
  CostGrid grid;
  const int w = reference.cols, h = reference.rows;
  grid.colStep = gridStep(w);
  grid.rowStep = gridStep(h);
  // Grid points x = 0, step, ... below w - step (likewise y).
  grid.columns = w > grid.colStep ? (w - 1) / grid.colStep : 0;
  grid.rows = h > grid.rowStep ? (h - 1) / grid.rowStep : 0;
  grid.samples.create(std::max(grid.rows, 1), std::max(grid.columns, 1), CV_8U);
  for (int j = 0; j < grid.rows; ++j) {
    const uchar* src = frame.ptr<uchar>(j * grid.rowStep);
    uchar* dst = grid.samples.ptr<uchar>(j);
    for (int i = 0; i < grid.columns; ++i) dst[i] = src[i * grid.colStep];
  }
  return grid;
}

int64_t gridCost(const CostGrid& grid, const cv::Mat& reference, int dx, int dy, double scale) {
  const int w = reference.cols, h = reference.rows;
  thread_local std::vector<int> refCols, refRows;
  mapGrid(grid.columns, grid.colStep, w, dx, scale, w, refCols);
  mapGrid(grid.rows, grid.rowStep, h, dy, scale, h, refRows);
  // The valid columns form one run (the mapping is monotonic); points that
  // map outside the reference are skipped.
  int first = 0, last = grid.columns;
  while (first < last && refCols[first] < 0) ++first;
  while (last > first && refCols[last - 1] < 0) --last;
  int64_t total = 0;
  for (int j = 0; j < grid.rows; ++j) {
    const int ry = refRows[j];
    if (ry < 0) continue;
    const uchar* f = grid.samples.ptr<uchar>(j);
    const uchar* r = reference.ptr<uchar>(ry);
    int rowTotal = 0;  // at most 199 * 255^2 a row: fits 32 bits
    for (int i = first; i < last; ++i) {
      const int d = static_cast<int>(f[i]) - static_cast<int>(r[refCols[i]]);
      rowTotal += d * d;
    }
    total += rowTotal;
  }
  return total;
}

// Costs of several candidates at once (they are independent), in parallel.
void costs(const CostGrid& grid, const cv::Mat& reference, const std::vector<Candidate>& candidates,
           std::vector<int64_t>& out) {
  out.assign(candidates.size(), 0);
  cv::parallel_for_(cv::Range(0, static_cast<int>(candidates.size())), [&](const cv::Range& r) {
    for (int i = r.start; i < r.end; ++i) {
      out[i] = gridCost(grid, reference, candidates[i].dx, candidates[i].dy, candidates[i].scale);
    }
  });
}

}  // namespace

int64_t alignmentCost(const cv::Mat& frame, const cv::Mat& reference, int dx, int dy,
                      double scale) {
  return gridCost(costGrid(frame, reference), reference, dx, dy, scale);
}

ShiftScale estimateShiftScale(const cv::Mat& frame, const cv::Mat& reference) {
  CV_Assert(frame.type() == CV_8UC1 && reference.type() == CV_8UC1);
  CV_Assert(frame.size() == reference.size());
  std::vector<cv::Mat> framePyramid, referencePyramid;
  greyPyramid(frame, framePyramid);
  greyPyramid(reference, referencePyramid);
  const int levels = static_cast<int>(std::min(framePyramid.size(), referencePyramid.size()));

  ShiftScale best;
  std::vector<Candidate> candidates;
  std::vector<int64_t> values;
  for (int level = levels - 1; level >= 0; --level) {
    const cv::Mat& f = framePyramid[level];
    const cv::Mat& r = referencePyramid[level];
    if (level != levels - 1) {
      best.dx *= 2;
      best.dy *= 2;
    }
    const CostGrid grid = costGrid(f, r);
    int64_t bestCost = gridCost(grid, r, best.dx, best.dy, best.scale);
    const double step = std::max(0.01, 1.0 / r.cols);
    for (int pass = 0; pass < kMaxPasses; ++pass) {
      bool improved = false;
      // Scales upwards, then downwards, from the value at the start of the
      // pass; the scan order decides between equal costs.
      const double start = best.scale;
      candidates.clear();
      const double high = std::min(start + kScaleReach, kMaxScale);
      for (double s = start + step; s <= high + 1e-12; s += step) {
        candidates.push_back({best.dx, best.dy, s});
      }
      const double low = std::max(start - kScaleReach, kMinScale);
      for (double s = start - step; s >= low - 1e-12; s -= step) {
        candidates.push_back({best.dx, best.dy, s});
      }
      costs(grid, r, candidates, values);
      for (size_t i = 0; i < candidates.size(); ++i) {
        if (values[i] < bestCost) {
          bestCost = values[i];
          best.scale = candidates[i].scale;
          improved = true;
        }
      }
      // Shifts one pixel away in x, in y and diagonally.
      candidates.clear();
      static const int kNeighbours[8][2] = {{1, 0},  {-1, 0}, {0, 1},  {0, -1},
                                            {1, 1}, {-1, -1}, {1, -1}, {-1, 1}};
      for (const auto& n : kNeighbours) {
        candidates.push_back({best.dx + n[0], best.dy + n[1], best.scale});
      }
      costs(grid, r, candidates, values);
      for (size_t i = 0; i < candidates.size(); ++i) {
        if (values[i] < bestCost) {
          bestCost = values[i];
          best.dx = candidates[i].dx;
          best.dy = candidates[i].dy;
          improved = true;
        }
      }
      if (!improved) break;
    }
  }
  return best;
}

void warpToReference(cv::Mat& frame, const ShiftScale& motion) {
  if (motion.dx == 0 && motion.dy == 0 && motion.scale == 1.0) return;
  CV_Assert(frame.depth() == CV_8U);
  const int w = frame.cols, h = frame.rows;
  const float scale = 1.0f / static_cast<float>(motion.scale);
  // The warp shifts by (-dx, -dy) and scales by 1/s about the centre.  A
  // source position outside the frame takes the nearest edge pixel: black
  // borders would be blended into the stack as false detail.
  std::vector<int> sourceCol(static_cast<size_t>(w)), sourceRow(static_cast<size_t>(h));
  const int cx = w / 2, cy = h / 2;
  for (int x = 0; x < w; ++x) {
    sourceCol[x] = std::clamp(cvRound((x + motion.dx - cx) * scale + cx), 0, w - 1);
  }
  for (int y = 0; y < h; ++y) {
    sourceRow[y] = std::clamp(cvRound((y + motion.dy - cy) * scale + cy), 0, h - 1);
  }
  cv::Mat warped(frame.size(), frame.type());
  const int cn = frame.channels();
  cv::parallel_for_(cv::Range(0, h), [&](const cv::Range& range) {
    for (int y = range.start; y < range.end; ++y) {
      const uchar* src = frame.ptr<uchar>(sourceRow[y]);
      uchar* dst = warped.ptr<uchar>(y);
      if (cn == 3) {
        for (int x = 0; x < w; ++x) {
          const uchar* p = src + 3 * sourceCol[x];
          dst[3 * x] = p[0];
          dst[3 * x + 1] = p[1];
          dst[3 * x + 2] = p[2];
        }
      } else {
        for (int x = 0; x < w; ++x) {
          for (int c = 0; c < cn; ++c) dst[cn * x + c] = src[cn * sourceCol[x] + c];
        }
      }
    }
  });
  frame = warped;
}

ShiftScale alignToReference(cv::Mat& frame, cv::Mat& reference) {
  CV_Assert(frame.type() == reference.type() && frame.size() == reference.size());
  matchBrightness(frame, reference);
  cv::Mat frameGrey, referenceGrey;
  // The channel weights of RGB2GRAY on B G R data, as the search has always
  // used them; only the agreement of the two grey images matters here.
  cv::cvtColor(frame, frameGrey, cv::COLOR_RGB2GRAY);
  cv::cvtColor(reference, referenceGrey, cv::COLOR_RGB2GRAY);
  const ShiftScale motion = estimateShiftScale(frameGrey, referenceGrey);
  warpToReference(frame, motion);
  return motion;
}

void CFuserSlot::requireFuser() const {
  // An unknown kind leaves no fuser; the session reports the first frame
  // that would need one as a processing failure.
  if (!fuser_) throw std::logic_error("the EDF session has no fuser of its kind");
}

void CFuserSlot::firstFrame(const cv::Mat& frame) {
  requireFuser();
  fuser_->firstFrame(frame);
}

void CFuserSlot::fuse(cv::Mat& frame, cv::Mat& result) {
  requireFuser();
  if (!reference_.empty() && !frame.empty()) alignToReference(frame, reference_);
  fuser_->addFrame(frame, result);
  reference_ = result.clone();
}

}  // namespace vantix
