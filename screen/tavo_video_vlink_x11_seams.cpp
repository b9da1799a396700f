#include "screen/tavo_video_vlink_x11_seams.h"

#include <sys/ipc.h>
#include <sys/shm.h>

#include <mutex>
#include <set>

namespace {

std::mutex g_lostLock;  // guards g_lostDisplays; no callback runs under it
std::set<Display*>* g_lostDisplays = new std::set<Display*>;  // parked, still reachable

class XlibDisplaySystem final : public X11DisplaySystem {
 public:
  int32_t InitThreads() override { return XInitThreads(); }
  Display* Open() override { return XOpenDisplay(nullptr); }
  void Close(Display* display) override { XCloseDisplay(display); }
};

class SysVSharedMemory final : public SharedMemorySystem {
 public:
  int Get(size_t size, int flags) override { return shmget(IPC_PRIVATE, size, flags); }
  void* Attach(int id) override { return shmat(id, nullptr, 0); }
  int Detach(const void* address) override { return shmdt(address); }
  int Remove(int id) override { return shmctl(id, IPC_RMID, nullptr); }
};

class PlatformShmQueue final : public HostShmQueue {
 public:
  OsShmAdvancedBuffer* Alloc(uint32_t queueId, uint32_t size) override {
    return OsShmAdvancedMemAllocBuffer(queueId, 0, size);
  }
  int32_t Write(uint32_t queueId, OsShmAdvancedBuffer** buffers, uint32_t count) override {
    return OsShmAdvancedWriteBulkQueue(queueId, buffers, count);
  }
  void Free(OsShmAdvancedBuffer* buffer) override { OsShmAdvancedMemFreeBuffer(buffer); }
};

}  // namespace

X11DisplaySystem& X11DisplaySystem::Real() {
  static XlibDisplaySystem display;
  return display;
}

SharedMemorySystem& SharedMemorySystem::Real() {
  static SysVSharedMemory memory;
  return memory;
}

HostShmQueue& HostShmQueue::Real() {
  static PlatformShmQueue queue;
  return queue;
}

void MarkX11DisplayLost(Display* display) {
  std::lock_guard<std::mutex> lock(g_lostLock);
  g_lostDisplays->insert(display);
}

bool IsX11DisplayLost(Display* display) {
  std::lock_guard<std::mutex> lock(g_lostLock);
  return g_lostDisplays->count(display) != 0;
}
