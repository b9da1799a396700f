// The screen capturer's seams: the X display connection, System V shared memory and the
// host's shared-memory queue. Everything else of Xlib is called directly, against a real
// X server in the tests.
#pragma once

#include <X11/Xlib.h>
#include <sys/types.h>

#include <cstdint>

#include "core/tavo_video_seam.h"
#include "platform/os_shm_queue.h"

// A connection whose server went away. Xlib leaves such a connection's internal lock in
// an unknown state, so it is never used again, not even to close it: it is parked for the
// life of the process. Marked by the IO error handlers the capturer installs.
void MarkX11DisplayLost(Display* display);
bool IsX11DisplayLost(Display* display);

class X11DisplaySystem {
 public:
  virtual ~X11DisplaySystem() = default;
  // XInitThreads: non-zero on success.
  virtual int32_t InitThreads() = 0;
  // The display the environment names (XOpenDisplay(NULL)); null when it cannot be opened.
  virtual Display* Open() = 0;
  virtual void Close(Display* display) = 0;
  static X11DisplaySystem& Real();
};

// shmget / shmat / shmdt / shmctl(IPC_RMID); each sets errno when it fails.
class SharedMemorySystem {
 public:
  virtual ~SharedMemorySystem() = default;
  virtual int Get(size_t size, int flags) = 0;  // -1 on failure
  virtual void* Attach(int id) = 0;             // (void*)-1 on failure
  virtual int Detach(const void* address) = 0;  // -1 on failure
  virtual int Remove(int id) = 0;               // -1 on failure
  static SharedMemorySystem& Real();
};

// The host's shared-memory queue (OsShmAdvanced*).
class HostShmQueue {
 public:
  virtual ~HostShmQueue() = default;
  virtual OsShmAdvancedBuffer* Alloc(uint32_t queueId, uint32_t size) = 0;
  virtual int32_t Write(uint32_t queueId, OsShmAdvancedBuffer** buffers, uint32_t count) = 0;
  virtual void Free(OsShmAdvancedBuffer* buffer) = 0;
  static HostShmQueue& Real();
};
