// Fakes of the screen capturer's seams. The display fake opens a real display (a test's
// Xvfb) by name and can refuse; the shared-memory and queue fakes pass through to the real
// calls unless told to fail the way the real side can.
#pragma once

#include <X11/Xlib.h>
#include <errno.h>

#include <atomic>
#include <map>
#include <mutex>
#include <string>

#include "platform/adapt_common/os_shm_queue.h"
#include "screen/tavo_video_vlink_x11_seams.h"

class FakeX11DisplaySystem final : public X11DisplaySystem {
 public:
  explicit FakeX11DisplaySystem(std::string name) : m_name(std::move(name)) {}
  int32_t InitThreads() override { return failInitThreads ? 0 : XInitThreads(); }
  Display* Open(bool* tryAgain) override {
    *tryAgain = false;
    if (refuseOpen || dropOpens > 0) {
      *tryAgain = dropOpens.fetch_sub(1) > 0;  // as a server resetting would
      return nullptr;
    }
    Display* display = OpenX11Display(m_name.c_str(), answerTimeoutMs, tryAgain);
    opens += display != nullptr ? 1 : 0;
    return display;
  }
  void Close(Display* display) override {
    ++closes;
    XCloseDisplay(display);
  }
  void SetName(std::string name) { m_name = std::move(name); }

  std::atomic<bool> failInitThreads{false};
  std::atomic<bool> refuseOpen{false};  // for good
  std::atomic<int> dropOpens{0};        // this many, then opens work again
  std::atomic<uint32_t> answerTimeoutMs{kX11AnswerTimeoutMs};
  std::atomic<int> opens{0};
  std::atomic<int> closes{0};

 private:
  std::string m_name;
};

class FakeSharedMemory final : public SharedMemorySystem {
 public:
  int Get(size_t size, int flags) override {
    const int id = Fails(getError) ? -1 : Real().Get(size, flags);
    gets += id != -1 ? 1 : 0;
    return id;
  }
  void* Attach(int id) override {
    void* address = Fails(attachError) ? reinterpret_cast<void*>(-1) : Real().Attach(id);
    attaches += address != reinterpret_cast<void*>(-1) ? 1 : 0;
    return address;
  }
  int Detach(const void* address) override {
    ++detaches;
    return Real().Detach(address);
  }
  int Remove(int id) override {
    ++removes;
    return Real().Remove(id);
  }
  // Whether a call fails with `error` (in errno) instead of reaching the system.
  static bool Fails(int error) {
    errno = error;
    return error != 0;
  }

  // Calls that reached the system, successful ones for gets and attaches.
  std::atomic<int> gets{0};
  std::atomic<int> attaches{0};
  std::atomic<int> detaches{0};
  std::atomic<int> removes{0};

  std::atomic<int> getError{0};     // e.g. ENOSPC, EACCES
  std::atomic<int> attachError{0};  // e.g. ENOMEM, EACCES
};

// Hands out handles as the platform's queue does: only their first two fields (memory, used
// length) are meaningful; the stand-in's further fields read as zero until the handle goes
// back to the stand-in.
class FakeHostShmQueue final : public HostShmQueue {
 public:
  OsShmAdvancedBuffer* Alloc(uint32_t queueId, uint32_t size) override {
    OsShmAdvancedBuffer* buffer =
        allocFails ? nullptr : OsShmAdvancedMemAllocBuffer(queueId, 0, size);
    if (buffer == nullptr) {
      return nullptr;
    }
    std::lock_guard<std::mutex> lock(m_lock);
    m_hidden[buffer] = *buffer;
    *buffer = {nullMemory ? nullptr : buffer->mem, buffer->usedLen, 0, 0};  // or without memory
    return buffer;
  }
  int32_t Write(uint32_t queueId, OsShmAdvancedBuffer** buffers, uint32_t count) override {
    if (writeFails) {
      return -1;
    }
    for (uint32_t i = 0; i < count; ++i) {
      Restore(buffers[i]);
    }
    return OsShmAdvancedWriteBulkQueue(queueId, buffers, count);
  }
  void Free(OsShmAdvancedBuffer* buffer) override {
    ++frees;
    Restore(buffer);
    OsShmAdvancedMemFreeBuffer(buffer);
  }

  std::atomic<bool> allocFails{false};
  std::atomic<bool> nullMemory{false};
  std::atomic<bool> writeFails{false};
  std::atomic<int> frees{0};

 private:
  void Restore(OsShmAdvancedBuffer* buffer) {
    std::lock_guard<std::mutex> lock(m_lock);
    if (auto hidden = m_hidden.extract(buffer)) {
      *buffer = {hidden.mapped().mem, buffer->usedLen, hidden.mapped().capacity,
                 hidden.mapped().queueId};
    }
  }
  std::mutex m_lock;                                             // guards m_hidden
  std::map<OsShmAdvancedBuffer*, OsShmAdvancedBuffer> m_hidden;  // as handed out
};
