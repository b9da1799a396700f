#include "tools/common/jpeg_util.h"

#include <algorithm>
#include <csetjmp>
#include <cstddef>
#include <cstdio>
#include <cstdlib>

// jpeglib.h needs size_t and FILE declared first.
// clang-format off
#include <jpeglib.h>
// clang-format on

namespace {

struct ErrorJump {
  jpeg_error_mgr manager;
  jmp_buf jump;
};

void OnJpegError(j_common_ptr info) {
  auto* error = reinterpret_cast<ErrorJump*>(info->err);
  longjmp(error->jump, 1);
}

}  // namespace

std::vector<uint8_t> EncodeI420Jpeg(const uint8_t* i420, uint32_t width, uint32_t height,
                                    int quality) {
  if (i420 == nullptr || width == 0 || height == 0) {
    return {};
  }
  const uint32_t chromaWidth = (width + 1) / 2;
  const uint32_t chromaHeight = (height + 1) / 2;
  const uint8_t* planeY = i420;
  const uint8_t* planeU = planeY + size_t{width} * height;
  const uint8_t* planeV = planeU + size_t{chromaWidth} * chromaHeight;

  jpeg_compress_struct info{};
  ErrorJump error{};
  unsigned char* output = nullptr;
  unsigned long outputSize = 0;
  info.err = jpeg_std_error(&error.manager);
  error.manager.error_exit = OnJpegError;
  if (setjmp(error.jump) != 0) {
    jpeg_destroy_compress(&info);
    std::free(output);
    return {};
  }
  jpeg_create_compress(&info);
  jpeg_mem_dest(&info, &output, &outputSize);
  info.image_width = width;
  info.image_height = height;
  info.input_components = 3;
  info.in_color_space = JCS_YCbCr;
  jpeg_set_defaults(&info);
  jpeg_set_quality(&info, quality, TRUE);
  info.raw_data_in = TRUE;
  info.comp_info[0].h_samp_factor = 2;
  info.comp_info[0].v_samp_factor = 2;
  info.comp_info[1].h_samp_factor = 1;
  info.comp_info[1].v_samp_factor = 1;
  info.comp_info[2].h_samp_factor = 1;
  info.comp_info[2].v_samp_factor = 1;
  info.dct_method = JDCT_ISLOW;
  jpeg_start_compress(&info, TRUE);

  // Raw input goes in bands of 16 luma rows, each row read to a whole number of blocks
  // (16 luma, 8 chroma samples): rows are copied into padded ones that repeat their last
  // sample, and rows past the picture repeat its last row.
  const size_t paddedY = (size_t{width} + 15) / 16 * 16;
  const size_t paddedC = paddedY / 2;
  std::vector<uint8_t> band(16 * paddedY + 2 * 8 * paddedC);
  std::vector<JSAMPROW> rowsY(16);
  std::vector<JSAMPROW> rowsU(8);
  std::vector<JSAMPROW> rowsV(8);
  JSAMPARRAY planes[3] = {rowsY.data(), rowsU.data(), rowsV.data()};
  const auto padRow = [](uint8_t* out, const uint8_t* row, size_t length, size_t padded) {
    std::copy(row, row + length, out);
    std::fill(out + length, out + padded, row[length - 1]);
    return out;
  };
  while (info.next_scanline < info.image_height) {
    uint8_t* next = band.data();
    for (uint32_t i = 0; i < 16; ++i, next += paddedY) {
      const uint32_t y = std::min(info.next_scanline + i, height - 1);
      rowsY[i] = padRow(next, planeY + size_t{y} * width, width, paddedY);
    }
    for (uint32_t i = 0; i < 8; ++i, next += 2 * paddedC) {
      const uint32_t y = std::min(info.next_scanline / 2 + i, chromaHeight - 1);
      rowsU[i] = padRow(next, planeU + size_t{y} * chromaWidth, chromaWidth, paddedC);
      rowsV[i] = padRow(next + paddedC, planeV + size_t{y} * chromaWidth, chromaWidth, paddedC);
    }
    jpeg_write_raw_data(&info, planes, 16);
  }
  jpeg_finish_compress(&info);
  jpeg_destroy_compress(&info);
  std::vector<uint8_t> result(output, output + outputSize);
  std::free(output);
  return result;
}

std::vector<uint8_t> MakePatternI420(uint32_t width, uint32_t height, uint32_t sequence) {
  const uint32_t chromaWidth = (width + 1) / 2;
  const uint32_t chromaHeight = (height + 1) / 2;
  std::vector<uint8_t> frame(size_t{width} * height + 2 * size_t{chromaWidth} * chromaHeight);
  uint8_t* y = frame.data();
  for (uint32_t row = 0; row < height; ++row) {
    for (uint32_t col = 0; col < width; ++col) {
      const uint32_t bar = ((col + sequence * 8) / 32) % 8;
      y[size_t{row} * width + col] = static_cast<uint8_t>(16 + bar * 28 + (row * 7 + col) % 8);
    }
  }
  uint8_t* u = y + size_t{width} * height;
  uint8_t* v = u + size_t{chromaWidth} * chromaHeight;
  for (uint32_t row = 0; row < chromaHeight; ++row) {
    for (uint32_t col = 0; col < chromaWidth; ++col) {
      u[size_t{row} * chromaWidth + col] = static_cast<uint8_t>(64 + (col * 3 + sequence) % 128);
      v[size_t{row} * chromaWidth + col] = static_cast<uint8_t>(64 + (row * 5 + sequence) % 128);
    }
  }
  return frame;
}
