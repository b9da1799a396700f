#include "tools/common/y4m_reader.h"

#include <fstream>
#include <sstream>

namespace {

// Header lines are short; a longer one means this is not a Y4M stream.
constexpr size_t kMaxHeaderLine = 1024;
// Frames beyond 16384 pixels a side are not video; refusing them keeps sizes sane.
constexpr uint32_t kMaxSide = 16384;

bool ReadLine(std::istream& in, std::string& line) {
  line.clear();
  char c = 0;
  while (in.get(c)) {
    if (c == '\n') {
      return true;
    }
    if (line.size() >= kMaxHeaderLine) {
      return false;
    }
    line.push_back(c);
  }
  return false;
}

bool ParseNumber(const std::string& text, uint32_t& out) {
  if (text.empty() || text.size() > 9) {
    return false;
  }
  uint32_t value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') {
      return false;
    }
    value = value * 10 + static_cast<uint32_t>(c - '0');
  }
  out = value;
  return true;
}

}  // namespace

bool Y4mReader::Fail(const std::string& text) {
  m_error = text;
  return false;
}

size_t Y4mReader::FrameBytes() const {
  return size_t{m_width} * m_height + 2 * size_t{ChromaWidth()} * ChromaHeight();
}

bool Y4mReader::Open(const std::string& path) {
  auto file = std::make_unique<std::ifstream>(path, std::ios::binary);
  if (!*file) {
    return Fail("cannot open " + path);
  }
  m_in = std::move(file);
  return ReadHeader();
}

bool Y4mReader::OpenBytes(std::string bytes) {
  m_in = std::make_unique<std::istringstream>(std::move(bytes), std::ios::binary);
  return ReadHeader();
}

bool Y4mReader::ReadHeader() {
  std::string line;
  if (!ReadLine(*m_in, line)) {
    return Fail("no YUV4MPEG2 header line");
  }
  std::istringstream tokens(line);
  std::string token;
  tokens >> token;
  if (token != "YUV4MPEG2") {
    return Fail("not a YUV4MPEG2 stream");
  }
  m_width = m_height = 0;
  while (tokens >> token) {
    const std::string value = token.substr(1);
    switch (token[0]) {
      case 'W':
        if (!ParseNumber(value, m_width)) {
          return Fail("bad width " + value);
        }
        break;
      case 'H':
        if (!ParseNumber(value, m_height)) {
          return Fail("bad height " + value);
        }
        break;
      case 'F': {
        const size_t colon = value.find(':');
        if (colon == std::string::npos || !ParseNumber(value.substr(0, colon), m_rateNum) ||
            !ParseNumber(value.substr(colon + 1), m_rateDen) || m_rateNum == 0 || m_rateDen == 0) {
          return Fail("bad frame rate " + value);
        }
        break;
      }
      case 'C':
        // Every 4:2:0 siting has the same plane layout; other samplings and depths do not.
        if (value != "420" && value != "420jpeg" && value != "420paldv" && value != "420mpeg2") {
          return Fail("colour space " + value + " is not 8-bit 4:2:0");
        }
        break;
      default:  // interlacing, aspect and extensions do not change the planes
        break;
    }
  }
  if (m_width == 0 || m_height == 0 || m_width > kMaxSide || m_height > kMaxSide) {
    return Fail("missing or bad frame size");
  }
  return true;
}

bool Y4mReader::ReadFrame(std::vector<uint8_t>& i420) {
  if (!m_in) {
    return Fail("not open");
  }
  std::string line;
  if (!ReadLine(*m_in, line)) {
    m_error.clear();  // the end of the stream, or a last line cut short
    return false;
  }
  if (line.compare(0, 5, "FRAME") != 0) {
    return Fail("frame header expected");
  }
  i420.resize(FrameBytes());
  m_in->read(reinterpret_cast<char*>(i420.data()), static_cast<std::streamsize>(i420.size()));
  if (static_cast<size_t>(m_in->gcount()) != i420.size()) {
    return Fail("last frame cut short");
  }
  return true;
}

std::string MakeY4m(uint32_t width, uint32_t height, uint32_t rateNum, uint32_t rateDen,
                    const std::vector<std::vector<uint8_t>>& frames) {
  std::string out = "YUV4MPEG2 W" + std::to_string(width) + " H" + std::to_string(height) + " F" +
                    std::to_string(rateNum) + ":" + std::to_string(rateDen) + " Ip A1:1 C420jpeg\n";
  for (const std::vector<uint8_t>& frame : frames) {
    out += "FRAME\n";
    out.append(reinterpret_cast<const char*>(frame.data()), frame.size());
  }
  return out;
}
