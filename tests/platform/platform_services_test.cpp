// The platform's services other than conversions: the processor and system checks, the
// host's shared-memory queue, the configuration directory and the GPU description.
#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <future>
#include <memory>
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
  // Model names compare exactly, system names ignore case; no name matches nothing.
  OsPlatformSetIdentity("Soren 8C", "kylin");
  EXPECT_EQ((std::array{IsTargetCpu("Soren 8C"), IsTargetCpu("soren 8c"), IsTargetOs("Kylin"),
                        IsTargetCpu(nullptr), IsTargetOs("")}),
            (std::array{1, 0, 1, 0, 0}));
  OsPlatformSetIdentity(nullptr, nullptr);  // the machine's own: not a target
  EXPECT_EQ((std::array{IsTargetCpu("Soren 7A"), IsSorenKOS(), IsSorenUOS()}),
            (std::array{0, 0, 0}));
}

// Written buffers reach the reader in order; a read waits its timeout in milliseconds, and no
// longer than the first write.
TEST(ShmQueueTest, WrittenBuffersReachTheReaderInOrderAndReadsWaitMilliseconds) {
  constexpr uint32_t kQueue = 0x51;
  ASSERT_EQ(OsShmAdvancedQueueCreate(kQueue, 2, 1024), 0);
  EXPECT_NE(OsShmAdvancedQueueCreate(kQueue, 2, 1024), 0);
  // A buffer of `size` bytes, one of them used.
  const auto filled = [](uint32_t size) {
    OsShmAdvancedBuffer* buffer = OsShmAdvancedMemAllocBuffer(kQueue, 0, size);
    buffer->usedLen = 1;
    return buffer;
  };
  OsShmAdvancedBuffer* first = filled(16);
  OsShmAdvancedBuffer* second = filled(16);
  EXPECT_EQ(OsShmAdvancedMemAllocBuffer(kQueue, 0, 1025), nullptr);          // above the limit
  OsShmAdvancedBuffer* full = OsShmAdvancedMemAllocBuffer(kQueue, 0, 1024);  // at the limit
  EXPECT_NE(full, nullptr);
  OsShmAdvancedMemFreeBuffer(full);
  EXPECT_EQ(OsShmAdvancedMemAllocBuffer(kQueue + 1, 0, 16), nullptr);  // no such queue
  second->usedLen = 17;                                                // beyond the capacity
  EXPECT_NE(OsShmAdvancedWriteBulkQueue(kQueue, &second, 1), 0);
  second->usedLen = 16;  // the whole capacity
  OsShmAdvancedBuffer* both[] = {first, second};
  ASSERT_EQ(OsShmAdvancedWriteBulkQueue(kQueue, both, 2), 0);
  OsShmAdvancedBuffer* third = filled(16);
  EXPECT_NE(OsShmAdvancedWriteBulkQueue(kQueue, &third, 1), 0);  // full
  OsShmAdvancedBuffer* read[4] = {};
  ASSERT_EQ(OsShmAdvancedReadBulkQueue(kQueue, read, 4, 0), 2u);
  EXPECT_EQ((std::array{read[0], read[1]}), (std::array{first, second}));
  OsShmAdvancedMemFreeBuffer(read[0]);
  OsShmAdvancedMemFreeBuffer(read[1]);

  // Each read runs on a thread of its own with a limit: a wait taken in seconds fails
  // instead of hanging.
  auto timedRead = [](uint32_t timeoutMs) {
    auto result = std::make_shared<std::promise<uint32_t>>();
    std::future<uint32_t> taken = result->get_future();
    std::thread([result, timeoutMs] {
      OsShmAdvancedBuffer* got[2] = {};
      const uint32_t count = OsShmAdvancedReadBulkQueue(kQueue, got, 2, timeoutMs);
      OsShmAdvancedMemFreeBuffer(got[0]);  // a null one is ignored
      OsShmAdvancedMemFreeBuffer(got[1]);
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
  ASSERT_EQ(OsShmAdvancedWriteBulkQueue(kQueue, &third, 1), 0);
  ASSERT_EQ(one.wait_for(std::chrono::seconds(5)), std::future_status::ready);
  EXPECT_EQ(one.get(), 1U);
  // A buffer written and never read is freed with its queue.
  OsShmAdvancedBuffer* left = filled(8);
  ASSERT_EQ(OsShmAdvancedWriteBulkQueue(kQueue, &left, 1), 0);
  EXPECT_EQ(OsShmAdvancedQueueDestroy(kQueue), 0);
  EXPECT_NE(OsShmAdvancedQueueDestroy(kQueue), 0);
}

TEST(PlatformServicesTest, ConfigurationDirectoryAndGpuInfo) {
  // Nothing else in this program reads the variable.
  unsetenv("TAVO_OM_CFG_PATH");
  EXPECT_STREQ(TavoOmCustUtilGetCfgPath(0), TAVO_OM_DEFAULT_CFG_PATH);
  setenv("TAVO_OM_CFG_PATH", "/tmp/cfg//", 1);
  const char* first = TavoOmCustUtilGetCfgPath(0);
  EXPECT_STREQ(first, "/tmp/cfg");
  setenv("TAVO_OM_CFG_PATH", "", 1);
  EXPECT_STREQ(TavoOmCustUtilGetCfgPath(0), TAVO_OM_DEFAULT_CFG_PATH);
  EXPECT_STREQ(first, "/tmp/cfg");  // a text handed out stays valid
  unsetenv("TAVO_OM_CFG_PATH");
  char info[640];
  std::memset(info, 'x', sizeof info);
  ASSERT_EQ(TavoDevmGetGpuInfo(info, sizeof info), 0);
  EXPECT_NE(std::memchr(info, '\0', sizeof info), nullptr);
  EXPECT_EQ(TavoDevmGetGpuInfo(info, 4), -1);
  EXPECT_EQ(TavoDevmGetGpuInfo(nullptr, 640), -1);
}

}  // namespace
