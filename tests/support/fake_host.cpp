#include "tests/support/fake_host.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>

#include "tests/support/table_rows.h"

namespace {

FakeHost* g_host = nullptr;  // the callbacks carry no user data; one host at a time

// Calls the row of the getter's table for (type, srcType); 0xDEAD when there is none.
template <class Row, class... Args>
uint32_t CallRow(uint32_t (*getter)(const Row**, uint32_t*), uint32_t type, uint32_t srcType,
                 Args... args) {
  const Row* table = nullptr;
  uint32_t count = 0;
  auto row = getter != nullptr && getter(&table, &count) == 0 ? Find(table, count, type, srcType)
                                                              : nullptr;
  return row != nullptr ? row(args...) : 0xDEAD;
}

template <class T>
void AddOnce(std::vector<T>& list, const T& item) {
  if (std::find(list.begin(), list.end(), item) == list.end()) {
    list.push_back(item);
  }
}

// Runs a test's hook on a copy taken under the host's lock: the hook may call the library,
// and the test may replace it meanwhile.
template <class Hook, class... Args>
void RunHook(std::mutex& lock, const Hook& hook, Args... args) {
  Hook copy;
  {
    std::lock_guard<std::mutex> guard(lock);
    copy = hook;
  }
  if (copy) {
    copy(args...);
  }
}

}  // namespace

HostEntries HostEntries::From(void* library) {
  HostEntries entries;
  entries.library = library;
#define VLINK_HOST_ENTRY(member, symbol)                       \
  entries.member = Symbol<decltype(symbol)>(library, #symbol); \
  EXPECT_NE(entries.member, nullptr) << #symbol;
  VLINK_HOST_ENTRIES(VLINK_HOST_ENTRY)
#undef VLINK_HOST_ENTRY
  return entries;
}

FakeHost::FakeHost(HostEntries entries) : m_entries(entries) {
  EXPECT_EQ(g_host, nullptr) << "one fake host at a time";
  g_host = this;
  m_underflows = OsvGraphicBuffer::GetUnderflowCount();
}

FakeHost::~FakeHost() {
  Finish();
  g_host = nullptr;
}

HostParam FakeHost::Zeroed() {
  return std::make_unique<tagTavoVideoComponentParam>();  // value-initialized: all zero
}
HostParam FakeHost::DecoderParam(uint32_t imgNo) {
  HostParam param = Zeroed();
  param->vdec.imgNo = imgNo;
  param->vdec.decReleaseFunc = OnDecRelease;
  return param;
}
HostParam FakeHost::PreviewParam(const std::vector<std::pair<uint64_t, uint32_t>>& windows) {
  HostParam param = Zeroed();
  for (const auto& [handle, imgNo] : windows) {
    param->vo.windows[param->vo.winNum].winHandle = handle;
    param->vo.windows[param->vo.winNum].imgNo = imgNo;
    ++param->vo.winNum;
  }
  param->vo.renderCb = OnRender;
  return param;
}
HostParam FakeHost::EncoderParam(uint32_t hostKey, uint32_t width, uint32_t height) {
  HostParam param = Zeroed();
  param->venc.width = width;
  param->venc.height = height;
  param->venc.hostKey = hostKey;
  param->venc.encOutFunc = OnEncFrame;
  param->venc.encCreateFunc = OnEncCreate;
  return param;
}
HostParam FakeHost::TestParam(const std::string& file, uint32_t frameRate) {
  HostParam param = Zeroed();
  param->test.frameRate = frameRate;
  std::snprintf(param->test.fileName, sizeof(param->test.fileName), "%s", file.c_str());
  return param;
}

void FakeHost::Store(uint32_t component, uint32_t node) {
  DataContainer* container =
      m_entries.getContainer(("Node[" + std::to_string(component) + "]PresentParam").c_str());
  container->SetDataByString<uint32_t>("imgNo", node);
  container->SetDataByString<uint32_t>("portId", 0);
}
uint32_t FakeHost::Create(uint32_t type, uint32_t component, uint32_t node,
                          tagTavoVideoComponentParam* param) {
  Store(component, node);
  return CreateStored(type, component, param);
}
uint32_t FakeHost::CreateStored(uint32_t type, uint32_t component,
                                tagTavoVideoComponentParam* param) {
  {
    std::lock_guard<std::mutex> lock(m_lock);
    AddOnce(m_components, std::pair{type, component});
  }
  return CallRow(m_entries.getCreate, type, 0, component, param);
}
uint32_t FakeHost::Destroy(uint32_t type, uint32_t component) {
  return CallRow(m_entries.getDestroy, type, 0, component);
}
uint32_t FakeHost::Update(uint32_t type, uint32_t component, tagTavoVideoComponentParam* param) {
  return CallRow(m_entries.getUpdate, type, 0, component, param);
}
uint32_t FakeHost::Bind(uint32_t sinkType, uint32_t srcType, uint32_t sink, uint32_t source) {
  const uint32_t result = CallRow(m_entries.getBind, sinkType, srcType, sink, source);
  if (result == 0) {
    std::lock_guard<std::mutex> lock(m_lock);
    AddOnce(m_links, Link{sinkType, srcType, sink, source});
  }
  return result;
}
uint32_t FakeHost::Unbind(uint32_t sinkType, uint32_t srcType, uint32_t sink, uint32_t source) {
  return CallRow(m_entries.getUnbind, sinkType, srcType, sink, source);
}
uint32_t FakeHost::Push(uint32_t node, uint64_t decId, uint32_t width, uint32_t height) {
  tagOS_S_VIDEO_CODEC_IMG_INFO* record = nullptr;
  {
    std::lock_guard<std::mutex> lock(m_lock);
    record = &m_records.emplace_back();  // zeroed; stays where it is while more are added
  }
  record->pBuffer = new OsvGraphicBuffer(width, height, TAVO_VIDEO_VLINK_FORMAT_I420);
  const uint32_t result = m_entries.receive(decId, node, record);
  std::lock_guard<std::mutex> lock(m_lock);
  if (result == 0) {
    ++m_accepted;
  } else {
    delete record->pBuffer;  // still the host's; the small record is kept to the end
    record->pBuffer = nullptr;
  }
  return result;
}
int FakeHost::Accepted() {
  std::lock_guard<std::mutex> lock(m_lock);
  return m_accepted;
}
bool FakeHost::AllBack() { return decodedBack.WaitFor(Accepted()); }

void FakeHost::SetEncoder(Encoder mode) {
  std::lock_guard<std::mutex> lock(m_lock);
  m_encoder = mode;
}
void FakeHost::GiveBack(uint32_t expected, size_t keep) {
  std::vector<VencOutFrame*> frames;
  {
    std::lock_guard<std::mutex> lock(m_lock);
    const size_t count = m_held.size() > keep ? m_held.size() - keep : 0;
    frames.assign(m_held.begin(), m_held.begin() + static_cast<std::ptrdiff_t>(count));
    m_held.erase(m_held.begin(), m_held.begin() + static_cast<std::ptrdiff_t>(count));
  }
  for (VencOutFrame* frame : frames) {
    const uint32_t code = m_entries.releaseEnc(frame);
    EXPECT_EQ(code, expected == kAnyCode ? code : expected);
  }
}
std::vector<FakeHost::Encoded> FakeHost::EncodedFrames() {
  std::lock_guard<std::mutex> lock(m_lock);
  return m_encoded;
}
int FakeHost::Rendered(uint64_t window) {
  std::lock_guard<std::mutex> lock(m_lock);
  return m_renderedByWindow[window];
}

void FakeHost::Finish() {
  if (m_finished) {
    return;
  }
  m_finished = true;
  std::vector<Link> links;
  std::vector<std::pair<uint32_t, uint32_t>> components;
  {
    std::lock_guard<std::mutex> lock(m_lock);
    onRender = nullptr;  // the test's hooks may refer to what it already let go
    onRelease = nullptr;
    onEncode = nullptr;
    onCreate = nullptr;
    m_encoder = Encoder::kRefuse;  // frames still on their way come back by themselves
    links = m_links;
    components = m_components;
  }
  for (const auto& [sinkType, srcType, sink, source] : links) {
    Unbind(sinkType, srcType, sink, source);
  }
  GiveBack();  // while the encoders still exist, as a host must
  for (auto it = components.rbegin(); it != components.rend(); ++it) {
    Destroy(it->first, it->second);
  }
  m_entries.setReport([](TavoVideoDisplayWinInfo&) { return 0; });
  GiveBack(1);  // frames still on their way to a destroyed encoder
  EXPECT_TRUE(AllBack()) << "decoded frames not given back";
  std::lock_guard<std::mutex> lock(m_lock);
  EXPECT_EQ(decodedBack.Get(), m_accepted) << "a decoded frame came back twice";
  FreeRecords();
  EXPECT_EQ(OsvGraphicBuffer::GetUnderflowCount(), m_underflows) << "a frame was released twice";
}

void FakeHost::Abandon() {
  m_finished = true;
  std::lock_guard<std::mutex> lock(m_lock);
  m_held.clear();
  FreeRecords();
}

void FakeHost::FreeRecords() {  // m_lock held
  for (tagOS_S_VIDEO_CODEC_IMG_INFO& record : m_records) {
    delete record.pBuffer;  // null once it came back
  }
  m_records.clear();
}

VencOutFrame* FakeHost::TakeHeld() {
  std::lock_guard<std::mutex> lock(m_lock);
  VencOutFrame* frame = m_held.empty() ? nullptr : m_held.front();
  if (frame != nullptr) {
    m_held.erase(m_held.begin());
  }
  return frame;
}

uint32_t FakeHost::OnEncCreate(uint32_t, uint32_t, uint32_t) {
  RunHook(g_host->m_lock, g_host->onCreate);
  return 0;
}

uint32_t FakeHost::OnEncFrame(uint32_t, uint32_t hostKey, uint32_t, VencOutFrame* frame) {
  FakeHost* host = g_host;
  RunHook(host->m_lock, host->onEncode, frame);
  const OsvGraphicBufferInfo info = frame->buffer->GetImageInfo();
  Encoded seen{hostKey, frame->imgNo, info.width, info.height, frame->buffer->GetSrcImgNo(), {}};
  Encoder mode;
  {
    std::lock_guard<std::mutex> lock(host->m_lock);
    mode = host->m_encoder;
    if (host->keepPixels) {
      const uint8_t* data = frame->buffer->GetImageAddr(0);
      seen.pixels.assign(data, data + info.size);
    }
    host->m_encoded.push_back(std::move(seen));
    if (mode == Encoder::kHold) {
      host->m_held.push_back(frame);
    }
  }
  host->offered.Add();
  if (mode == Encoder::kGiveBack) {
    EXPECT_EQ(host->m_entries.releaseEnc(frame), 0U);
  }
  return mode == Encoder::kRefuse ? 0U : 1U;
}

int FakeHost::OnRender(uint32_t winHandle, TavoVideoRenderImgHeader* header) {
  FakeHost* host = g_host;
  EXPECT_EQ(header->headerSize, 48U);
  host->renderEntered.Add();
  RunHook(host->m_lock, host->onRender, winHandle);
  {
    std::lock_guard<std::mutex> lock(host->m_lock);
    ++host->m_renderedByWindow[winHandle];
  }
  host->rendered.Add();
  return 0;
}

uint32_t FakeHost::OnDecRelease(uint32_t, tagOS_S_VIDEO_CODEC_IMG_INFO* frame) {
  FakeHost* host = g_host;
  {
    std::lock_guard<std::mutex> lock(host->m_lock);
    // The pixels go at once (long runs push many frames); the record stays to the end, so a
    // second return finds them gone instead of using freed memory.
    EXPECT_NE(frame->pBuffer, nullptr) << "a decoded frame came back twice, or one refused";
    delete frame->pBuffer;
    frame->pBuffer = nullptr;
  }
  RunHook(host->m_lock, host->onRelease, frame);
  host->decodedBack.Add();
  return 1;
}
