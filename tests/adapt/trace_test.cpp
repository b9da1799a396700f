#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <tuple>
#include <vector>

#include "tests/support/log_capture.h"
#include "trace/tavo_video_vlink_log.h"

namespace {

struct Delivered {
  uint32_t level;
  std::string text;
};

std::mutex g_deliveredLock;
std::vector<Delivered> g_delivered[3];

template <int Channel>
void Collect(uint32_t level, const char* text) {
  std::lock_guard<std::mutex> lock(g_deliveredLock);
  g_delivered[Channel].push_back({level, text});
}

class TraceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(OS_VLink_Debug_TraceRegister(0, Collect<0>), 0);
    ASSERT_EQ(OS_VLink_Debug_TraceRegister(1, Collect<1>), 0);
    ASSERT_EQ(OS_VLink_Debug_TraceRegister(2, Collect<2>), 0);
    std::lock_guard<std::mutex> lock(g_deliveredLock);
    for (auto& channel : g_delivered) {
      channel.clear();
    }
  }
  void TearDown() override { OS_VLink_Debug_SetTraceLevel(0); }

  static std::vector<Delivered> Channel(int channel) {
    std::lock_guard<std::mutex> lock(g_deliveredLock);
    return g_delivered[channel];
  }
};

void LogOneOfEach() {
  VLOG_ERR("error %d", 1);
  VLOG_WRN("warning %d", 2);
  VLOG_INF("info %d", 3);
  VLOG_DTL("detail %d", 4);
}

// Level 0 leaves the trace silent and the module log still gets errors, warnings and
// information; each higher level admits its own lines, tagged; channels and sinks are apart.
// Texts that do not fit are dropped, and a second callback replaces the first.
TEST_F(TraceTest, LevelsSinksChannelsBadTextsAndReplacedCallbacks) {
  LogCapture logs;
  ASSERT_EQ(OS_VLink_Debug_SetTraceLevel(0), 0);
  LogOneOfEach();
  EXPECT_TRUE(Channel(0).empty());
  EXPECT_TRUE(logs.HasModule("warning 2", 2));
  EXPECT_TRUE(logs.HasModule("info 3", 3));
  // The module log gets the bare text and the file without its directory.
  const OmLogRecord first = logs.Records().at(0);
  EXPECT_EQ(std::tie(first.level, first.text, first.file, first.moduleId),
            std::tuple(1U, "error 1", "trace_test.cpp", TavoVideoGetPrivateLogId(0) & 0xFFFFU));

  ASSERT_EQ(OS_VLink_Debug_SetTraceLevel(3), 0);
  LogOneOfEach();
  ASSERT_EQ(OS_VLink_Debug_SetTraceLevel(4), 0);
  VLOG_DTL("detail %d", 4);
  const auto delivered = Channel(0);
  ASSERT_EQ(delivered.size(), 4U);  // level 3 held the first detail back
  const char* tags[] = {"Err", "Wrn", "Inf", "Dtl"};
  for (uint32_t i = 0; i < 4; ++i) {
    EXPECT_EQ(delivered[i].level, i + 1);
    EXPECT_NE(delivered[i].text.find(std::string("OS_VLink->[") + tags[i] + "]"),
              std::string::npos);
  }
  EXPECT_EQ(delivered[0].text.rfind("\r\n\033[1;31m OS_VLink->[Err] \033[0m [LogOneOfEach][", 0),
            0U);
  EXPECT_NE(delivered[0].text.find("]: error 1"), std::string::npos);

  VLOG_INF_CH(2, "camera says %s", "hi");
  VLOG_INF_TRACE("trace only");
  VLOG_ERR_MODULE("module only");
  ASSERT_EQ(Channel(2).size(), 1U);
  EXPECT_NE(Channel(2)[0].text.find("camera says hi"), std::string::npos);
  ASSERT_EQ(Channel(0).size(), 5U);
  EXPECT_NE(Channel(0)[4].text.find("trace only"), std::string::npos);
  EXPECT_FALSE(logs.HasModule("trace only"));
  EXPECT_TRUE(logs.HasModule("module only", 1));

  // Texts of 511 characters or more, empty ones and unknown channels are dropped.
  for (const std::string& text :
       {std::string(510, 'a'), std::string(511, 'b'), std::string(4000, 'c'), std::string()}) {
    OSV_VLink_TracePrintf(0, 1, "%s", text.c_str());
  }
  OSV_VLink_TracePrintf(3, 1, "%s", "no such channel");
  ASSERT_EQ(Channel(0).size(), 6U);
  EXPECT_EQ(Channel(0).back().text, std::string(510, 'a'));

  // A second callback replaces the first (refused levels and registrations are tested
  // through the exported controls).
  ASSERT_EQ(OS_VLink_Debug_TraceRegister(2, Collect<1>), 0);
  OSV_VLink_TracePrintf(2, 1, "to channel %d", 2);
  EXPECT_EQ(Channel(2).size(), 1U);  // the earlier line only
  ASSERT_EQ(Channel(1).size(), 1U);
  EXPECT_EQ(Channel(1)[0].text, "to channel 2");
}

}  // namespace
