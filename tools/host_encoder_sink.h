// The host's side of one encoder component: the encoder callback queues each hand-off
// record (it runs on a library worker and must not block), a writer thread of the host
// writes the frame to a Y4M file and gives the record back with TavoVideoReleaseVEncFrame,
// and the figures a summary needs are kept: frames, rate, hand-off latency, sequence gaps,
// records given back.
//
// Several sinks may live at once (one per link): the plain-function callbacks find theirs
// by the encoder's node id.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

#include "host_library.h"

struct EncoderFigures {
  uint32_t frames = 0;    // records received
  uint32_t released = 0;  // given back with TavoVideoReleaseVEncFrame
  uint32_t written = 0;   // frames written to the Y4M file(s)
  uint32_t gaps = 0;      // frames the sequence numbers say were offered but not seen
  uint32_t width = 0;     // size of the last frame
  uint32_t height = 0;
  uint64_t firstUs = 0;  // arrival of the first and the last frame
  uint64_t lastUs = 0;
  uint64_t latencySumUs = 0;  // hand-off (timestamp in the record) to arrival
  uint64_t latencyMaxUs = 0;
  uint32_t created = 0;  // encoder-create callbacks

  double Rate() const;
  double LatencyMeanMs() const;
};

class EncoderSink {
 public:
  // Frames go to `path`; frames of another size than the first go to `path` with the size
  // added before the extension (a Y4M stream has one size).
  EncoderSink(const Library& lib, uint32_t nodeId, std::string path);
  ~EncoderSink();
  EncoderSink(const EncoderSink&) = delete;
  EncoderSink& operator=(const EncoderSink&) = delete;

  // Fills an encoder record for this sink: size, rate and the two callbacks.
  void FillRecord(tagTavoVideoComponentParam& record, uint32_t width, uint32_t height,
                  uint32_t frameRate) const;
  // Called on the writer thread with each frame and its arrival, before it is given back.
  // Set before the encoder exists.
  void SetInspector(std::function<void(const OsvGraphicBuffer&, uint64_t arrivalUs)> inspector) {
    m_inspector = std::move(inspector);
  }
  // Each frame's hand-off latency goes to the timeline under this link name. Set before the
  // encoder exists.
  void SetTimelineName(std::string link) { m_timelineName = std::move(link); }
  // Waits up to `wait` until `frames` frames were received; true when they were.
  bool WaitFrames(uint32_t frames, std::chrono::milliseconds wait);
  // Waits up to `wait` until every frame received was given back; true when it was. Call
  // once the encoder is unbound, before it is destroyed.
  bool Drain(std::chrono::milliseconds wait);
  // Called after the encoder component is gone: gives back what is still queued, stops the
  // writer and closes the files.
  void Stop();
  EncoderFigures Figures();
  const std::string& Path() const { return m_path; }

  // The callbacks put in the encoder record.
  static uint32_t OnCreate(uint32_t imgNo, uint32_t hostKey, uint32_t hostSubKey);
  static uint32_t OnFrame(uint32_t imgNo, uint32_t hostKey, uint32_t hostSubKey,
                          VencOutFrame* frame);

 private:
  void Writer();
  void Write(VencOutFrame& frame);
  FILE* FileFor(uint32_t width, uint32_t height);

  const Library& m_lib;
  const uint32_t m_nodeId;
  const std::string m_path;

  std::mutex m_lock;  // guards everything below; no library call is made under it
  std::condition_variable m_changed;
  std::deque<std::pair<VencOutFrame*, uint64_t>> m_queue;  // record, arrival
  bool m_stopping = false;
  EncoderFigures m_figures;
  bool m_haveSequence = false;
  uint64_t m_lastSequence = 0;

  // Writer thread only.
  struct Output {
    uint32_t width;
    uint32_t height;
    FILE* file;
  };
  std::deque<Output> m_outputs;
  std::function<void(const OsvGraphicBuffer&, uint64_t)> m_inspector;
  std::string m_timelineName;
  std::thread m_writer;
};
