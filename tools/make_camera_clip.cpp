// Writes the clip the host's file camera plays: a few seconds of 1280x720 MJPEG at 30 frames
// a second (JPEG pictures one after another) of a person photo, drifting and breathing a
// little as a hand-held camera would, with sensor-like noise on every frame, so that the
// virtual background has a person to find and the encoder sees frames that all differ.
// Each frame carries its number in the clip (host_frame_number.h), so that the host can
// time every frame from the camera to itself. Also writes a replacement background picture
// for the virtual background.
//
// usage: make_camera_clip PHOTO OUT.mjpeg BACKGROUND.png [SECONDS]
// Without a readable PHOTO a drawn figure stands in for it.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <vector>

#include "host_frame_number.h"

namespace {

constexpr int kWidth = 1280;
constexpr int kHeight = 720;
constexpr int kFps = 30;
constexpr double kPi = 3.14159265358979;

// A head and shoulders in front of a wall, when there is no photo.
cv::Mat DrawnFigure() {
  cv::Mat scene(kHeight, kWidth, CV_8UC3, cv::Scalar(170, 190, 205));
  cv::ellipse(scene, {640, 820}, {300, 260}, 0, 0, 360, cv::Scalar(90, 60, 40), cv::FILLED);
  cv::ellipse(scene, {640, 330}, {120, 150}, 0, 0, 360, cv::Scalar(140, 170, 220), cv::FILLED);
  return scene;
}

// The photo scaled to the clip's width and cut to 16:9 a little below its top, where a
// portrait keeps the face.
cv::Mat Scene(const char* photoPath) {
  cv::Mat photo = cv::imread(photoPath, cv::IMREAD_COLOR);
  if (photo.empty()) {
    std::fprintf(stderr, "make_camera_clip: cannot read %s; drawing a figure instead\n", photoPath);
    return DrawnFigure();
  }
  const double scale = static_cast<double>(kWidth) / photo.cols;
  cv::Mat scaled;
  cv::resize(photo, scaled, {}, scale, scale, cv::INTER_AREA);
  if (scaled.rows < kHeight) {
    cv::resize(photo, scaled, {kWidth, kHeight}, 0, 0, cv::INTER_AREA);
    return scaled;
  }
  const int top = std::min(scaled.rows - kHeight, scaled.rows / 32);
  return scaled(cv::Rect(0, top, kWidth, kHeight)).clone();
}

// Sky over sea over sand, with a sun: plainly not the photo's own background.
cv::Mat Background() {
  cv::Mat picture(kHeight, kWidth, CV_8UC3);
  for (int y = 0; y < kHeight; ++y) {
    const double t = static_cast<double>(y) / kHeight;
    cv::Vec3b colour = t < 0.55  ? cv::Vec3b(static_cast<uint8_t>(250 - 60 * t),
                                             static_cast<uint8_t>(200 - 40 * t), 120)
                       : t < 0.8 ? cv::Vec3b(170, 120, 30)
                                 : cv::Vec3b(140, 200, 230);
    picture.row(y).setTo(colour);
  }
  cv::circle(picture, {1050, 140}, 70, cv::Scalar(80, 220, 255), cv::FILLED);
  return picture;
}

void DrawFrameNumber(cv::Mat& frame, int number) {
  const int side = static_cast<int>(kNumberBlock * kHeight);
  const int top = static_cast<int>(NumberTop(kHeight));
  for (int block = 0; block < kNumberBits + 2; ++block) {
    const bool white = block == 0 || (block <= kNumberBits && ((number >> (block - 1)) & 1) != 0);
    const int left = static_cast<int>(NumberBlockLeft(block, kWidth, kHeight));
    cv::rectangle(frame, cv::Rect(left, top, side, side),
                  white ? cv::Scalar(255, 255, 255) : cv::Scalar(0, 0, 0), cv::FILLED);
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) {
    std::fprintf(stderr, "usage: %s PHOTO OUT.mjpeg BACKGROUND.png [SECONDS]\n", argv[0]);
    return 2;
  }
  // Frame numbers have eight bits: at most 256 frames.
  const int seconds = argc > 4 ? std::clamp(std::atoi(argv[4]), 1, 8) : 6;
  const cv::Mat scene = Scene(argv[1]);
  std::ofstream out(argv[2], std::ios::binary | std::ios::trunc);
  if (!out) {
    std::fprintf(stderr, "make_camera_clip: cannot write %s\n", argv[2]);
    return 1;
  }
  cv::RNG noise(12345);
  cv::Mat frame;
  cv::Mat grain(kHeight, kWidth, CV_16SC3);
  std::vector<uint8_t> jpeg;
  const std::vector<int> quality = {cv::IMWRITE_JPEG_QUALITY, 85};
  for (int i = 0; i < seconds * kFps; ++i) {
    const double t = static_cast<double>(i) / kFps;
    // A slow sway and a slight zoom, as a camera held by hand: a few pixels, not a pan.
    const double zoom = 1.03 + 0.015 * std::sin(2 * kPi * t / 2.7);
    const double dx = 10 * std::sin(2 * kPi * t / 3.1);
    const double dy = 5 * std::sin(2 * kPi * t / 1.9);
    cv::Mat warp = cv::getRotationMatrix2D({kWidth / 2.0, kHeight / 2.0}, 0.3 * std::sin(t), zoom);
    warp.at<double>(0, 2) += dx;
    warp.at<double>(1, 2) += dy;
    cv::warpAffine(scene, frame, warp, scene.size(), cv::INTER_LINEAR, cv::BORDER_REFLECT);
    noise.fill(grain, cv::RNG::NORMAL, 0, 3);
    cv::Mat noisy;
    cv::add(frame, grain, noisy, cv::noArray(), CV_8UC3);
    DrawFrameNumber(noisy, i);
    cv::imencode(".jpg", noisy, jpeg, quality);
    out.write(reinterpret_cast<const char*>(jpeg.data()),
              static_cast<std::streamsize>(jpeg.size()));
  }
  if (!out.flush() || !cv::imwrite(argv[3], Background())) {
    std::fprintf(stderr, "make_camera_clip: cannot write the outputs\n");
    return 1;
  }
  std::printf("%s: %d frames %dx%d at %d frames/s\n", argv[2], seconds * kFps, kWidth, kHeight,
              kFps);
  return 0;
}
