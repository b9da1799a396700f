// The platform's services other than conversions: the processor and system checks, the
// host's shared-memory queue, the configuration directory and the GPU description.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <future>
#include <memory>
#include <string>
#include <thread>

#include "platform/adapt_common/om_cust_util.h"
#include "platform/adapt_common/os_platform_check.h"
#include "platform/adapt_common/os_shm_queue.h"

namespace {

TEST(PlatformCheckTest, PredicatesFollowTheIdentity) {
  const struct {
    const char* cpu;
    const char* os;
    int32_t kos, uos;
  } cases[] = {
      {"Soren 7A 4 cores", "Kylin V10", 1, 0}, {"Soren 8C", "UOS Desktop", 0, 1},
      {"Soren 7A", "Debian GNU/Linux", 0, 0},  {"Soren 9X", "Kylin", 0, 0},
      {"Intel(R) Xeon(R)", "Uos", 0, 0},
  };
  for (const auto& c : cases) {
    OsPlatformSetIdentity(c.cpu, c.os);
    EXPECT_EQ(IsSorenKOS(), c.kos) << c.cpu << " / " << c.os;
    EXPECT_EQ(IsSorenUOS(), c.uos) << c.cpu << " / " << c.os;
  }
  OsPlatformSetIdentity("Soren 8C", "kylin");
  EXPECT_EQ(IsTargetCpu("Soren 8C"), 1);
  EXPECT_EQ(IsTargetCpu("soren 8c"), 0);  // model names compare exactly
  EXPECT_EQ(IsTargetOs("Kylin"), 1);      // system names ignore case
  EXPECT_EQ(IsTargetCpu(nullptr), 0);
  EXPECT_EQ(IsTargetOs(""), 0);
  OsPlatformSetIdentity(nullptr, nullptr);  // the machine's own: not a target
  EXPECT_EQ(IsTargetCpu("Soren 7A"), 0);
  EXPECT_EQ(IsSorenKOS(), 0);
  EXPECT_EQ(IsSorenUOS(), 0);
}

TEST(ShmQueueTest, WrittenBuffersReachTheReaderInOrder) {
  constexpr uint32_t kQueue = 0x51;
  ASSERT_EQ(OsShmAdvancedQueueCreate(kQueue, 2, 1024), 0);
  EXPECT_NE(OsShmAdvancedQueueCreate(kQueue, 2, 1024), 0);
  OsShmAdvancedBuffer* first = OsShmAdvancedMemAllocBuffer(kQueue, 0, 16);
  OsShmAdvancedBuffer* second = OsShmAdvancedMemAllocBuffer(kQueue, 0, 16);
  ASSERT_NE(first, nullptr);
  ASSERT_NE(second, nullptr);
  EXPECT_EQ(OsShmAdvancedMemAllocBuffer(kQueue, 0, 1025), nullptr);          // above the limit
  OsShmAdvancedBuffer* full = OsShmAdvancedMemAllocBuffer(kQueue, 0, 1024);  // at the limit
  EXPECT_NE(full, nullptr);
  OsShmAdvancedMemFreeBuffer(full);
  EXPECT_EQ(OsShmAdvancedMemAllocBuffer(kQueue + 1, 0, 16), nullptr);  // no such queue
  static_cast<uint8_t*>(first->mem)[0] = 1;
  first->usedLen = 1;
  static_cast<uint8_t*>(second->mem)[0] = 2;
  second->usedLen = 17;  // beyond the capacity
  EXPECT_NE(OsShmAdvancedWriteBulkQueue(kQueue, &second, 1), 0);
  second->usedLen = 1;
  OsShmAdvancedBuffer* both[] = {first, second};
  ASSERT_EQ(OsShmAdvancedWriteBulkQueue(kQueue, both, 2), 0);
  OsShmAdvancedBuffer* third = OsShmAdvancedMemAllocBuffer(kQueue, 0, 16);
  EXPECT_NE(OsShmAdvancedWriteBulkQueue(kQueue, &third, 1), 0);  // full
  OsShmAdvancedMemFreeBuffer(third);
  OsShmAdvancedBuffer* read[4] = {};
  ASSERT_EQ(OsShmAdvancedReadBulkQueue(kQueue, read, 4, 0), 2u);
  EXPECT_EQ(static_cast<uint8_t*>(read[0]->mem)[0], 1);
  EXPECT_EQ(static_cast<uint8_t*>(read[1]->mem)[0], 2);
  EXPECT_EQ(OsShmAdvancedReadBulkQueue(kQueue, read, 4, 0), 0u);
  OsShmAdvancedMemFreeBuffer(read[0]);
  OsShmAdvancedMemFreeBuffer(read[1]);
  OsShmAdvancedMemFreeBuffer(nullptr);
  // A buffer written and never read is freed with its queue.
  OsShmAdvancedBuffer* left = OsShmAdvancedMemAllocBuffer(kQueue, 0, 8);
  ASSERT_EQ(OsShmAdvancedWriteBulkQueue(kQueue, &left, 1), 0);
  EXPECT_EQ(OsShmAdvancedQueueDestroy(kQueue), 0);
  EXPECT_NE(OsShmAdvancedQueueDestroy(kQueue), 0);
}

// A read waits its timeout in milliseconds, and no longer than the first write.
TEST(ShmQueueTest, ReadWaitsMillisecondsAndEndsAtTheFirstWrite) {
  constexpr uint32_t kQueue = 0x52;
  ASSERT_EQ(OsShmAdvancedQueueCreate(kQueue, 2, 64), 0);
  // Run on a thread of its own with a limit: a wait taken in seconds fails instead of hanging.
  auto timedRead = [](uint32_t timeoutMs) {
    auto result = std::make_shared<std::promise<uint32_t>>();
    std::future<uint32_t> taken = result->get_future();
    std::thread([result, timeoutMs] {
      OsShmAdvancedBuffer* read[2] = {};
      const uint32_t count = OsShmAdvancedReadBulkQueue(kQueue, read, 2, timeoutMs);
      for (uint32_t i = 0; i < count; ++i) {
        OsShmAdvancedMemFreeBuffer(read[i]);
      }
      result->set_value(count);
    }).detach();
    return taken;
  };
  const auto begin = std::chrono::steady_clock::now();
  std::future<uint32_t> empty = timedRead(40);
  ASSERT_EQ(empty.wait_for(std::chrono::seconds(5)), std::future_status::ready);
  EXPECT_EQ(empty.get(), 0U);
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(40));

  std::future<uint32_t> one = timedRead(60000);
  OsShmAdvancedBuffer* buffer = OsShmAdvancedMemAllocBuffer(kQueue, 0, 8);
  buffer->usedLen = 8;
  ASSERT_EQ(OsShmAdvancedWriteBulkQueue(kQueue, &buffer, 1), 0);
  ASSERT_EQ(one.wait_for(std::chrono::seconds(5)), std::future_status::ready);
  EXPECT_EQ(one.get(), 1U);
  EXPECT_EQ(OsShmAdvancedQueueDestroy(kQueue), 0);
}

TEST(PlatformServicesTest, ConfigurationDirectoryAndGpuInfo) {
  const char* saved = std::getenv("TAVO_OM_CFG_PATH");
  const std::string keep = saved == nullptr ? "" : saved;
  unsetenv("TAVO_OM_CFG_PATH");
  EXPECT_STREQ(TavoOmCustUtilGetCfgPath(0), TAVO_OM_DEFAULT_CFG_PATH);
  setenv("TAVO_OM_CFG_PATH", "/tmp/cfg//", 1);
  const char* first = TavoOmCustUtilGetCfgPath(0);
  EXPECT_STREQ(first, "/tmp/cfg");
  setenv("TAVO_OM_CFG_PATH", "", 1);
  EXPECT_STREQ(TavoOmCustUtilGetCfgPath(0), TAVO_OM_DEFAULT_CFG_PATH);
  EXPECT_STREQ(first, "/tmp/cfg");  // a text handed out stays valid
  if (saved != nullptr) {
    setenv("TAVO_OM_CFG_PATH", keep.c_str(), 1);
  } else {
    unsetenv("TAVO_OM_CFG_PATH");
  }
  char info[640];
  std::memset(info, 'x', sizeof info);
  ASSERT_EQ(TavoDevmGetGpuInfo(info, sizeof info), 0);
  EXPECT_NE(std::memchr(info, '\0', sizeof info), nullptr);
  EXPECT_EQ(TavoDevmGetGpuInfo(info, 4), -1);
  EXPECT_EQ(TavoDevmGetGpuInfo(nullptr, 640), -1);
}

}  // namespace
