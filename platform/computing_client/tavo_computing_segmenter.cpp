#include "platform/computing_client/tavo_computing_segmenter.h"

#include <fstream>
#include <iterator>
#include <opencv2/imgproc.hpp>
#include <vector>

#include "platform/computing_client/tavo_computing_client.h"

namespace {

// Models are a few hundred kilobytes; a larger file is not one of ours.
constexpr size_t kMaxModelBytes = size_t{64} << 20;

// Just enough protobuf to walk ModelProto.graph.input[0].type.tensor_type.shape.dim.
class ProtoReader {
 public:
  ProtoReader(const uint8_t* begin, const uint8_t* end) : m_at(begin), m_end(end) {}
  bool Done() const { return m_at >= m_end; }
  bool Varint(uint64_t* value) {
    *value = 0;
    for (int shift = 0; shift < 64; shift += 7) {
      if (m_at >= m_end) {
        return false;
      }
      const uint8_t byte = *m_at++;
      *value |= uint64_t{byte & 0x7FU} << shift;
      if ((byte & 0x80U) == 0) {
        return true;
      }
    }
    return false;
  }
  // Next field: its number, wire type, its value for varints and its contents for
  // length-delimited fields.
  bool Next(uint32_t* field, uint32_t* wire, ProtoReader* inner, uint64_t* varint = nullptr) {
    uint64_t key = 0;
    if (!Varint(&key)) {
      return false;
    }
    *field = static_cast<uint32_t>(key >> 3);
    *wire = static_cast<uint32_t>(key & 7U);
    uint64_t skip = 0;
    switch (*wire) {
      case 0: {
        uint64_t value = 0;
        if (!Varint(&value)) {
          return false;
        }
        if (varint != nullptr) {
          *varint = value;
        }
        return true;
      }
      case 1:
        skip = 8;
        break;
      case 2:
        if (!Varint(&skip)) {
          return false;
        }
        if (skip > static_cast<uint64_t>(m_end - m_at)) {
          return false;
        }
        *inner = ProtoReader(m_at, m_at + skip);
        break;
      case 5:
        skip = 4;
        break;
      default:
        return false;
    }
    if (skip > static_cast<uint64_t>(m_end - m_at)) {
      return false;
    }
    m_at += skip;
    return true;
  }
  // The first length-delimited field with this number.
  bool Find(uint32_t wanted, ProtoReader* inner) {
    uint32_t field = 0;
    uint32_t wire = 0;
    ProtoReader contents(nullptr, nullptr);
    while (!Done()) {
      if (!Next(&field, &wire, &contents)) {
        return false;
      }
      if (field == wanted && wire == 2) {
        *inner = contents;
        return true;
      }
    }
    return false;
  }

 private:
  const uint8_t* m_at;
  const uint8_t* m_end;
};

}  // namespace

bool ReadOnnxInputSize(const std::string& path, int* width, int* height) {
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    return false;
  }
  std::vector<uint8_t> bytes;
  bytes.reserve(1 << 20);
  char chunk[65536];
  while (file.read(chunk, sizeof chunk) || file.gcount() > 0) {
    bytes.insert(bytes.end(), chunk, chunk + file.gcount());
    if (bytes.size() > kMaxModelBytes) {
      return false;
    }
  }
  ProtoReader model(bytes.data(), bytes.data() + bytes.size());
  ProtoReader graph(nullptr, nullptr);
  ProtoReader input(nullptr, nullptr);
  ProtoReader type(nullptr, nullptr);
  ProtoReader tensor(nullptr, nullptr);
  ProtoReader shape(nullptr, nullptr);
  // ModelProto.graph = 7, GraphProto.input = 11, ValueInfoProto.type = 2,
  // TypeProto.tensor_type = 1, TypeProto.Tensor.shape = 2.
  if (!model.Find(7, &graph) || !graph.Find(11, &input) || !input.Find(2, &type) ||
      !type.Find(1, &tensor) || !tensor.Find(2, &shape)) {
    return false;
  }
  std::vector<uint64_t> dims;
  ProtoReader dim(nullptr, nullptr);
  while (!shape.Done() && dims.size() < 5) {
    if (!shape.Find(1, &dim)) {
      break;
    }
    uint32_t field = 0;
    uint32_t wire = 0;
    ProtoReader unused(nullptr, nullptr);
    uint64_t value = 0;
    bool found = false;
    while (!dim.Done()) {
      uint64_t number = 0;
      if (!dim.Next(&field, &wire, &unused, &number)) {
        return false;
      }
      if (field == 1 && wire == 0) {  // Dimension.dim_value
        value = number;
        found = true;
      }
    }
    if (!found) {
      return false;
    }
    dims.push_back(value);
  }
  if (dims.size() != 4 || dims[0] != 1 || dims[1] != 3 || dims[2] == 0 || dims[3] == 0 ||
      dims[2] > 4096 || dims[3] > 4096) {
    return false;
  }
  *height = static_cast<int>(dims[2]);
  *width = static_cast<int>(dims[3]);
  return true;
}

int Segmenter::Load(const std::string& path) {
  int width = 0;
  int height = 0;
  if (!ReadOnnxInputSize(path, &width, &height)) {
    return TAVO_COMPUTING_ERR_MODEL;
  }
  try {
    cv::dnn::Net net = cv::dnn::readNetFromONNX(path);
    if (net.empty()) {
      return TAVO_COMPUTING_ERR_MODEL;
    }
    net.setPreferableBackend(cv::dnn::DNN_BACKEND_OPENCV);
    net.setPreferableTarget(cv::dnn::DNN_TARGET_CPU);
    m_net = std::move(net);
  } catch (const std::exception&) {
    return TAVO_COMPUTING_ERR_MODEL;
  }
  m_modelWidth = width;
  m_modelHeight = height;
  m_previous.release();
  return TAVO_COMPUTING_OK;
}

int Segmenter::Run(const uint8_t* bgr, int width, int height, size_t stride, uint8_t* mask) {
  if (m_net.empty() || bgr == nullptr || mask == nullptr || width <= 0 || height <= 0) {
    return TAVO_COMPUTING_ERR_INFERENCE;
  }
  try {
    const cv::Mat frame(height, width, CV_8UC3, const_cast<uint8_t*>(bgr), stride);
    // The whole frame stretched to the model size, R, G, B as floats in [0, 1].
    const cv::Mat blob =
        cv::dnn::blobFromImage(frame, 1.0 / 255.0, cv::Size(m_modelWidth, m_modelHeight),
                               cv::Scalar(), true, false, CV_32F);
    m_net.setInput(blob);
    cv::Mat output = m_net.forward();
    if (output.dims != 4 || output.size[0] != 1 || output.size[1] != 1 ||
        output.size[2] != m_modelHeight || output.size[3] != m_modelWidth) {
      return TAVO_COMPUTING_ERR_INFERENCE;
    }
    cv::Mat probability(m_modelHeight, m_modelWidth, CV_32F, output.ptr<float>());
    cv::Mat smoothed;
    if (m_smoothing && m_previous.size() == probability.size()) {
      // weight = min(1, still + gain * |new - old|); smoothed = old + weight * (new - old)
      cv::Mat change = probability - m_previous;
      cv::Mat weight = cv::abs(change) * kMotionGain + kStillWeight;
      cv::min(weight, 1.0, weight);
      smoothed = m_previous + weight.mul(change);
    } else {
      smoothed = probability.clone();
    }
    m_previous = smoothed;
    cv::Mat alpha;
    const float low = m_edgeRefinement ? kEdgeLow : 0.0F;
    const float high = m_edgeRefinement ? kEdgeHigh : 1.0F;
    const double scale = 255.0 / (high - low);
    smoothed.convertTo(alpha, CV_8U, scale, -low * scale);  // saturates to 0..255
    cv::Mat out(height, width, CV_8U, mask);
    cv::resize(alpha, out, out.size(), 0, 0, cv::INTER_LINEAR);
    if (out.data != mask) {
      return TAVO_COMPUTING_ERR_INFERENCE;  // never reallocated: sizes match
    }
  } catch (const std::exception&) {
    return TAVO_COMPUTING_ERR_INFERENCE;
  }
  return TAVO_COMPUTING_OK;
}
