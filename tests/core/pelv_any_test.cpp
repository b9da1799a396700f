#include "pelv_any.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "core/pelv_print_struct.h"

namespace {

TEST(PelvAnyTest, CastChecksTheHeldType) {
  PelvAny seven(uint32_t{7});
  EXPECT_EQ(AnyCast<uint32_t>(seven), 7U);
  EXPECT_EQ(AnyCast<int32_t>(seven), 0);
  EXPECT_EQ(AnyCast<int32_t>(&seven), nullptr);
  EXPECT_EQ(AnyCast<uint64_t>(&seven), nullptr);
  EXPECT_EQ(AnyCast<uint32_t>(static_cast<PelvAny*>(nullptr)), nullptr);

  PelvAny empty;
  EXPECT_EQ(empty.Type(), PelvTypeInfo::HashCode<void>());
  EXPECT_EQ(AnyCast<uint32_t>(empty), 0U);
  EXPECT_NE(PelvTypeInfo::HashCode<uint32_t>(), PelvTypeInfo::HashCode<int32_t>());
}

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

TEST(PrintStructTest, NestedRecordsPrintInTheirOwnBraces) {
  EXPECT_EQ(Pelv::PrintStruct(Outer{5, {1280, 720}, 1, 29.5}), "{5-{1280-720}-1-29.5}");
}

}  // namespace
