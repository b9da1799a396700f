// A host of the library as the terminal's media process is one: it reaches the library only
// through the exported functions (dlopen'ed, or linked in for tests that also fake devices),
// the component tables, the parameter containers and plain callbacks. Its encoder, preview
// windows and decoder answer with behaviour a test chooses, count every frame out and back,
// and at the end unbind, destroy and give back in the order a host does, checking that every
// decoded frame came back exactly once and no frame reference was dropped twice.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "tavo_video_vlink.h"
#include "tests/support/wait.h"

// The exported functions a host uses: the member, then the symbol.
#define VLINK_HOST_ENTRIES(X)                   \
  X(getCreate, TavoVideoGetCreateNodeFuncMap)   \
  X(getBind, TavoVideoGetBindNodeFuncMap)       \
  X(getUnbind, TavoVideoGetUnBindNodeFuncMap)   \
  X(getDestroy, TavoVideoGetDestroyNodeFuncMap) \
  X(getUpdate, TavoVideoGetUpdateNodeFuncMap)   \
  X(getContainer, TavoVideoGetDataContainer)    \
  X(receive, TavoVideoReceiveVDecFrame)         \
  X(releaseEnc, TavoVideoReleaseVEncFrame)      \
  X(stopRender, TavoVideoVlinkVoStopRender)     \
  X(setReport, TavoVideoSetWinReportCb)

struct HostEntries {
#define VLINK_HOST_ENTRY(member, symbol) decltype(&symbol) member = nullptr;
  VLINK_HOST_ENTRIES(VLINK_HOST_ENTRY)
#undef VLINK_HOST_ENTRY
  void* library = nullptr;  // the dlopen handle; null when linked in

  // The entries of a library the test loaded with dlopen, looked up with dlsym.
  static HostEntries From(void* library);
  // The entries of the library linked into the test program.
  static HostEntries Linked() {
    HostEntries entries;
#define VLINK_HOST_ENTRY(member, symbol) entries.member = &symbol;
    VLINK_HOST_ENTRIES(VLINK_HOST_ENTRY)
#undef VLINK_HOST_ENTRY
    return entries;
  }
};

using HostParam = std::unique_ptr<tagTavoVideoComponentParam>;

class FakeHost {
 public:
  // What the encoder callback does with a frame.
  enum class Encoder {
    kHold,      // answers 1 and keeps it until GiveBack
    kGiveBack,  // answers 1 and gives it back from the callback itself
    kRefuse,    // answers 0: the library takes it back
  };
  struct Encoded {
    uint32_t hostKey, imgNo, width, height, srcImgNo;
    std::vector<uint8_t> pixels;  // packed planes, when keepPixels
  };

  explicit FakeHost(HostEntries entries);
  ~FakeHost();  // Finish() if the test did not

  // Parameters of each component kind, zeroed but for what is given, wired to this host.
  static HostParam Zeroed();
  static HostParam DecoderParam(uint32_t imgNo);
  static HostParam PreviewParam(const std::vector<std::pair<uint64_t, uint32_t>>& windows);
  static HostParam EncoderParam(uint32_t hostKey, uint32_t width = 16, uint32_t height = 16);
  static HostParam TestParam(const std::string& file, uint32_t frameRate = 25);

  // The rows, looked up in the tables as a host does; Create and a successful Bind are
  // remembered and undone by Finish.
  void Store(uint32_t component, uint32_t node);
  uint32_t Create(uint32_t type, uint32_t component, uint32_t node,
                  tagTavoVideoComponentParam* param);
  // The create row alone, on whatever the component's container holds.
  uint32_t CreateStored(uint32_t type, uint32_t component, tagTavoVideoComponentParam* param);
  uint32_t Destroy(uint32_t type, uint32_t component);
  uint32_t Update(uint32_t type, uint32_t component, tagTavoVideoComponentParam* param);
  uint32_t Bind(uint32_t sinkType, uint32_t srcType, uint32_t sink, uint32_t source);
  uint32_t Unbind(uint32_t sinkType, uint32_t srcType, uint32_t sink, uint32_t source);

  // Decoded frames: a new 16x16 I420 frame pushed into decoder node `node`.
  uint32_t Push(uint32_t node, uint64_t decId = 0, uint32_t width = 16, uint32_t height = 16);
  bool AllBack();  // every accepted frame came back (within the generous limit)
  int Accepted();

  // Encoder frames.
  void SetEncoder(Encoder mode);
  // Every held frame but the last `keep`, outside the host's lock; kAnyCode checks no code.
  static constexpr uint32_t kAnyCode = 0xFFFFFFFFU;
  void GiveBack(uint32_t expected = 0, size_t keep = 0);
  std::vector<Encoded> EncodedFrames();
  int Rendered(uint64_t window);

  // Tears down what the test left: unbinds, destroys inputs last, gives frames back and
  // checks the frame accounting. Idempotent.
  void Finish();
  // For a library unloaded under running links: nothing is undone, the records are freed.
  void Abandon();
  // The oldest held encoder frame, now the test's to give back.
  VencOutFrame* TakeHeld();

  const HostEntries& entries() const { return m_entries; }

  CountLatch offered;        // encoder frames offered
  CountLatch rendered;       // frames rendered, any window
  CountLatch renderEntered;  // render callbacks entered
  CountLatch decodedBack;    // decoded frames returned
  bool keepPixels = false;   // set before frames flow
  // Run on the host's callback threads, outside the host's lock.
  std::function<void(uint32_t window)> onRender;
  std::function<void(tagOS_S_VIDEO_CODEC_IMG_INFO*)> onRelease;
  std::function<void(VencOutFrame*)> onEncode;
  std::function<void()> onCreate;  // in the encoder's create callback

 private:
  static uint32_t OnEncCreate(uint32_t, uint32_t, uint32_t);
  static uint32_t OnEncFrame(uint32_t, uint32_t hostKey, uint32_t, VencOutFrame* frame);
  static int OnRender(uint32_t winHandle, TavoVideoRenderImgHeader* header);
  static uint32_t OnDecRelease(uint32_t, tagOS_S_VIDEO_CODEC_IMG_INFO* frame);
  void FreeRecords();

  using Link = std::tuple<uint32_t, uint32_t, uint32_t, uint32_t>;  // sink and source types, ids
  HostEntries m_entries;
  std::mutex m_lock;  // guards everything below; never held across a library call
  Encoder m_encoder = Encoder::kHold;
  std::vector<VencOutFrame*> m_held;
  std::vector<Encoded> m_encoded;
  std::map<uint64_t, int> m_renderedByWindow;
  std::deque<tagOS_S_VIDEO_CODEC_IMG_INFO> m_records;  // every record pushed
  int m_accepted = 0;
  std::vector<std::pair<uint32_t, uint32_t>> m_components;
  std::vector<Link> m_links;
  uint64_t m_underflows = 0;
  bool m_finished = false;
};
