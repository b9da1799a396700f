// JPEG encoding with libjpeg for test frames, fake cameras and benchmarks.
#pragma once

#include <cstdint>
#include <vector>

// Encodes packed I420 (Y width x height, then U and V of (width+1)/2 x (height+1)/2) as a
// baseline 4:2:0 JPEG. Empty on failure.
std::vector<uint8_t> EncodeI420Jpeg(const uint8_t* i420, uint32_t width, uint32_t height,
                                    int quality = 85);

// A deterministic packed I420 test picture that changes with `sequence` (moving bars and a
// gradient), so frames differ from each other and from their neighbours.
std::vector<uint8_t> MakePatternI420(uint32_t width, uint32_t height, uint32_t sequence);
