// The smallest host of libtavo_video_vlink: a test-image input bound to an encoder output,
// driven through the exported functions and the component tables as a media process does.
// It checks that frames arrive with the test image's size and in I420, gives each back, and
// says whether the virtual background would find its models and its two libraries.
//
// usage: encode_test_image [IMAGE.bmp [FRAMES]]   (default: the test picture installed in
//        share/tavo_video/ beside the library's folder; 3 frames)
// Exit status: 0 when the frames arrived as expected, 1 otherwise, 2 for bad arguments.
#include <dlfcn.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <mutex>
#include <string>

#include "tavo_video_vlink.h"

namespace {

// The host's numbers: component ids it chooses, and the node ids it gives them.
constexpr uint32_t kTestComponent = 1;
constexpr uint32_t kEncoderComponent = 2;
constexpr uint32_t kTestNode = 50;
constexpr uint32_t kEncoderNode = 5;

// Encoder callbacks run on library workers: they only queue, the main thread gives back.
struct Frames {
  std::mutex lock;
  std::condition_variable arrived;
  std::deque<VencOutFrame*> pending;
  uint32_t count = 0;
  uint32_t wrong = 0;  // frames of another size or format than the image
  uint32_t width = 0;
  uint32_t height = 0;
  uint32_t format = 0;
} g_frames;

uint32_t g_expectedWidth = 0;
uint32_t g_expectedHeight = 0;

uint32_t OnEncoderCreate(uint32_t, uint32_t, uint32_t) { return 0; }

uint32_t OnEncodedFrame(uint32_t, uint32_t, uint32_t, VencOutFrame* frame) {
  const OsvGraphicBufferInfo info = frame->buffer->GetImageInfo();
  {
    std::lock_guard<std::mutex> lock(g_frames.lock);
    g_frames.width = info.width;
    g_frames.height = info.height;
    g_frames.format = info.format;
    if (info.width != g_expectedWidth || info.height != g_expectedHeight ||
        info.format != TAVO_VIDEO_VLINK_FORMAT_I420) {
      ++g_frames.wrong;
    }
    ++g_frames.count;
    g_frames.pending.push_back(frame);
  }
  g_frames.arrived.notify_all();
  return 1;  // exactly 1: the host took the frame and gives it back later
}

void OnTrace(uint32_t, const char* text) {
  while (*text == '\r' || *text == '\n') {
    ++text;
  }
  std::fprintf(stderr, "library: %s\n", text);
}

void ReleasePending() {
  std::deque<VencOutFrame*> frames;
  {
    std::lock_guard<std::mutex> lock(g_frames.lock);
    frames.swap(g_frames.pending);
  }
  for (VencOutFrame* frame : frames) {
    TavoVideoReleaseVEncFrame(frame);
  }
}

template <class Row>
auto Find(const Row* rows, uint32_t count, uint32_t type, uint32_t source = 0) {
  for (uint32_t i = 0; i < count; ++i) {
    if (rows[i].type == type && rows[i].srcType == source) {
      return rows[i].func;
    }
  }
  return decltype(rows->func){};
}

// The folder the library was loaded from.
std::filesystem::path LibraryFolder() {
  Dl_info info{};
  if (dladdr(reinterpret_cast<void*>(&TavoVideoVlinkInit), &info) == 0 ||
      info.dli_fname == nullptr) {
    return {};
  }
  std::error_code error;
  return std::filesystem::canonical(info.dli_fname, error).parent_path();
}

// What the virtual background will find: its models under the platform's configuration
// folder and the two libraries it loads by name beside the library. Missing pieces are
// reported; they only make the virtual background pass frames through.
void ReportBackgroundReadiness(const std::filesystem::path& libraryFolder) {
  using CfgPath = const char* (*)(uint32_t);
  const auto cfgPath = reinterpret_cast<CfgPath>(dlsym(RTLD_DEFAULT, "TavoOmCustUtilGetCfgPath"));
  const std::filesystem::path models = std::filesystem::path(cfgPath != nullptr ? cfgPath(0) : "") /
                                       "computing/arm64/Virtualbackground";
  std::error_code error;
  const bool landscape =
      std::filesystem::is_regular_file(models / "output_ppsegv2_224_398_mask", error);
  const bool portrait =
      std::filesystem::is_regular_file(models / "output_ppsegv2_398_224_mask", error);
  if (landscape && portrait) {
    std::printf("models: %s\n", models.c_str());
  } else {
    std::printf(
        "warning: no segmentation models in %s: the virtual background will pass "
        "frames through (set TAVO_OM_CFG_PATH to the folder holding computing/)\n",
        models.c_str());
  }
  for (const char* name : {"libtavo_computing_client.so", "libtavo_video_opencv_wrapper.so"}) {
    const std::filesystem::path file = libraryFolder / name;
    if (std::filesystem::is_regular_file(file, error)) {
      std::printf("loadable: %s\n", file.c_str());
    } else {
      std::printf(
          "warning: %s is missing beside the library (%s): the virtual background "
          "will pass frames through\n",
          name, libraryFolder.c_str());
    }
  }
}

bool StoreNodeId(uint32_t component, uint32_t nodeId) {
  const std::string name = "Node[" + std::to_string(component) + "]PresentParam";
  DataContainer* container = TavoVideoGetDataContainer(name.c_str());
  return container != nullptr && container->SetDataByString<uint32_t>("imgNo", nodeId) == 0 &&
         container->SetDataByString<uint32_t>("portId", 0) == 0;
}

void ReleaseContainer(uint32_t component) {
  TavoVideoReleaseDataContainer(("Node[" + std::to_string(component) + "]PresentParam").c_str());
}

// The size in a BMP file's header (the test image input accepts BMP and raw I420).
bool BmpSize(const std::string& path, uint32_t& width, uint32_t& height) {
  FILE* file = std::fopen(path.c_str(), "rb");
  if (file == nullptr) {
    return false;
  }
  unsigned char header[26] = {};
  const bool read = std::fread(header, 1, sizeof(header), file) == sizeof(header);
  std::fclose(file);
  if (!read || header[0] != 'B' || header[1] != 'M') {
    return false;
  }
  auto le32 = [&](int at) {
    return static_cast<uint32_t>(header[at]) | static_cast<uint32_t>(header[at + 1]) << 8 |
           static_cast<uint32_t>(header[at + 2]) << 16 |
           static_cast<uint32_t>(header[at + 3]) << 24;
  };
  width = le32(18);
  const int32_t rows = static_cast<int32_t>(le32(22));
  height = static_cast<uint32_t>(rows < 0 ? -rows : rows);
  return width > 0 && height > 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::filesystem::path libraryFolder = LibraryFolder();
  std::string image = argc > 1 ? argv[1] : "";
  if (image.empty()) {
    image = (libraryFolder.parent_path() / "share/tavo_video/test_pattern.bmp").string();
  }
  const uint32_t wanted = argc > 2 ? static_cast<uint32_t>(std::atoi(argv[2])) : 3;
  if (!BmpSize(image, g_expectedWidth, g_expectedHeight) || wanted == 0) {
    std::fprintf(stderr, "usage: %s [IMAGE.bmp [FRAMES]]: cannot read a BMP image at %s\n", argv[0],
                 image.c_str());
    return 2;
  }
  std::printf("library: %s\n", (libraryFolder / "libtavo_video_vlink.so").c_str());
  ReportBackgroundReadiness(libraryFolder);

  // Errors and warnings of the library on stderr.
  for (unsigned channel = 0; channel < 3; ++channel) {
    TavoVideoRegisterTraceCallBack(channel, OnTrace);
  }
  TavoVideoSetTraceLevel(TAVO_VIDEO_TRACE_WARNING);
  TavoVideoVlinkInit(0, 0, [] {});

  const tagTavoVideoCreateFuncMap* create = nullptr;
  const tagTavoVideoBindFuncMap* bind = nullptr;
  const tagTavoVideoBindFuncMap* unbind = nullptr;
  const tagTavoVideoDestroyFuncMap* destroy = nullptr;
  uint32_t creates = 0, binds = 0, unbinds = 0, destroys = 0;
  if (TavoVideoGetCreateNodeFuncMap(&create, &creates) != 0 ||
      TavoVideoGetBindNodeFuncMap(&bind, &binds) != 0 ||
      TavoVideoGetUnBindNodeFuncMap(&unbind, &unbinds) != 0 ||
      TavoVideoGetDestroyNodeFuncMap(&destroy, &destroys) != 0) {
    std::fprintf(stderr, "cannot fetch the component tables\n");
    return 1;
  }
  const auto createTest = Find(create, creates, TAVO_VIDEO_COMPONENT_TEST_IMAGE);
  const auto createEncoder = Find(create, creates, TAVO_VIDEO_COMPONENT_ENCODER);
  const auto bindEncoder =
      Find(bind, binds, TAVO_VIDEO_COMPONENT_ENCODER, TAVO_VIDEO_COMPONENT_TEST_IMAGE);
  const auto unbindEncoder =
      Find(unbind, unbinds, TAVO_VIDEO_COMPONENT_ENCODER, TAVO_VIDEO_COMPONENT_TEST_IMAGE);
  const auto destroyTest = Find(destroy, destroys, TAVO_VIDEO_COMPONENT_TEST_IMAGE);
  const auto destroyEncoder = Find(destroy, destroys, TAVO_VIDEO_COMPONENT_ENCODER);
  if (!createTest || !createEncoder || !bindEncoder || !unbindEncoder || !destroyTest ||
      !destroyEncoder) {
    std::fprintf(stderr, "the tables lack a test-image or encoder row\n");
    return 1;
  }

  // Each component's node id goes into its container before it is created.
  if (!StoreNodeId(kTestComponent, kTestNode) || !StoreNodeId(kEncoderComponent, kEncoderNode)) {
    std::fprintf(stderr, "cannot fill the parameter containers\n");
    return 1;
  }
  tagTavoVideoComponentParam test{};
  test.test.frameRate = 30;
  std::snprintf(test.test.fileName, sizeof(test.test.fileName), "%s", image.c_str());
  tagTavoVideoComponentParam encoder{};
  encoder.venc.width = g_expectedWidth;
  encoder.venc.height = g_expectedHeight;
  encoder.venc.frameRate = 2;
  encoder.venc.format = TAVO_VIDEO_VLINK_FORMAT_I420;
  encoder.venc.encOutFunc = OnEncodedFrame;
  encoder.venc.encCreateFunc = OnEncoderCreate;
  uint32_t status = createTest(kTestComponent, &test);
  status = status != 0 ? status : createEncoder(kEncoderComponent, &encoder);
  status = status != 0 ? status : bindEncoder(kEncoderComponent, kTestComponent);
  if (status != 0) {
    std::fprintf(stderr, "cannot make the link: code %u\n", status);
  }

  // The test input sends twice a second; give it a few seconds more than it needs.
  bool enough = false;
  if (status == 0) {
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(500 * wanted + 5000);
    while (std::chrono::steady_clock::now() < deadline) {
      {
        std::unique_lock<std::mutex> lock(g_frames.lock);
        g_frames.arrived.wait_until(lock, deadline, [] { return !g_frames.pending.empty(); });
        enough = g_frames.count >= wanted;
      }
      ReleasePending();
      if (enough) {
        break;
      }
    }
  }

  // Down in reverse: frames stop at the unbind; give back what came meanwhile, then destroy.
  uint32_t teardown = unbindEncoder(kEncoderComponent, kTestComponent);
  ReleasePending();
  teardown |= destroyEncoder(kEncoderComponent);
  teardown |= destroyTest(kTestComponent);
  ReleasePending();
  ReleaseContainer(kEncoderComponent);
  ReleaseContainer(kTestComponent);

  std::lock_guard<std::mutex> lock(g_frames.lock);
  std::printf(
      "frames: %u of %u wanted, last %ux%u format %u (want %ux%u I420), %u wrong; teardown %s\n",
      g_frames.count, wanted, g_frames.width, g_frames.height, g_frames.format, g_expectedWidth,
      g_expectedHeight, g_frames.wrong, teardown == 0 ? "clean" : "failed");
  const bool ok = status == 0 && enough && g_frames.wrong == 0 && teardown == 0;
  std::printf("%s\n", ok ? "example: OK" : "example: FAILED");
  return ok ? 0 : 1;
}
