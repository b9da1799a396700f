#include <gtest/gtest.h>

#include "platform/adapt_common/om_cust_util.h"
#include "tests/background/background_fixture.h"

namespace {

using Knobs = FakeComputingClient::Knobs;
using BackgroundNodeTest = BackgroundLinkTest;

// The task record the node hands the client for `model` at width x height, byte for byte.
std::vector<uint8_t> TaskRecord(const char* model, uint16_t width, uint16_t height) {
  const std::string path =
      std::string(TavoOmCustUtilGetCfgPath(0)) + "/computing/arm64/Virtualbackground/" + model;
  std::vector<uint8_t> expected(sizeof(TavoComputingTaskParams), 0);
  std::memcpy(&expected[0], "BG_VIRTAL", 9);
  std::memcpy(&expected[100], "libtavo_video_plugin.so", 23);
  expected[200] = 1;
  std::memcpy(&expected[204], path.data(), path.size());
  expected[2244] = 12;
  expected[2248] = 2;
  expected[2252] = 12;
  expected[2256] = 2;
  const uint16_t size[2] = {width, height};
  std::memcpy(&expected[3072], size, sizeof size);  // little-endian, as the host reads it
  expected[3076] = 1;
  return expected;
}

TEST_F(BackgroundNodeTest, TaskFollowsTheOrientationAndLastsUntilStopProcess) {
  const struct {
    uint16_t width, height;
    const char* model;
    int modelWidth, modelHeight;
  } cases[] = {
      {1280, 720, "output_ppsegv2_224_398_mask", 398, 224},
      {720, 1280, "output_ppsegv2_398_224_mask", 224, 398},
      {640, 640, "output_ppsegv2_224_398_mask", 398, 224},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::to_string(c.width) + "x" + std::to_string(c.height));
    m_node->SetParam(Params(m_bgPath, c.width, c.height, 25));
    TavoComputingTaskParams params;
    std::memset(&params, 0xAB, sizeof params);
    m_node->FillTaskParams(m_node->GetModelFilePath(), &params);
    EXPECT_EQ(std::pair(modelWidth, modelHeight), std::pair(c.modelWidth, c.modelHeight));
    const auto* bytes = reinterpret_cast<const uint8_t*>(&params);
    EXPECT_EQ(std::vector<uint8_t>(bytes, bytes + sizeof params),
              TaskRecord(c.model, c.width, c.height));
  }
  // What Start hands the client: the same record and the configuration 1, 1, frame rate.
  ASSERT_EQ(m_node->SetEnable(true), 0U);
  const FakeComputingClient::Record record = m_client.Get();
  EXPECT_EQ(record.clientName, "tavo_video_master");
  EXPECT_EQ(record.createParams,
            std::vector<std::vector<uint8_t>>{TaskRecord("output_ppsegv2_224_398_mask", 640, 640)});
  const TavoComputingTaskConfig& config = record.configs.at(0);
  EXPECT_EQ((std::vector{config.threadCount, config.priority, config.frameRate}),
            (std::vector<uint32_t>{1, 1, 25}));
  // StopProcess destroys the task; a start after it makes a new one.
  const uint32_t first = m_node->GetTaskId();
  m_node->StopProcess();
  EXPECT_EQ(m_client.Get().destroys, 1);
  // A late answer for the old task, as a client would give it.
  std::vector<uint8_t> mask(TAVO_COMPUTING_RESULT_BYTES, 255);
  TavoComputingBufferParams result{};
  result.data = mask.data();
  BackgroundVirtualityNode::ComputingCallback(0, static_cast<int>(first), result);
  EXPECT_TRUE(m_log.HasModule("callbackMap not find handle:" + std::to_string(first)));
  ASSERT_EQ(m_node->StartProcess(), 0U);
  ASSERT_EQ(m_node->SetEnable(false), 0U);
  ASSERT_EQ(m_node->SetEnable(true), 0U);
  EXPECT_EQ(m_client.Get().createParams.size(), 2U);  // a new task
  // Call order: switched on but never started, a node's shutdown still stops the effect.
  auto node = std::make_shared<BackgroundVirtualityNode>(30000);
  node->SetParam(Params(m_bgPath, kWidth, kHeight));
  ASSERT_EQ(node->SetEnable(true), 0U);
  EXPECT_TRUE(node->IsRunning());
  node->Shutdown();
  EXPECT_EQ(m_client.Get().destroys, 2);
}

// Each way the node can lack what the effect needs leaves the effect off (frames pass
// through, as after the failed start below).
TEST_F(BackgroundNodeTest, MissingLibraryOrFunctionLeavesTheEffectOff) {
  // The function the client and the wrapper each lack, "-" for the whole library.
  std::vector<std::pair<std::string, std::string>> cases = {
      {"-", ""}, {"", "-"}, {"", "CResize"}, {"", "C_INTER_LINEAR"}};
  for (const auto& [name, address] : FakeComputingClient::Symbols()) {
    cases.emplace_back(name, "");
  }
  for (const auto& [client, wrapper] : cases) {
    SCOPED_TRACE("client without " + client + ", wrapper without " + wrapper);
    ResetOpencvBinding();  // closes the fixture's wrapper before its loader is swapped out
    FakeDynamicLoader loader;
    ScopedSeamOverride<DynamicLoader> use(loader);
    if (client != "-") {
      loader.AddLibrary(BackgroundVirtualityNode::kClientLibrary,
                        FakeComputingClient::Symbols(client));
    }
    if (wrapper != "-") {
      loader.AddLibrary("libtavo_video_opencv_wrapper.so", WrapperSymbols(wrapper));
    }
    auto node = std::make_shared<BackgroundVirtualityNode>(20000);
    node->SetParam(Params(m_bgPath, kWidth, kHeight));
    EXPECT_EQ(node->SetEnable(true), 0U);
    EXPECT_FALSE(node->IsRunning());
    node->Shutdown();
    // Open now: a complete client (kept for the process) and any wrapper there is.
    EXPECT_EQ(loader.OpenCount(), (client.empty() ? 1 : 0) + (wrapper != "-" ? 1 : 0));
    Drop(node);  // before the binding its destructor frees its images with goes
  }
}

// Masks alternate between all background and all person, so a frame blended with another
// frame's mask shows: every frame must leave with its own, whether its answer comes before
// the request returns (the answer then waits for its frame) or later, and a failed answer, a
// refused buffer and a refused request each cost exactly their own frame. A frame of a new
// size waits for those in flight before the task is retuned.
TEST_F(BackgroundNodeTest, EachFrameGetsItsOwnMaskOrIsDroppedAloneAndANewSizeWaits) {
  m_client.Change([](Knobs& k) { k = {.failRequest = 2, .alternate = true, .inline_ = true}; });
  ASSERT_EQ(m_node->SetEnable(true), 0U);
  constexpr uint32_t kFrames = 20;  // many answers before their frames: a race to lose
  for (uint32_t i = 1; i <= kFrames; ++i) {
    Submit(i);
  }
  // Two refusals, so that later frames and their requests keep the same parity.
  m_client.Change([](Knobs& k) { k.getBufferResult = TAVO_COMPUTING_ERR_BUSY; });
  Submit(kFrames + 1);
  m_client.Change([](Knobs& k) { k = {.inferenceResult = -9}; });
  Submit(kFrames + 2);
  ASSERT_TRUE(AllReleased());
  // The sink counts a frame after letting go of it: the last may still be on its way.
  ASSERT_TRUE(m_sink->handled.WaitFor(kFrames - 1));
  m_client.Change([](Knobs& k) { k = {.hold = true, .alternate = true}; });
  for (uint32_t i = kFrames + 3; i <= 2 * kFrames + 2; ++i) {
    Submit(i);
  }
  ASSERT_TRUE(m_client.requests.WaitFor(2 * kFrames));
  EXPECT_EQ(m_sink->handled.Get(), kFrames - 1);  // nothing leaves before its mask
  Send(2 * kFrames + 3, 32, 48);                  // portrait now
  m_client.Release();
  ASSERT_TRUE(AllReleased());
  const std::map<uint32_t, uint8_t> seen = Seen();
  EXPECT_EQ(seen.size(), 2 * kFrames);
  EXPECT_EQ(seen.count(2) + seen.count(kFrames + 1) + seen.count(kFrames + 2), 0U);
  for (const auto& [number, luma] : seen) {
    SCOPED_TRACE(number);
    if (number % 2 == 1) {
      EXPECT_EQ(luma, LumaOf(255, 0, 0));  // background: the blue image
    } else {
      EXPECT_NEAR(luma, kFrameLuma, 1);  // person: the frame, through RGB and back
    }
  }
  const FakeComputingClient::Record record = m_client.Get();
  EXPECT_EQ(record.updateParams,
            std::vector<std::vector<uint8_t>>{TaskRecord("output_ppsegv2_398_224_mask", 32, 48)});
  EXPECT_EQ(record.answersAtUpdate, std::vector{2 * static_cast<int>(kFrames)});
}

// Frames in flight when the effect is switched off, with a client that answers only after
// the stop (until then, as one that never answers), one that cancels them and one that
// answers twice: none leaves after the stop, not even with a late mask of an earlier run,
// each goes back once (TearDown checks for double releases), nothing is left behind (the
// sanitizer build checks leaks), and switching on again reuses the task.
TEST_F(BackgroundNodeTest, SwitchingOffReleasesFramesInFlightOnceAndOnAgainReusesTheTask) {
  const Knobs cases[] = {{.hold = true, .answerAfterStop = true}, {.hold = true}, {.twice = true}};
  uint32_t number = 0;
  for (const Knobs& knobs : cases) {
    m_client.Change([&](Knobs& k) { k = knobs; });
    ASSERT_EQ(m_node->SetEnable(true), 0U);
    const int answers = m_client.answers.Get();
    for (int i = 0; i < 3; ++i) {
      Send(++number);
    }
    ASSERT_TRUE(m_client.requests.WaitFor(static_cast<int>(number)));
    ASSERT_TRUE(m_client.answers.WaitFor(answers + (knobs.twice ? 6 : 0)));
    ASSERT_EQ(m_node->SetEnable(false), 0U);
    ASSERT_TRUE(AllReleased());
    if (knobs.answerAfterStop) {
      m_client.Release();  // the late answers arrive now
    }
    ASSERT_TRUE(m_client.answers.WaitFor(answers + (knobs.twice ? 6 : 3)));
  }
  m_client.Change([](Knobs& k) { k = Knobs{}; });
  ASSERT_EQ(m_node->SetEnable(true), 0U);
  Send(++number);
  ASSERT_TRUE(AllReleased());
  const std::map<uint32_t, uint8_t> seen = Seen();
  ASSERT_EQ(seen.count(number), 1U);
  EXPECT_GE(seen.begin()->first, 7U);  // of those in flight, only the answered twice
  EXPECT_EQ(m_client.Get().createParams.size(), 1U);
}

TEST_F(BackgroundNodeTest, FailedStartsAndStopsAreReportedAndCostNoFrame) {
  m_threads.FailNextCreates(1);
  EXPECT_EQ(m_node->SetEnable(true), 1U);
  const int starts = m_client.Get().starts;
  EXPECT_EQ(m_node->SetEnable(true), 0U);  // the request was kept: repeating it does nothing
  EXPECT_EQ(m_client.Get().starts, starts);
  Submit(1);  // passes through: the failed start left the effect off
  ASSERT_EQ(m_node->SetEnable(false), 0U);
  m_client.Change([](Knobs& k) { k.startResult = -2; });
  EXPECT_EQ(m_node->SetEnable(true), 1U);
  Submit(2);
  ASSERT_TRUE(m_sink->handled.WaitFor(2));  // both passed through
  ASSERT_TRUE(AllReleased());
  // The client refuses to stop: the node says so and keeps what is in flight until it is
  // destroyed, which releases it. The stop still ends a frame-size change's wait for the
  // frames in flight, whose answers only a stop would bring, and that frame is dropped.
  ASSERT_EQ(m_node->SetEnable(false), 0U);
  m_client.Change([](Knobs& k) { k = {.stopResult = -4, .hold = true}; });
  ASSERT_EQ(m_node->SetEnable(true), 0U);
  Submit(3);
  Send(4, 32, 48);
  ASSERT_TRUE(m_clock.sleeps.WaitFor(1));  // frame 4 waits for frame 3's answer
  EXPECT_EQ(m_node->SetEnable(false), 1U);
  ASSERT_TRUE(m_producer->released.WaitFor(3));
  EXPECT_EQ(m_producer->released.Get(), 3);  // frame 3 still in flight
  EXPECT_TRUE(m_client.Get().updateParams.empty());
  m_node->Shutdown();
  Unlink(m_node, m_sink);
  m_node.reset();  // the destructor empties the queues
  ASSERT_TRUE(AllReleased());
  m_node = std::make_shared<BackgroundVirtualityNode>(10001);  // for TearDown
}

}  // namespace
