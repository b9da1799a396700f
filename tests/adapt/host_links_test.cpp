// The component rows as a host drives them (dlopen only, through the fake host): their
// limits and refusals, whole links from input to encoder and previews, and host callbacks
// that call back into the library from another thread (host threads racing on one link are
// the careless host's and the soak's tests).
// The fake host checks at the end that every decoded frame came back exactly once and no
// frame reference was dropped twice.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <future>
#include <thread>
#include <tuple>

#include "tests/support/fake_host.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"
#include "tests/support/wait.h"

namespace {

constexpr auto kCallbackLimit = std::chrono::seconds(5);
constexpr uint32_t kEnc = TAVO_VIDEO_COMPONENT_ENCODER;
constexpr uint32_t kDec = TAVO_VIDEO_COMPONENT_DECODER;
constexpr uint32_t kVo = TAVO_VIDEO_COMPONENT_PREVIEW;
constexpr uint32_t kTest = TAVO_VIDEO_COMPONENT_TEST_IMAGE;
constexpr uint32_t kCam = TAVO_VIDEO_COMPONENT_VIRTUAL_CAMERA;
constexpr uint32_t kInput = TAVO_VIDEO_COMPONENT_INPUT;

// Runs call on another thread and waits for it with a limit: false when it did not finish in
// time (the thread then finishes by itself and bumps `finished`), so a deadlock fails the
// test instead of hanging it.
bool FinishesWhileWaiting(std::function<void()> call, CountLatch& finished) {
  auto done = std::make_shared<std::promise<void>>();
  std::future<void> result = done->get_future();
  std::thread([done, call = std::move(call), &finished] {
    call();
    done->set_value();
    finished.Add();
  }).detach();
  return result.wait_for(kCallbackLimit) == std::future_status::ready;
}

class HostLinksTest : public ::testing::Test {
 protected:
  FakeHost host{HostEntries::From(dlopen(VLINK_LIBRARY_PATH, RTLD_NOW | RTLD_LOCAL))};
  TempDir dir;

  // Decoder `dec` (node `node`, image 150) bound to preview dec + 1 (node node + 1).
  void DecoderIntoPreview(uint32_t dec, uint32_t node,
                          const std::vector<std::pair<uint64_t, uint32_t>>& windows) {
    HostParam decoder = FakeHost::DecoderParam(150);
    HostParam preview = FakeHost::PreviewParam(windows);
    ASSERT_EQ(host.Create(kDec, dec, node, decoder.get()), 0U);
    ASSERT_EQ(host.Create(kVo, dec + 1, node + 1, preview.get()), 0U);
    ASSERT_EQ(host.Bind(kVo, kDec, dec + 1, dec), 0U);
  }
};

// Each refusal a host can run into: the code it gets, and the log line that names it; both
// sides of the limits only the rows check (the nodes' own limits are tested with them).
TEST_F(HostLinksTest, BadRecordsIdsLimitsAndCallOrderAreRefused) {
  LogCapture logs;
  const auto refused = [&](uint32_t code, const std::string& line) {
    EXPECT_EQ(code, 1U) << line;
    EXPECT_EQ(logs.CountModule(line, 1), 1U) << line;
  };
  HostParam preview = FakeHost::PreviewParam({});
  for (uint32_t winNum : {40U, 41U}) {
    preview->vo.winNum = winNum;
    EXPECT_EQ(host.Create(kVo, 1064 + winNum, 82 + winNum, preview.get()), winNum > 40 ? 1U : 0U);
    EXPECT_EQ(host.Update(kVo, 1104, preview.get()), winNum > 40 ? 1U : 0U);
  }
  HostParam test = FakeHost::TestParam(std::string(1023, 'x'));  // fits; read at start
  EXPECT_EQ(host.Create(kTest, 1106, 61, test.get()), 0U);
  HostParam encoder = FakeHost::EncoderParam(1);
  EXPECT_EQ(host.Create(kEnc, 303, 200, encoder.get()), 0U);
  refused(host.Create(kTest, 304, 200, test.get()), "nodePtr still null");  // 200: an encoder
  std::memset(test->test.fileName, 'x', sizeof(test->test.fileName));       // 1024 do not fit
  refused(host.Create(kTest, 1107, 62, test.get()), "strcpy_s fileName failed!");

  refused(host.Create(kEnc, 300, 9, nullptr), "null compParam! nodeId[300].");
  host.entries().getContainer("Node[301]PresentParam")->SetDataByString<uint32_t>("imgNo", 9);
  refused(host.CreateStored(kEnc, 301, encoder.get()),
          "[Node[301]PresentParam]GetDataByString portId failed!");
  EXPECT_EQ(host.CreateStored(kVo, 306, encoder.get()), 1U);  // nothing stored for it
  // An encoder is no input: binding to it finds no builder.
  host.Store(305, 229);
  refused(host.Bind(kEnc, kInput, 305, 303), "BuilderFac no supoort vi type[5]");
  EXPECT_EQ(logs.CountModule("builder is nullptr", 1), 1U);
  EXPECT_EQ(host.Destroy(kEnc, 999), 0U);  // unknown ids are ignored
  refused(host.entries().releaseEnc(nullptr), "data is nullptr");

  // Decoded frames before the bind, to no decoder, or null: the host keeps them.
  HostParam decoder = FakeHost::DecoderParam(150);
  ASSERT_EQ(host.Create(kDec, 310, 90, decoder.get()), 0U);
  tagOS_S_VIDEO_CODEC_IMG_INFO record{};
  EXPECT_EQ(host.entries().receive(0, 90, &record), 1U);  // not started
  EXPECT_EQ(host.entries().receive(0, 93, &record), 1U);  // no such decoder
  refused(host.entries().receive(0, 90, nullptr), "null pData! portId[90], decId[0].");
  EXPECT_EQ(host.Update(kDec, 319, decoder.get()), 1U);  // no such decoder
  EXPECT_EQ(host.Update(kDec, 310, nullptr), 1U);
  EXPECT_EQ(host.entries().setReport(nullptr), 1U);
  EXPECT_EQ(host.entries().stopRender(9999, 1), 1U);
}

// A test image reaches its encoder at its own size; an encoder refusing every frame does not
// starve a preview on the same image, and an encoder update reaches the next frames. Every
// frame came back, so the test node frees its whole cache; a second destroy is a no-op.
TEST_F(HostLinksTest, TestImageReachesEncoderAndPreviewAsTheEncoderChanges) {
  HostParam encoder = FakeHost::EncoderParam(3, 64, 32);
  HostParam test = FakeHost::TestParam(dir.Write("b.bmp", SolidBmp24(40, 24, 255, 0, 0)));
  HostParam preview = FakeHost::PreviewParam({{0x81, 60}});  // the test image's own id
  ASSERT_EQ(host.Create(kTest, 200, 60, test.get()), 0U);
  ASSERT_EQ(host.Create(kEnc, 201, 8, encoder.get()), 0U);
  ASSERT_EQ(host.Create(kVo, 202, 166, preview.get()), 0U);
  host.SetEncoder(FakeHost::Encoder::kRefuse);
  LogCapture logs;
  ASSERT_EQ(host.Bind(kEnc, kTest, 201, 200), 0U);
  EXPECT_EQ(logs.CountModule("links: {TEST_60->(ENC_8) } ", 3), 1U);  // the link as printed
  ASSERT_EQ(host.Bind(kVo, kTest, 202, 200), 0U);
  ASSERT_TRUE(host.offered.WaitFor(2));
  ASSERT_TRUE(host.rendered.WaitUntil([&] { return host.Rendered(0x81) >= 2; }));
  const FakeHost::Encoded f = host.EncodedFrames()[0];
  EXPECT_EQ(std::tuple(f.imgNo, f.hostKey, f.width, f.height, f.srcImgNo),
            std::tuple(8U, 3U, 40U, 24U, 60U));
  host.SetEncoder(FakeHost::Encoder::kGiveBack);
  HostParam updated = FakeHost::EncoderParam(6);
  ASSERT_EQ(host.Update(kEnc, 201, updated.get()), 0U);
  ASSERT_TRUE(host.offered.WaitUntil([&] { return host.EncodedFrames().back().hostKey == 6U; }));
  EXPECT_EQ(host.Unbind(kEnc, kTest, 201, 200), 0U);
  EXPECT_EQ(host.Unbind(kVo, kTest, 202, 200), 0U);
  EXPECT_EQ(host.Destroy(kEnc, 201), 0U);
  EXPECT_EQ(host.Destroy(kTest, 200), 0U);
  EXPECT_EQ(host.Destroy(kTest, 200), 0U);
  EXPECT_FALSE(logs.HasModule("The cache release is fail"));
}

// Which windows show a frame and report it first, and how updates change them, are the
// preview's own tests. A decoder destroyed while its frame is still being shown does not wait
// for the preview, and the frame comes back once when the preview lets go (that a preview's
// own destroy or unbind waits for its frames is the reliability suite's test).
TEST_F(HostLinksTest, DecodedFramesReachWindowsAndVirtualCameraAndComeBackOnce) {
  ASSERT_NO_FATAL_FAILURE(DecoderIntoPreview(500, 90, {{0x71, 150}, {0x72, 150}}));
  HostParam camera = FakeHost::Zeroed();
  camera->virCam.width = 64;
  camera->virCam.height = 32;
  camera->virCam.virtualOutFunc = [](uint32_t, void*, uint32_t, void*, uint32_t) -> uint32_t {
    return 0;
  };
  ASSERT_EQ(host.Create(kCam, 502, 92, camera.get()), 0U);
  ASSERT_EQ(host.Bind(kCam, kDec, 502, 500), 0U);
  for (int i = 0; i < 4; ++i) {
    ASSERT_EQ(host.Push(90, 0, 64, 32), 0U);
  }
  ASSERT_TRUE(host.AllBack());
  ASSERT_EQ(host.entries().stopRender(501, 0x72), 0U);  // its frames still come back
  ASSERT_EQ(host.Push(90, 0, 64, 32), 0U);
  ASSERT_TRUE(host.AllBack());
  EXPECT_EQ(host.Unbind(kCam, kDec, 502, 500), 0U);
  EXPECT_EQ(std::pair(host.Rendered(0x71), host.Rendered(0x72)), std::pair(5, 4));

  Gate gate;
  host.onRender = [&](uint32_t) { gate.Pass(); };
  const int entered = host.renderEntered.Get();
  ASSERT_EQ(host.Push(90), 0U);
  ASSERT_TRUE(host.renderEntered.WaitFor(entered + 1));
  EXPECT_EQ(host.Destroy(kDec, 500), 0U);
  EXPECT_EQ(host.decodedBack.Get(), 5);
  gate.Open();
  ASSERT_TRUE(host.AllBack());
  EXPECT_EQ(host.Rendered(0x71), 6);
}

// The release callback and the first-frame report run without the library's locks: a host
// thread started from them may push the next frame, update the decoder and stop a window
// while the callback still waits for it.
TEST_F(HostLinksTest, CallbacksMayWaitForAnotherThreadUsingTheLink) {
  ASSERT_NO_FATAL_FAILURE(DecoderIntoPreview(1120, 126, {{0x41, 150}}));
  std::atomic<int> rounds{0}, late{0};
  HostParam update = FakeHost::DecoderParam(150);
  update->vdec.watermarkEnable = 1;
  std::strcpy(update->vdec.watermarkContent, "MARK");
  CountLatch finished;
  const auto waitFor = [&](std::function<void()> call) {
    late += FinishesWhileWaiting(std::move(call), finished) ? 0 : 1;
  };
  host.onRelease = [&](tagOS_S_VIDEO_CODEC_IMG_INFO*) {
    if (rounds.fetch_add(1) < 3) {
      waitFor([&] {
        EXPECT_EQ(host.Push(126), 0U);
        EXPECT_EQ(host.Update(kDec, 1120, update.get()), 0U);
      });
    }
  };
  ASSERT_EQ(host.entries().setReport([&](TavoVideoDisplayWinInfo&) {
    waitFor([&] { EXPECT_EQ(host.entries().stopRender(1121, 0x41), 0U); });
    return 0;
  }),
            0U);
  ASSERT_EQ(host.Push(126), 0U);
  ASSERT_TRUE(finished.WaitFor(4, 4 * kCallbackLimit));
  ASSERT_TRUE(host.AllBack());
  EXPECT_EQ(late, 0) << "a call from another thread waited for a host callback";
}

// Destroy forgets the input's builder: the same id as another kind of input binds and starts.
// Unbind and bind cycle, a second bind or unbind is refused, and a bound sink can be
// destroyed; so can an encoder whose frames the host still holds.
TEST_F(HostLinksTest, BindUnbindCyclesInputsComingBackAsAnotherKindAndEncodersGoneEarly) {
  HostParam test = FakeHost::TestParam(dir.Write("i.bmp", SolidBmp24(16, 16, 1, 2, 3)));
  HostParam preview = FakeHost::PreviewParam({{0x91, 167}});
  ASSERT_EQ(host.Create(kTest, 1180, 167, test.get()), 0U);
  ASSERT_EQ(host.Create(kVo, 1181, 168, preview.get()), 0U);
  ASSERT_EQ(host.Bind(kVo, kTest, 1181, 1180), 0U);
  ASSERT_EQ(host.Unbind(kVo, kTest, 1181, 1180), 0U);
  ASSERT_EQ(host.Destroy(kTest, 1180), 0U);
  HostParam preview2 = FakeHost::PreviewParam({{0x91, 134}});
  ASSERT_EQ(host.Update(kVo, 1181, preview2.get()), 0U);
  const int before = host.Rendered(0x91);

  HostParam decoder = FakeHost::DecoderParam(134);
  ASSERT_EQ(host.Create(kDec, 1180, 167, decoder.get()), 0U);
  ASSERT_EQ(host.Create(kDec, 1180, 167, decoder.get()), 0U);  // twice: the same node
  constexpr int kCycles = 20;
  for (int i = 0; i < kCycles; ++i) {
    ASSERT_EQ(host.Bind(kVo, kDec, 1181, 1180), 0U);
    ASSERT_EQ(host.Push(167), 0U);  // refused if the decoder was never started
    ASSERT_EQ(host.Unbind(kVo, kDec, 1181, 1180), 0U);
    EXPECT_EQ(host.Unbind(kVo, kDec, 1181, 1180), 1U);
    ASSERT_EQ(host.Push(167), 0U);  // nobody bound: straight back
  }
  ASSERT_TRUE(host.AllBack());
  EXPECT_EQ(host.Rendered(0x91) - before, kCycles);
  ASSERT_EQ(host.Bind(kVo, kDec, 1181, 1180), 0U);
  EXPECT_EQ(host.Bind(kVo, kDec, 1181, 1180), 1U);  // already bound
  EXPECT_EQ(host.Destroy(kVo, 1181), 0U);           // still bound
  ASSERT_EQ(host.Push(167), 0U);
  ASSERT_TRUE(host.AllBack());
  EXPECT_EQ(host.Rendered(0x91) - before, kCycles);

  // A host that destroys its encoder while it still holds frames gets 1 for each late
  // give-back, and the decoded frame behind it still comes back to the decoder's host once.
  HostParam encoder = FakeHost::EncoderParam(9);
  ASSERT_EQ(host.Create(kEnc, 1182, 181, encoder.get()), 0U);
  host.Store(1183, 167);  // the type-4 input names the decoder node
  ASSERT_EQ(host.Bind(kEnc, kInput, 1182, 1183), 0U);
  const int back = host.decodedBack.Get();
  ASSERT_EQ(host.Push(167), 0U);
  ASSERT_TRUE(host.offered.WaitFor(1));
  EXPECT_EQ(host.Unbind(kEnc, kInput, 1182, 1183), 0U);
  EXPECT_EQ(host.Destroy(kEnc, 1182), 0U);
  EXPECT_EQ(host.decodedBack.Get(), back);
  LogCapture logs;
  host.GiveBack(1);
  EXPECT_EQ(logs.CountModule("VirtualEncoderNode is nullptr", 1), 1U);
  EXPECT_TRUE(host.AllBack());
}

}  // namespace
