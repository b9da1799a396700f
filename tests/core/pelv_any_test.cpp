#include "pelv_any.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "core/pelv_print_struct.h"

namespace {

struct Inner {
  uint32_t width;
  uint32_t height;
};
struct Outer {
  uint32_t id;
  Inner size;
  uint8_t flag;
  double rate;
};

// A value is read only at its own type (the parameter store's test reads one at another);
// an empty or null holder gives nothing. Nested records print in their own braces.
TEST(PelvAnyTest, CastChecksTheHeldTypeAndNestedRecordsPrintInTheirOwnBraces) {
  PelvAny seven(uint32_t{7});
  EXPECT_EQ(AnyCast<uint32_t>(seven), 7U);
  EXPECT_EQ(AnyCast<uint64_t>(&seven), nullptr);
  EXPECT_EQ(AnyCast<uint32_t>(PelvAny{}), 0U);
  EXPECT_EQ(AnyCast<uint32_t>(static_cast<PelvAny*>(nullptr)), nullptr);
  EXPECT_EQ(Pelv::PrintStruct(Outer{5, {1280, 720}, 1, 29.5}), "{5-{1280-720}-1-29.5}");
}

}  // namespace
