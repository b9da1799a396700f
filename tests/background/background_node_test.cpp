#include <gtest/gtest.h>

#include <thread>

#include "platform/adapt_common/om_cust_util.h"
#include "tests/background/background_fixture.h"

namespace {

using Knobs = FakeComputingClient::Knobs;

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

class BackgroundNodeTest : public BackgroundLinkTest {};

TEST_F(BackgroundNodeTest, TaskRecordAndModelChoiceFollowTheOrientation) {
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
}

// Each way the node can lack what the effect needs leaves it passing frames through.
TEST_F(BackgroundNodeTest, MissingLibraryOrFunctionKeepsPassThrough) {
  std::vector<std::pair<std::string, std::string>> cases = {{"client", ""}, {"wrapper", ""}};
  for (const auto& [name, address] : FakeComputingClient::Symbols()) {
    cases.emplace_back("client", name);
  }
  cases.emplace_back("wrapper", "CResize");
  cases.emplace_back("wrapper", "C_INTER_LINEAR");
  uint32_t number = 0;
  for (const auto& [library, missing] : cases) {
    SCOPED_TRACE(library + " without " + (missing.empty() ? "itself" : missing));
    ResetOpencvBinding();  // closes the fixture's wrapper before its loader is swapped out
    FakeDynamicLoader loader;
    ScopedSeamOverride<DynamicLoader> use(loader);
    if (library != "client" || !missing.empty()) {
      loader.AddLibrary(BackgroundVirtualityNode::kClientLibrary,
                        FakeComputingClient::Symbols(library == "client" ? missing : ""));
    }
    if (library != "wrapper" || !missing.empty()) {
      loader.AddLibrary("libtavo_video_opencv_wrapper.so",
                        WrapperSymbols(library == "wrapper" ? missing : ""));
    }
    auto node = std::make_shared<BackgroundVirtualityNode>(20000 + number);
    Link(node, m_sink);
    ASSERT_EQ(node->StartProcess(), 0U);
    node->SetParam(Params(m_bgPath, kWidth, kHeight));
    EXPECT_EQ(node->SetEnable(true), 0U);
    EXPECT_FALSE(node->IsRunning());
    const int before = m_sink->handled.Get();
    Send(++number, kWidth, kHeight, false, node);
    ASSERT_TRUE(m_sink->handled.WaitFor(before + 1));
    EXPECT_EQ(Seen()[number], kFrameLuma);  // untouched
    node->Shutdown();
    Unlink(node, m_sink);
    // Open now: a complete client (kept for the process) and any wrapper there is.
    const bool completeClient = library != "client";
    const bool wrapperThere = library != "wrapper" || !missing.empty();
    EXPECT_EQ(loader.OpenCount(), (completeClient ? 1 : 0) + (wrapperThere ? 1 : 0));
    Drop(node);  // before the binding its destructor frees its images with goes
  }
  ASSERT_TRUE(AllReleased());
}

// Masks alternate between all person and all background, so a frame blended with another
// frame's mask shows: every frame must leave with its own, in submission order.
TEST_F(BackgroundNodeTest, OnBlendsEachFrameWithItsOwnMask) {
  m_client.Change([](Knobs& k) {
    k.hold = true;
    k.alternate = true;
  });
  ASSERT_EQ(m_node->SetEnable(true), 0U);
  constexpr uint32_t kFrames = 12;
  for (uint32_t i = 1; i <= kFrames; ++i) {
    Submit(i);
  }
  ASSERT_TRUE(m_client.requests.WaitFor(kFrames));
  EXPECT_EQ(m_sink->handled.Get(), 0);  // nothing leaves before its mask
  m_client.Release();
  ASSERT_TRUE(AllReleased());
  const std::map<uint32_t, uint8_t> seen = Seen();
  ASSERT_EQ(seen.size(), kFrames);
  for (const auto& [number, luma] : seen) {
    SCOPED_TRACE(number);
    if (number % 2 == 1) {
      EXPECT_NEAR(luma, kFrameLuma, 1);  // person: the frame, through RGB and back
    } else {
      EXPECT_EQ(luma, LumaOf(255, 0, 0));  // background: the blue image
    }
  }
}

// Failing answers, refused buffers and refused requests each cost exactly their own frame.
TEST_F(BackgroundNodeTest, EachFailureDropsOnlyItsFrame) {
  m_client.Change([](Knobs& k) { k.failRequest = 2; });
  ASSERT_EQ(m_node->SetEnable(true), 0U);
  Submit(1);
  Submit(2);
  Submit(3);
  ASSERT_TRUE(AllReleased());
  m_client.Change([](Knobs& k) { k.getBufferResult = TAVO_COMPUTING_ERR_BUSY; });
  Send(4);
  ASSERT_TRUE(AllReleased());
  m_client.Change([](Knobs& k) {
    k.getBufferResult = 0;
    k.inferenceResult = -9;
  });
  Send(5);
  ASSERT_TRUE(AllReleased());
  m_client.Change([](Knobs& k) { k.inferenceResult = 0; });
  Send(6);
  ASSERT_TRUE(AllReleased());
  EXPECT_EQ(SeenNumbers(), (std::vector<uint32_t>{1, 3, 6}));
  EXPECT_TRUE(m_log.HasModule("TavoComputingInference error ret :-9"));
}

TEST_F(BackgroundNodeTest, SwitchingOffReleasesFramesInFlightAndOnAgainReusesTheTask) {
  m_client.Change([](Knobs& k) { k.hold = true; });
  ASSERT_EQ(m_node->SetEnable(true), 0U);
  for (uint32_t i = 1; i <= 4; ++i) {
    Send(i);
  }
  ASSERT_TRUE(m_client.requests.WaitFor(4));
  ASSERT_EQ(m_node->SetEnable(false), 0U);  // the client cancels: every frame dropped once
  ASSERT_TRUE(AllReleased());
  EXPECT_TRUE(Seen().empty());
  Send(5);  // off: straight through
  ASSERT_TRUE(m_sink->handled.WaitFor(1));
  m_client.Change([](Knobs& k) { k.hold = false; });
  ASSERT_EQ(m_node->SetEnable(true), 0U);
  Send(6);
  ASSERT_TRUE(AllReleased());
  const FakeComputingClient::Record record = m_client.Get();
  EXPECT_EQ(record.createParams.size(), 1U);
  EXPECT_EQ(record.starts, 2);
  EXPECT_EQ(SeenNumbers(), (std::vector<uint32_t>{5, 6}));
}

// A client that answers twice, or after stop (until then, as one that never answers): frames
// may be lost, never freed twice (checked in TearDown), and nothing is left behind (the
// sanitizer build checks leaks).
TEST_F(BackgroundNodeTest, MisbehavingClientNeverCostsADoubleRelease) {
  Knobs cases[2];
  cases[0].twice = true;
  cases[1].hold = cases[1].answerAfterStop = true;
  for (const Knobs& knobs : cases) {
    m_client.Change([&](Knobs& k) { k = knobs; });
    ASSERT_EQ(m_node->SetEnable(true), 0U);
    const int requests = m_client.requests.Get();
    for (uint32_t i = 0; i < 3; ++i) {
      Send(100 + i);
    }
    ASSERT_TRUE(m_client.requests.WaitFor(requests + 3));
    if (knobs.twice) {
      ASSERT_TRUE(m_client.answers.WaitFor(2 * (requests + 3)));
    }
    ASSERT_EQ(m_node->SetEnable(false), 0U);
    ASSERT_TRUE(AllReleased());
    if (knobs.answerAfterStop) {
      const int answers = m_client.answers.Get();
      m_client.Release();  // the late answers arrive now
      ASSERT_TRUE(m_client.answers.WaitFor(answers + 3));
    }
  }
}

// A client that answers before the request returns: the answer waits for its frame.
TEST_F(BackgroundNodeTest, AnswerBeforeTheRequestReturnsFindsItsFrame) {
  m_client.Change([](Knobs& k) {
    k.inline_ = true;
    k.maskValue = 0;
  });
  ASSERT_EQ(m_node->SetEnable(true), 0U);
  for (uint32_t i = 1; i <= 3; ++i) {
    Submit(i);
  }
  ASSERT_TRUE(AllReleased());
  const uint8_t blue = LumaOf(255, 0, 0);
  EXPECT_EQ(Seen(), (std::map<uint32_t, uint8_t>{{1, blue}, {2, blue}, {3, blue}}));
}

TEST_F(BackgroundNodeTest, FrameSizeChangeWaitsForFramesInFlight) {
  m_client.Change([](Knobs& k) { k.hold = true; });
  ASSERT_EQ(m_node->SetEnable(true), 0U);
  Submit(1);
  Submit(2);
  ASSERT_TRUE(m_client.requests.WaitFor(2));
  Send(3, 32, 48);  // portrait now
  m_client.Release();
  ASSERT_TRUE(AllReleased());
  const FakeComputingClient::Record record = m_client.Get();
  EXPECT_EQ(record.updateParams,
            std::vector<std::vector<uint8_t>>{TaskRecord("output_ppsegv2_398_224_mask", 32, 48)});
  EXPECT_EQ(record.answersAtUpdate, std::vector{2});
  EXPECT_EQ(SeenNumbers(), (std::vector<uint32_t>{1, 2, 3}));
  EXPECT_EQ(m_node->GetParam().width, 32U);
}

TEST_F(BackgroundNodeTest, StopProcessDestroysTheTaskAndAStartMakesANewOne) {
  ASSERT_EQ(m_node->SetEnable(true), 0U);
  const uint32_t first = m_node->GetTaskId();
  m_node->StopProcess();
  EXPECT_FALSE(m_node->HasTask());
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

TEST_F(BackgroundNodeTest, FailedStartsReportAndLeaveFramesPassing) {
  m_threads.FailNextCreates(1);
  EXPECT_EQ(m_node->SetEnable(true), 1U);
  EXPECT_TRUE(m_log.HasModule("OsPthreadCreate HandleBufferThread failed[11]"));
  EXPECT_FALSE(m_node->IsRunning());
  const int starts = m_client.Get().starts;
  EXPECT_EQ(m_node->SetEnable(true), 0U);  // the request was kept: repeating it does nothing
  EXPECT_EQ(m_client.Get().starts, starts);
  Send(1);
  ASSERT_TRUE(m_sink->handled.WaitFor(1));
  ASSERT_EQ(m_node->SetEnable(false), 0U);
  m_client.Change([](Knobs& k) { k.startResult = -2; });
  EXPECT_EQ(m_node->SetEnable(true), 1U);
  EXPECT_TRUE(m_log.HasModule("TavoComputingStartTask error ret :-2"));
  Send(2);
  ASSERT_TRUE(m_sink->handled.WaitFor(2));
  ASSERT_TRUE(AllReleased());
}

// The client refuses to stop: the node says so and keeps what is in flight until it is
// destroyed, which releases it.
TEST_F(BackgroundNodeTest, FailedStopIsReportedAndNothingLeaks) {
  m_client.Change([](Knobs& k) {
    k.hold = true;
    k.stopResult = -4;
  });
  ASSERT_EQ(m_node->SetEnable(true), 0U);
  Submit(1);
  ASSERT_TRUE(m_client.requests.WaitFor(1));
  EXPECT_EQ(m_node->SetEnable(false), 1U);
  EXPECT_TRUE(m_log.HasModule("TavoComputingStopTask error ret :-4"));
  EXPECT_EQ(m_producer->released.Get(), 0);  // still in flight
  m_node->Shutdown();
  Unlink(m_node, m_sink);
  m_node.reset();  // the destructor empties the queues
  ASSERT_TRUE(AllReleased());
  m_node = std::make_shared<BackgroundVirtualityNode>(10001);  // for TearDown
}

}  // namespace
