#include "host_encoder_sink.h"

#include <pthread.h>

#include <algorithm>
#include <filesystem>
#include <map>

#include "host_clock.h"
#include "host_plots.h"

namespace {

// Sinks by encoder node id, for the plain-function callbacks.
std::mutex g_sinksLock;  // guards g_sinks; the callbacks hold it only to look a sink up
std::map<uint32_t, EncoderSink*> g_sinks;

EncoderSink* SinkOf(uint32_t nodeId) {
  std::lock_guard<std::mutex> lock(g_sinksLock);
  auto found = g_sinks.find(nodeId);
  return found == g_sinks.end() ? nullptr : found->second;
}

}  // namespace

double EncoderFigures::Rate() const {
  return frames > 1 ? ::Rate(frames - 1, lastUs - firstUs) : 0.0;
}

double EncoderFigures::LatencyMeanMs() const {
  return frames > 0 ? static_cast<double>(latencySumUs) / frames / 1000.0 : 0.0;
}

EncoderSink::EncoderSink(const Library& lib, uint32_t nodeId, std::string path)
    : m_lib(lib), m_nodeId(nodeId), m_path(std::move(path)) {
  {
    std::lock_guard<std::mutex> lock(g_sinksLock);
    g_sinks[m_nodeId] = this;
  }
  m_writer = std::thread([this] { Writer(); });
}

EncoderSink::~EncoderSink() { Stop(); }

void EncoderSink::FillRecord(tagTavoVideoComponentParam& record, uint32_t width, uint32_t height,
                             uint32_t frameRate) const {
  record.venc.width = width;
  record.venc.height = height;
  record.venc.frameRate = frameRate;
  record.venc.format = TAVO_VIDEO_VLINK_FORMAT_I420;
  record.venc.hostKey = m_nodeId;
  record.venc.encOutFunc = OnFrame;
  record.venc.encCreateFunc = OnCreate;
}

uint32_t EncoderSink::OnCreate(uint32_t imgNo, uint32_t /*hostKey*/, uint32_t /*hostSubKey*/) {
  EncoderSink* sink = SinkOf(imgNo);
  if (sink != nullptr) {
    std::lock_guard<std::mutex> lock(sink->m_lock);
    ++sink->m_figures.created;
  }
  return 0;
}

uint32_t EncoderSink::OnFrame(uint32_t imgNo, uint32_t /*hostKey*/, uint32_t /*hostSubKey*/,
                              VencOutFrame* frame) {
  const uint64_t now = NowUs();
  EncoderSink* sink = SinkOf(imgNo);
  if (sink == nullptr || frame == nullptr) {
    return 0;  // not ours: refused, the library keeps the record
  }
  {
    std::lock_guard<std::mutex> lock(sink->m_lock);
    if (sink->m_stopping) {
      return 0;
    }
    EncoderFigures& f = sink->m_figures;
    if (sink->m_haveSequence && frame->sequence > sink->m_lastSequence + 1) {
      f.gaps += static_cast<uint32_t>(frame->sequence - sink->m_lastSequence - 1);
    }
    sink->m_haveSequence = true;
    sink->m_lastSequence = frame->sequence;
    const uint64_t latency = now > frame->timestampUs ? now - frame->timestampUs : 0;
    f.firstUs = f.frames == 0 ? now : f.firstUs;
    f.lastUs = now;
    ++f.frames;
    f.latencySumUs += latency;
    f.latencyMaxUs = std::max(f.latencyMaxUs, latency);
    sink->m_queue.emplace_back(frame, now);
    if (!sink->m_timelineName.empty()) {
      RecordLatency(sink->m_timelineName, "hand-off", now, latency);
    }
  }
  sink->m_changed.notify_all();
  return 1;  // exactly 1 accepts the frame
}

bool EncoderSink::WaitFrames(uint32_t frames, std::chrono::milliseconds wait) {
  std::unique_lock<std::mutex> lock(m_lock);
  return m_changed.wait_for(lock, wait, [&] { return m_figures.frames >= frames; });
}

bool EncoderSink::Drain(std::chrono::milliseconds wait) {
  std::unique_lock<std::mutex> lock(m_lock);
  return m_changed.wait_for(lock, wait, [&] { return m_figures.released == m_figures.frames; });
}

void EncoderSink::Writer() {
  pthread_setname_np(pthread_self(), "host encoder");
  std::unique_lock<std::mutex> lock(m_lock);
  while (true) {
    m_changed.wait(lock, [&] { return m_stopping || !m_queue.empty(); });
    if (m_queue.empty()) {
      break;
    }
    const auto [frame, arrivalUs] = m_queue.front();
    m_queue.pop_front();
    lock.unlock();
    Write(*frame);
    if (m_inspector && frame->buffer != nullptr) {
      m_inspector(*frame->buffer, arrivalUs);
    }
    const OsvGraphicBufferInfo info = frame->buffer->GetImageInfo();
    m_lib.releaseFrame(frame);
    lock.lock();
    ++m_figures.released;
    m_figures.width = info.width;
    m_figures.height = info.height;
    m_changed.notify_all();
  }
  for (Output& output : m_outputs) {
    std::fclose(output.file);
  }
  m_outputs.clear();
}

FILE* EncoderSink::FileFor(uint32_t width, uint32_t height) {
  for (const Output& output : m_outputs) {
    if (output.width == width && output.height == height) {
      return output.file;
    }
  }
  std::string path = m_path;
  if (!m_outputs.empty()) {
    const std::filesystem::path p(m_path);
    path = (p.parent_path() / (p.stem().string() + "_" + std::to_string(width) + "x" +
                               std::to_string(height) + p.extension().string()))
               .string();
  }
  FILE* file = std::fopen(path.c_str(), "wb");
  if (file == nullptr) {
    std::perror(path.c_str());
    return nullptr;
  }
  std::fprintf(file, "YUV4MPEG2 W%u H%u F30:1 Ip A1:1 C420jpeg\n", width, height);
  m_outputs.push_back({width, height, file});
  return file;
}

void EncoderSink::Write(VencOutFrame& frame) {
  const OsvGraphicBuffer* buffer = frame.buffer;
  if (buffer == nullptr) {
    return;
  }
  const OsvGraphicBufferInfo info = buffer->GetImageInfo();
  if (info.format != TAVO_VIDEO_VLINK_FORMAT_I420 || buffer->GetImageAddr(0) == nullptr) {
    return;
  }
  FILE* out = FileFor(info.width, info.height);
  if (out == nullptr) {
    return;
  }
  std::fputs("FRAME\n", out);
  for (uint32_t plane = 0; plane < 3; ++plane) {
    const uint32_t rows = plane == 0 ? info.height : (info.height + 1) / 2;
    const uint32_t bytes = plane == 0 ? info.width : (info.width + 1) / 2;
    const uint8_t* row = buffer->GetImageAddr(plane);
    for (uint32_t y = 0; y < rows; ++y, row += info.stride[plane]) {
      std::fwrite(row, 1, bytes, out);
    }
  }
  std::lock_guard<std::mutex> lock(m_lock);
  ++m_figures.written;
}

void EncoderSink::Stop() {
  {
    std::lock_guard<std::mutex> lock(g_sinksLock);
    g_sinks.erase(m_nodeId);
  }
  {
    std::lock_guard<std::mutex> lock(m_lock);
    m_stopping = true;
  }
  m_changed.notify_all();
  if (m_writer.joinable()) {
    m_writer.join();
  }
}

EncoderFigures EncoderSink::Figures() {
  std::lock_guard<std::mutex> lock(m_lock);
  return m_figures;
}
