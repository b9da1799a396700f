// Reads 8-bit 4:2:0 YUV4MPEG2 streams, the raw video the host programs exchange with players
// and encoders, frame by frame into packed I420.
#pragma once

#include <cstdint>
#include <istream>
#include <memory>
#include <string>
#include <vector>

class Y4mReader {
 public:
  // false (and error()) when the file cannot be opened or its header is not one this
  // reader takes: 8-bit 4:2:0 only.
  bool Open(const std::string& path);
  // Reads a stream held in memory, e.g. one made by MakeY4m.
  bool OpenBytes(std::string bytes);

  // The next frame as packed I420: Y (width x height), then U and V of
  // ChromaWidth() x ChromaHeight(). false at the end of the stream or on a damaged frame
  // (error() tells which).
  bool ReadFrame(std::vector<uint8_t>& i420);

  uint32_t Width() const { return m_width; }
  uint32_t Height() const { return m_height; }
  uint32_t ChromaWidth() const { return (m_width + 1) / 2; }
  uint32_t ChromaHeight() const { return (m_height + 1) / 2; }
  size_t FrameBytes() const;
  // Frames per second as a fraction; 25/1 when the header leaves it out.
  uint32_t RateNumerator() const { return m_rateNum; }
  uint32_t RateDenominator() const { return m_rateDen; }
  const std::string& Error() const { return m_error; }

 private:
  bool ReadHeader();
  bool Fail(const std::string& text);

  std::unique_ptr<std::istream> m_in;
  uint32_t m_width = 0;
  uint32_t m_height = 0;
  uint32_t m_rateNum = 25;
  uint32_t m_rateDen = 1;
  std::string m_error;
};

// A complete stream around packed I420 frames of width x height, all of the same size.
std::string MakeY4m(uint32_t width, uint32_t height, uint32_t rateNum, uint32_t rateDen,
                    const std::vector<std::vector<uint8_t>>& frames);
