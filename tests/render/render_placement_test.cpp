#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>

#include "tavo_video_render_interface.h"

namespace {

struct Placement {
  const char* name;
  uint32_t mode;
  RenderSize size;
  RenderRect expected;
};

constexpr float kInf = std::numeric_limits<float>::infinity();
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

// Expected rects worked out by hand from each mode's geometry. A zero height is carried
// through the single-precision formulas as an infinite or NaN ratio, with no special case.
const Placement kPlacements[] = {
    {"stretch", 0, {640, 480, 1920, 1080}, {0, 0, 1920, 1080, 1920, 1080}},
    // 181 against 176 hundredths: still within the tolerance.
    {"auto_ratio_off_by_5", 1, {1000, 550, 1760, 1000}, {0, 0, 1760, 1000, 1760, 1000}},
    // 181 against 175: fitted, bars top and bottom, the size truncated from 962.5.
    {"auto_ratio_off_by_6", 1, {1000, 550, 1750, 1000}, {0, 18.75F, 1750, 981.25F, 1750, 962}},
    {"auto_narrow_image_fits", 1, {640, 480, 1920, 1080}, {240, 0, 1680, 1080, 1440, 1080}},
    {"auto_zero_image_height", 1, {640, 0, 1920, 1080}, {0, 540, 1920, 540, 1920, 0}},
    {"auto_zero_window_height", 1, {640, 480, 1920, 0}, {960, 0, 960, 0, 0, 0}},
    {"crop_narrow_image", 2, {640, 480, 1920, 1080}, {0, -180, 1920, 1260, 1920, 1440}},
    {"crop_wide_image", 2, {1920, 1080, 640, 480}, {-106.6667F, 0, 746.6667F, 480, 853, 480}},
    {"crop2_as_crop", 5, {640, 480, 1920, 1080}, {0, -180, 1920, 1260, 1920, 1440}},
    {"crop_zero_image", 2, {0, 480, 1920, 1080}, {0, -kInf, 1920, kNaN, 1920, 0}},
    {"image_size", 3, {640, 480, 1920, 1080}, {0, 0, 640, 480, 640, 480}},
    {"fit_wide_image", 4, {1920, 1080, 640, 480}, {0, 60, 640, 420, 640, 360}},
    {"unknown_mode_fits", 7, {1920, 1080, 640, 480}, {0, 60, 640, 420, 640, 360}},
    {"fit_zero_window", 4, {1920, 1080, 0, 480}, {0, 240, 0, 240, 0, 0}},
    // Sizes the host never checks must not overflow the integer size (UB under a plain cast);
    // exactly 2^31 is one past the largest int as well.
    {"image_size_saturates",
     3,
     {2147483648U, 4000000000U, 1, 1},
     {0, 0, 2147483648.0F, 4000000000.0F, INT32_MAX, INT32_MAX}},
};

// NaN matches NaN and an infinity only itself; finite values within rounding.
bool SameFloat(float actual, float expected) {
  return (std::isnan(actual) && std::isnan(expected)) || actual == expected ||
         (std::isfinite(expected) && std::fabs(actual - expected) < 1e-3F);
}

class RenderPlacementTest : public ::testing::TestWithParam<Placement> {};

TEST_P(RenderPlacementTest, PlacesTheImage) {
  const Placement& p = GetParam();
  const RenderRect& want = p.expected;
  RenderRect rect{-1, -1, -1, -1, -1, -1};
  EXPECT_EQ(RenderGetRenderPos(p.size, rect, static_cast<PelvAspectRatioMode>(p.mode)), 0U);
  EXPECT_TRUE(SameFloat(rect.left, want.left) && SameFloat(rect.top, want.top) &&
              SameFloat(rect.right, want.right) && SameFloat(rect.bottom, want.bottom))
      << rect.left << " " << rect.top << " " << rect.right << " " << rect.bottom;
  EXPECT_EQ(std::pair(rect.width, rect.height), std::pair(want.width, want.height));
}

INSTANTIATE_TEST_SUITE_P(Modes, RenderPlacementTest, ::testing::ValuesIn(kPlacements),
                         [](const auto& test) { return std::string(test.param.name); });

}  // namespace
