// Random sequences of host calls against libtavo_video_vlink.so, linked as a host links it:
// the seven tables, the parameter containers and the exported functions, fed random
// records. Component ids 0..7 share a small set of node ids, so ids collide across kinds,
// screens get ids on both sides of 90, encoders both sides of 225. Function-pointer fields
// of the records are never random (a host hands over valid functions or none): each is null
// or one of this host's callbacks. Everything else in a record is fuzz bytes, including
// unterminated strings.
//
// Some calls are made from inside the library's callbacks (stop or update a preview from its
// render callback, give an encoder record back from the encoder callback, destroy a decoder
// from its release callback); records the library never issued, or already took back, are
// given back; a test image may name a FIFO or a folder.
//
// A well-behaved host unbinds a component before destroying it; this one does too (a
// destroyed node that neighbours still hold stays alive by design), then checks that every
// encoder frame it received came back and that no frame was released twice.
//
// Input: a sequence of operations, each a component byte, an opcode byte and the bytes the
// call reads.
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "osv_graphic_buffer.h"
#include "tavo_video_vlink.h"
#include "tests/support/table_rows.h"

namespace {

// Node ids around every limit the library checks.
const uint32_t kNodeIds[] = {0, 1, 50, 89, 90, 91, 150, 225, 226, 10001};
constexpr uint32_t kComponents = 8;

class Input {
 public:
  Input(const uint8_t* data, size_t size) : m_data(data), m_size(size) {}
  bool Empty() const { return m_pos >= m_size; }
  uint8_t Byte() { return m_pos < m_size ? m_data[m_pos++] : 0; }
  uint32_t Word() {
    uint32_t value = 0;
    for (int i = 0; i < 4; ++i) {
      value |= uint32_t{Byte()} << (8 * i);
    }
    return value;
  }
  // Up to `max` bytes into `out` (the rest stays as it was).
  void Fill(void* out, size_t max) {
    const size_t count = std::min<size_t>(Byte() * 8U, max);
    for (size_t i = 0; i < count; ++i) {
      static_cast<uint8_t*>(out)[i] = Byte();
    }
  }
  uint32_t Node() { return kNodeIds[Byte() % std::size(kNodeIds)]; }

 private:
  const uint8_t* m_data;
  size_t m_size;
  size_t m_pos = 0;
};

// Frames the encoder callback took, given back later in random order.
std::mutex g_heldLock;
std::vector<VencOutFrame*> g_held;

// A call armed by the input, made once from inside the next callback of its kind: the low
// byte says which, the next the component it concerns.
enum ArmedCall : uint32_t { kNone, kStopRender, kUpdatePreview, kGiveBackAtOnce, kDestroyDecoder };
std::atomic<uint32_t> g_armed{kNone};
// Test-image files that are not regular files.
std::string g_fifo;
std::string g_folder;

uint32_t TakeArmed(ArmedCall kind) {
  uint32_t armed = g_armed.load();
  if ((armed & 0xFFU) != kind || !g_armed.compare_exchange_strong(armed, kNone)) {
    return UINT32_MAX;
  }
  return armed >> 8;  // the component
}

// One of the component tables, as the host gets it.
template <class Func>
struct Rows {
  explicit Rows(uint32_t (*get)(const tagTavoVideoFuncMapRow<Func>**, uint32_t*)) {
    get(&row, &count);
  }
  const tagTavoVideoFuncMapRow<Func>& Pick(Input& in) const { return row[in.Byte() % count]; }

  const tagTavoVideoFuncMapRow<Func>* row = nullptr;
  uint32_t count = 0;
};

// The component tables are the library's constants: read once, after the library's init
// (LLVMFuzzerInitialize), as a host does.
struct Tables {
  Rows<TavoVideoCreateNodeFunc> create{TavoVideoGetCreateNodeFuncMap};
  Rows<TavoVideoBindNodeFunc> bind{TavoVideoGetBindNodeFuncMap};
  Rows<TavoVideoBindNodeFunc> unbind{TavoVideoGetUnBindNodeFuncMap};
  Rows<TavoVideoDestroyNodeFunc> destroy{TavoVideoGetDestroyNodeFuncMap};
  Rows<TavoVideoUpdateNodeFunc> update{TavoVideoGetUpdateNodeFuncMap};
};
const Tables* g_tables = nullptr;

int Render(uint32_t window, TavoVideoRenderImgHeader*) {
  if (const uint32_t component = TakeArmed(kStopRender); component != UINT32_MAX) {
    TavoVideoVlinkVoStopRender(component, window);
  }
  if (const uint32_t component = TakeArmed(kUpdatePreview); component != UINT32_MAX) {
    tagTavoVideoComponentParam record{};
    record.vo.winNum = 1;
    record.vo.windows[0].winHandle = window;
    record.vo.renderCb = Render;
    Find(g_tables->update.row, g_tables->update.count, TAVO_VIDEO_COMPONENT_PREVIEW)(component,
                                                                                     &record);
  }
  return 0;
}

uint32_t DecoderRelease(uint32_t, tagOS_S_VIDEO_CODEC_IMG_INFO*) {
  if (const uint32_t component = TakeArmed(kDestroyDecoder); component != UINT32_MAX) {
    Find(g_tables->destroy.row, g_tables->destroy.count, TAVO_VIDEO_COMPONENT_DECODER)(component);
  }
  return 0;  // the library frees the frame
}

uint32_t EncoderOut(uint32_t, uint32_t, uint32_t, VencOutFrame* frame) {
  if (TakeArmed(kGiveBackAtOnce) != UINT32_MAX) {
    TavoVideoReleaseVEncFrame(frame);  // from inside; the later give-back is refused
  }
  std::lock_guard<std::mutex> lock(g_heldLock);
  g_held.push_back(frame);
  return 1;
}
uint32_t EncoderCreate(uint32_t, uint32_t, uint32_t) { return 0; }
uint32_t VirtualOut(uint32_t, void*, uint32_t, void*, uint32_t) { return 0; }
void Status(uint32_t, uint32_t) {}
int32_t Cursor(VlinkCursorSendData*, uint32_t, uint32_t) { return 0; }

template <class F>
F Pick(Input& in, F callback) {
  return (in.Byte() & 1U) != 0 ? callback : nullptr;
}

// A record of fuzz bytes with valid or null callbacks for a component type.
void FillRecord(Input& in, uint32_t type, tagTavoVideoComponentParam& record) {
  std::memset(&record, 0, sizeof(record));
  in.Fill(&record, sizeof(record));
  switch (type) {
    case TAVO_VIDEO_COMPONENT_ENCODER:
      record.venc.encOutFunc = Pick(in, EncoderOut);
      record.venc.encCreateFunc = Pick(in, EncoderCreate);
      break;
    case TAVO_VIDEO_COMPONENT_DECODER:
      record.vdec.decReleaseFunc = Pick(in, DecoderRelease);
      break;
    case TAVO_VIDEO_COMPONENT_VIRTUAL_CAMERA:
      record.virCam.virtualOutFunc = Pick(in, VirtualOut);
      break;
    case TAVO_VIDEO_COMPONENT_PREVIEW:
      record.vo.renderCb = Pick(in, Render);
      break;
    case TAVO_VIDEO_COMPONENT_SCREEN:
      record.screen.statusCallback = Pick(in, Status);
      break;
    case TAVO_VIDEO_COMPONENT_TEST_IMAGE:
      if (const uint8_t which = in.Byte() % 4U; which < 2U) {
        const std::string& path = which == 0 ? g_fifo : g_folder;
        std::snprintf(record.test.fileName, sizeof(record.test.fileName), "%s", path.c_str());
      }
      break;
    default:
      break;
  }
}

void UnbindComponent(uint32_t component) {
  for (uint32_t row = 0; row < g_tables->unbind.count; ++row) {
    for (uint32_t other = 0; other < kComponents; ++other) {
      g_tables->unbind.row[row].func(component, other);
      g_tables->unbind.row[row].func(other, component);
    }
  }
}

void DecodedFrame(Input& in) {
  auto* frame = static_cast<tagOS_S_VIDEO_CODEC_IMG_INFO*>(
      std::calloc(1, sizeof(tagOS_S_VIDEO_CODEC_IMG_INFO)));
  const uint32_t width = (in.Byte() % 8U + 1U) * 16U;
  const uint32_t height = (in.Byte() % 8U + 1U) * 16U;
  frame->pBuffer = new OsvGraphicBuffer(width, height, 0, false, false);
  if (TavoVideoReceiveVDecFrame(in.Byte(), in.Node(), frame) != 0) {
    delete frame->pBuffer;  // refused: the host keeps it
    std::free(frame);
  }
}

// The newest held frame while more than `keep` are held; given back outside the lock.
VencOutFrame* PopHeld(size_t keep = 0) {
  std::lock_guard<std::mutex> lock(g_heldLock);
  if (g_held.size() <= keep) {
    return nullptr;
  }
  VencOutFrame* frame = g_held.back();
  g_held.pop_back();
  return frame;
}

void ReleaseHeld(size_t keep) {
  while (VencOutFrame* frame = PopHeld(keep)) {
    TavoVideoReleaseVEncFrame(frame);
  }
}

// A create or update row, on a record of fuzz bytes for its type.
template <class Func>
void WithRecord(Input& in, uint32_t component, const Rows<Func>& rows) {
  const auto& row = rows.Pick(in);
  tagTavoVideoComponentParam record;
  FillRecord(in, row.type, record);
  row.func(component, (in.Byte() & 7U) != 0 ? &record : nullptr);
}

void BindOrUnbind(Input& in, uint32_t component) {
  const auto& rows = in.Byte() & 1U ? g_tables->bind : g_tables->unbind;
  rows.Pick(in).func(component, in.Byte() % kComponents);
}

void SetTraceLevel(Input& in, uint32_t) {
  TavoVideoSetTraceLevel(static_cast<int>(in.Byte() % 6U) - 1);
}

// The host's calls, one per opcode; each reads the bytes it needs.
void (*const kCalls[16])(Input& in, uint32_t component) = {
    [](Input& in, uint32_t component) {  // the container; sometimes without "portId"
      DataContainer* container = TavoVideoGetDataContainer(
          ("Node[" + std::to_string(component) + "]PresentParam").c_str());
      const uint8_t flags = in.Byte();
      container->SetDataByString<uint32_t>("imgNo", kNodeIds[flags % std::size(kNodeIds)]);
      if ((flags & 0x80U) == 0) {
        container->SetDataByString<uint32_t>("portId", component);
      }
    },
    [](Input& in, uint32_t component) { WithRecord(in, component, g_tables->create); },
    BindOrUnbind,
    BindOrUnbind,
    [](Input& in, uint32_t component) {
      UnbindComponent(component);
      g_tables->destroy.Pick(in).func(component);
    },
    [](Input& in, uint32_t component) { WithRecord(in, component, g_tables->update); },
    [](Input& in, uint32_t) { DecodedFrame(in); },
    [](Input& in, uint32_t) { ReleaseHeld(in.Byte() % 4U); },
    [](Input& in, uint32_t) {
      tagTavoVideoMouseParam mouse{};
      in.Fill(&mouse, sizeof(mouse));
      mouse.cursorCallback = Pick(in, Cursor);
      const uint32_t mouseId = in.Byte() % 3U;
      uint32_t (*const calls[])(uint32_t) = {nullptr, TavoVideoShowMouse, TavoVideoHideMouse,
                                             TavoVideoMouseStop, TavoVideoMouseStop};
      if (const uint8_t which = in.Byte() % 5U; which == 0U) {
        TavoVideoMouseSetParam(mouseId, (in.Byte() & 7U) != 0 ? &mouse : nullptr);
      } else {
        calls[which](mouseId);
      }
    },
    [](Input& in, uint32_t) {
      TagTavoVideoSnapshotStorage storage{};
      in.Fill(&storage, sizeof(storage));
      TavoVideoVlinkSnapShot(in.Byte() % 2U ? 99U : in.Node(), &storage);
    },
    [](Input& in, uint32_t) {
      TavoVideoSetCapResolution(in.Node(), in.Word() % 4000U, in.Word() % 4000U);
    },
    [](Input& in, uint32_t) {
      const uint32_t channel = in.Byte() % 4U;
      uint32_t queue = 0;
      tagTavoVideoOverlayParam overlay{};
      switch (in.Byte() % 4) {
        case 0:
          TavoVideoVlinkOverlayParamCreate(in.Node(), channel, &queue, in.Byte() % 4U);
          break;
        case 1:
          TavoVideoVlinkOverlayParamEnable(channel, in.Word());
          break;
        case 2:
          in.Fill(&overlay, sizeof(overlay));
          TavoVideoVlinkOverlayParamSet(channel, (in.Byte() & 7U) != 0 ? &overlay : nullptr);
          break;
        default:
          TavoVideoVlinkOverlayParamDestroy(channel);
          break;
      }
    },
    [](Input& in, uint32_t component) {
      const uint32_t nodeId = in.Node();
      std::vector<TavoVideoDefreezeStrategy> strategies(in.Byte() % 3U, in.Word());
      TavoVideoVlinkFreezeLastFrame(nodeId, 0, in.Byte() & 1U ? &strategies : nullptr);
      TavoVideoVlinkVoStopRender(component, in.Word());
      TavoVideoVlinkVoSetDefaultImage(nodeId);
      TavoVideoReportEncError(component, in.Word());
    },
    SetTraceLevel,
    [](Input& in, uint32_t component) { g_armed = (component << 8) | (in.Byte() % 4U + 1U); },
    [](Input& in, uint32_t) {
      // Records the library never issued, or has taken back already: refused, untouched.
      VencOutFrame foreign{};
      in.Fill(&foreign, sizeof(foreign));
      TavoVideoReleaseVEncFrame(&foreign);
      if (VencOutFrame* given = PopHeld()) {
        TavoVideoReleaseVEncFrame(given);
        TavoVideoReleaseVEncFrame(given);
      }
    },
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  unsetenv("DISPLAY");  // screens fail to open instead of capturing whatever is there
  TavoVideoVlinkInit(0, 0, {});
  static const Tables tables;
  g_tables = &tables;
  const std::string base = "/tmp/vlink_host_call_fuzzer_" + std::to_string(getpid());
  g_fifo = base + ".dat";
  g_folder = base + "_folder.dat";
  mkfifo(g_fifo.c_str(), 0600);
  mkdir(g_folder.c_str(), 0700);
  std::atexit([] {
    unlink(g_fifo.c_str());
    rmdir(g_folder.c_str());
  });
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const uint64_t underflows = OsvGraphicBuffer::GetUnderflowCount();
  Input in(data, size);
  for (int calls = 0; !in.Empty() && calls < 64; ++calls) {
    const uint32_t component = in.Byte() % kComponents;
    kCalls[in.Byte() % std::size(kCalls)](in, component);
  }
  g_armed = kNone;
  for (uint32_t component = 0; component < kComponents; ++component) {
    UnbindComponent(component);
  }
  for (uint32_t component = 0; component < kComponents; ++component) {
    for (uint32_t row = 0; row < g_tables->destroy.count; ++row) {
      g_tables->destroy.row[row].func(component);
    }
    TavoVideoMouseStop(component % 3U);
    TavoVideoVlinkOverlayParamDestroy(component % 4U);
  }
  ReleaseHeld(0);
  if (OsvGraphicBuffer::GetUnderflowCount() != underflows) {
    std::fprintf(stderr, "a frame was released more often than it was referenced\n");
    std::abort();
  }
  return 0;
}
