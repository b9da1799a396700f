// Person segmentation with OpenCV's dnn module on an ONNX selfie-segmentation model: frame
// in (packed B, G, R), mask out (one byte per pixel, 0 background, 255 person).
//
// Beyond the raw model output it keeps the mask steady and its edge tight:
//   - temporal smoothing: each pixel's probability moves towards the new value by a weight
//     that grows with the change (still pixels average over frames, moving ones follow at
//     once), so a still scene does not flicker and motion does not lag;
//   - edge refinement: probabilities from kEdgeLow to kEdgeHigh are stretched over the full
//     0..255 range before upscaling, so the soft band around the person (the halo) is
//     narrow and the blend only mixes where the model is really unsure.
#pragma once

#include <cstdint>
#include <opencv2/core.hpp>
#include <opencv2/dnn.hpp>
#include <string>

class Segmenter {
 public:
  static constexpr float kEdgeLow = 0.3F;
  static constexpr float kEdgeHigh = 0.7F;
  // Smoothing weight of an unchanged pixel, and how fast it grows with the change.
  static constexpr float kStillWeight = 0.35F;
  static constexpr float kMotionGain = 3.0F;

  // 0, or a TavoComputingError: the file is missing, unreadable, not a model OpenCV loads, or
  // its input is not 1x3xHxW.
  int Load(const std::string& path);
  // Runs the model on a width x height frame (rows `stride` bytes apart) and writes
  // width x height mask bytes to `mask`. 0, or TAVO_COMPUTING_ERR_INFERENCE.
  int Run(const uint8_t* bgr, int width, int height, size_t stride, uint8_t* mask);
  // Forgets the previous frame (new scene or size).
  void ResetHistory() { m_previous.release(); }
  void SetSmoothing(bool on) { m_smoothing = on; }
  // Off: probabilities map linearly onto 0..255 (the model's own soft edge).
  void SetEdgeRefinement(bool on) { m_edgeRefinement = on; }
  int ModelWidth() const { return m_modelWidth; }
  int ModelHeight() const { return m_modelHeight; }

 private:
  cv::dnn::Net m_net;
  int m_modelWidth = 0;
  int m_modelHeight = 0;
  bool m_smoothing = true;
  bool m_edgeRefinement = true;
  cv::Mat m_previous;  // smoothed probabilities of the last frame, model size, CV_32F
};

// Reads the input size of an ONNX model (its first graph input, 1x3xHxW) without loading
// it. False when the file is not such a model.
bool ReadOnnxInputSize(const std::string& path, int* width, int* height);
