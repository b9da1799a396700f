#include "host_plots.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <map>
#include <mutex>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

namespace {

struct Sample {
  std::string panel;
  std::string series;
  uint64_t atUs;
  double ms;
};

std::mutex g_samplesLock;  // guards g_samples; sink threads and the main thread record
std::vector<Sample> g_samples;

// Colours in the images' R, G, B order.
const cv::Scalar kInk(30, 30, 30);
const cv::Scalar kGrid(215, 215, 215);
const cv::Scalar kSeriesColours[] = {
    {31, 119, 180}, {214, 39, 40}, {44, 160, 44}, {148, 103, 189}, {255, 127, 14}};
constexpr int kFont = cv::FONT_HERSHEY_SIMPLEX;

// A round axis top at or above `value`: 1, 2 or 5 times a power of ten.
double NiceCeiling(double value) {
  if (value <= 0) {
    return 1;
  }
  const double power = std::pow(10.0, std::floor(std::log10(value)));
  for (double step : {1.0, 2.0, 5.0, 10.0}) {
    if (value <= step * power) {
      return step * power;
    }
  }
  return 10 * power;
}

// A tick value with as many decimals as a step of `step` needs.
std::string TickText(double value, double step) {
  int decimals = 0;
  while (decimals < 6 && std::fabs(step * std::pow(10.0, decimals) -
                                   std::round(step * std::pow(10.0, decimals))) > 1e-6) {
    ++decimals;
  }
  char text[32];
  std::snprintf(text, sizeof(text), "%.*f", decimals, value);
  return text;
}

double SecondsOf(const Sample& s, uint64_t startUs) {
  return s.atUs > startUs ? static_cast<double>(s.atUs - startUs) / 1e6 : 0.0;
}

}  // namespace

void RecordLatency(const std::string& panel, const std::string& series, uint64_t atUs,
                   uint64_t latencyUs) {
  std::lock_guard<std::mutex> lock(g_samplesLock);
  g_samples.push_back({panel, series, atUs, static_cast<double>(latencyUs) / 1000.0});
}

void LabelTile(RgbImage& image, uint32_t x, uint32_t y, const std::vector<std::string>& lines) {
  if (image.pixels.empty() || lines.empty()) {
    return;
  }
  cv::Mat mat(static_cast<int>(image.height), static_cast<int>(image.width), CV_8UC3,
              image.pixels.data());
  int width = 0;
  int height = 8;
  for (size_t i = 0; i < lines.size(); ++i) {
    int baseline = 0;
    const cv::Size size =
        cv::getTextSize(lines[i], kFont, i == 0 ? 0.7 : 0.5, i == 0 ? 2 : 1, &baseline);
    width = std::max(width, size.width);
    height += size.height + 10;
  }
  const cv::Rect band(static_cast<int>(x), static_cast<int>(y), width + 16, height);
  cv::Mat area = mat(band & cv::Rect(0, 0, mat.cols, mat.rows));
  area *= 0.35;  // darkens what is under the text so any picture keeps it readable
  int baselineY = static_cast<int>(y) + 4;
  for (size_t i = 0; i < lines.size(); ++i) {
    const double scale = i == 0 ? 0.7 : 0.5;
    const int thickness = i == 0 ? 2 : 1;
    int baseline = 0;
    baselineY += cv::getTextSize(lines[i], kFont, scale, thickness, &baseline).height + 10;
    cv::putText(mat, lines[i], {static_cast<int>(x) + 8, baselineY - 4}, kFont, scale,
                i == 0 ? cv::Scalar(255, 255, 255) : cv::Scalar(225, 225, 225), thickness,
                cv::LINE_AA);
  }
}

bool WriteTimeline(const std::string& dir, uint64_t startUs, std::string& error) {
  std::vector<Sample> samples;
  {
    std::lock_guard<std::mutex> lock(g_samplesLock);
    samples = g_samples;
  }
  if (samples.empty()) {
    error = "no latency samples for the timeline";
    return false;
  }
  // Callbacks on several threads record out of order by a little.
  std::stable_sort(samples.begin(), samples.end(),
                   [](const Sample& a, const Sample& b) { return a.atUs < b.atUs; });
  const std::string csvPath = (std::filesystem::path(dir) / "timeline.csv").string();
  FILE* csv = std::fopen(csvPath.c_str(), "w");
  if (csv == nullptr) {
    error = "cannot write " + csvPath;
    return false;
  }
  std::fprintf(csv, "link,measure,seconds,ms\n");
  // Panels in the order their links first reported; series likewise within a panel.
  std::vector<std::string> panels;
  std::map<std::string, std::vector<std::string>> seriesOf;
  double lastSeconds = 1;
  for (const Sample& s : samples) {
    const double seconds = SecondsOf(s, startUs);
    std::fprintf(csv, "%s,%s,%.4f,%.3f\n", s.panel.c_str(), s.series.c_str(), seconds, s.ms);
    lastSeconds = std::max(lastSeconds, seconds);
    if (std::find(panels.begin(), panels.end(), s.panel) == panels.end()) {
      panels.push_back(s.panel);
    }
    auto& series = seriesOf[s.panel];
    if (std::find(series.begin(), series.end(), s.series) == series.end()) {
      series.push_back(s.series);
    }
  }
  std::fclose(csv);

  constexpr int kWidth = 1200;
  constexpr int kPanelHeight = 210;
  constexpr int kLeft = 70;
  constexpr int kRight = 20;
  constexpr int kTop = 50;
  constexpr int kGap = 30;
  const int height = kTop + static_cast<int>(panels.size()) * (kPanelHeight + kGap) + 30;
  cv::Mat plot(height, kWidth, CV_8UC3, cv::Scalar(255, 255, 255));
  cv::putText(plot, "Latency over the run (x: seconds since the links started)", {kLeft, 30}, kFont,
              0.7, kInk, 2, cv::LINE_AA);
  const double xMax = std::ceil(lastSeconds);
  const int plotWidth = kWidth - kLeft - kRight;
  for (size_t p = 0; p < panels.size(); ++p) {
    const int top = kTop + static_cast<int>(p) * (kPanelHeight + kGap) + 20;
    const int bottom = top + kPanelHeight - 20;
    // The axis top covers nearly every sample; a rare outlier is clipped to the top edge
    // instead of squashing the rest.
    std::vector<double> values;
    for (const Sample& s : samples) {
      if (s.panel == panels[p]) {
        values.push_back(s.ms);
      }
    }
    std::sort(values.begin(), values.end());
    const double high = values[std::min(values.size() - 1, values.size() * 99 / 100)];
    // Hand-offs of a few microseconds read better in microseconds.
    const double unit = high < 0.1 ? 1000.0 : 1.0;
    const double yMax = NiceCeiling(high * unit * 1.1);
    auto toPoint = [&](double seconds, double ms) {
      const double x = kLeft + seconds / xMax * plotWidth;
      const double y = bottom - std::min(ms * unit, yMax) / yMax * (bottom - top);
      return cv::Point(static_cast<int>(std::lround(x)), static_cast<int>(std::lround(y)));
    };
    for (int tick = 0; tick <= 4; ++tick) {
      const double value = yMax * tick / 4;
      const cv::Point at = toPoint(0, value / unit);
      cv::line(plot, at, {kLeft + plotWidth, at.y}, kGrid, 1);
      cv::putText(plot, TickText(value, yMax / 4), {8, at.y + 5}, kFont, 0.45, kInk, 1,
                  cv::LINE_AA);
    }
    const int xStep = xMax > 30 ? 5 : 1;
    for (int second = 0; second <= static_cast<int>(xMax); second += xStep) {
      const cv::Point at = toPoint(second, 0);
      cv::line(plot, {at.x, top}, at, kGrid, 1);
      cv::putText(plot, std::to_string(second), {at.x - 5, bottom + 16}, kFont, 0.4, kInk, 1,
                  cv::LINE_AA);
    }
    cv::rectangle(plot, {kLeft, top}, {kLeft + plotWidth, bottom}, kInk, 1);
    cv::putText(plot, panels[p] + (unit > 1 ? " (us)" : " (ms)"), {kLeft, top - 8}, kFont, 0.6,
                kInk, 2, cv::LINE_AA);
    const auto& series = seriesOf[panels[p]];
    int legendX = kLeft + 300;
    for (size_t k = 0; k < series.size(); ++k) {
      const cv::Scalar colour = kSeriesColours[k % std::size(kSeriesColours)];
      std::vector<const Sample*> points;
      for (const Sample& s : samples) {
        if (s.panel == panels[p] && s.series == series[k]) {
          points.push_back(&s);
        }
      }
      // Points are joined except across a pause (the background switched, say): more than
      // three times the series' usual interval.
      std::vector<uint64_t> intervals;
      for (size_t j = 1; j < points.size(); ++j) {
        intervals.push_back(points[j]->atUs - std::min(points[j]->atUs, points[j - 1]->atUs));
      }
      std::nth_element(intervals.begin(), intervals.begin() + intervals.size() / 2,
                       intervals.end());
      const uint64_t pause = intervals.empty() ? 0 : 3 * intervals[intervals.size() / 2];
      for (size_t j = 0; j < points.size(); ++j) {
        const cv::Point at = toPoint(SecondsOf(*points[j], startUs), points[j]->ms);
        if (j > 0 && points[j]->atUs - points[j - 1]->atUs <= pause) {
          cv::line(plot, toPoint(SecondsOf(*points[j - 1], startUs), points[j - 1]->ms), at, colour,
                   1, cv::LINE_AA);
        }
        cv::circle(plot, at, 2, colour, cv::FILLED, cv::LINE_AA);
      }
      cv::rectangle(plot, {legendX, top - 18}, {legendX + 14, top - 6}, colour, cv::FILLED);
      cv::putText(plot, series[k], {legendX + 20, top - 7}, kFont, 0.45, kInk, 1, cv::LINE_AA);
      int baseline = 0;
      legendX += 40 + cv::getTextSize(series[k], kFont, 0.45, 1, &baseline).width;
    }
  }
  RgbImage image;
  image.width = static_cast<uint32_t>(plot.cols);
  image.height = static_cast<uint32_t>(plot.rows);
  image.pixels.assign(plot.data, plot.data + plot.total() * plot.elemSize());
  return WritePng((std::filesystem::path(dir) / "timeline.png").string(), image, error);
}
