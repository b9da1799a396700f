// The screen capturer's seams: the X display connection, System V shared memory and the
// host's shared-memory queue. Everything else of Xlib is called directly, against a real
// X server in the tests.
#pragma once

#include <X11/Xlib.h>
#include <sys/types.h>

#include <cstdint>

#include "core/tavo_video_seam.h"
#include "platform/adapt_common/os_shm_queue.h"

// A connection whose server went away. Marked by the IO error handlers the capturer
// installs, which also give back the display lock Xlib keeps for a process that would exit,
// so the connection can still be closed (from any thread) and frees its socket and memory.
void MarkX11DisplayLost(Display* display);
bool IsX11DisplayLost(Display* display);
// Forgets a lost connection once it is closed (its address may be reused).
void ForgetX11DisplayLost(Display* display);

// How long the server of a local display may take to answer a connection before the open
// gives up (XOpenDisplay itself would wait for ever).
constexpr uint32_t kX11AnswerTimeoutMs = 2000;

// Opens display `name` (the environment's display for null) once its server has answered
// a connection within `answerTimeoutMs`. Null on failure, with *tryAgain true when the
// server may be there a moment later (the socket refused or dropped the connection, as a
// server that resets after its last client left does) and false when it never answered or
// the name is not usable. Displays on other hosts are opened without the check.
Display* OpenX11Display(const char* name, uint32_t answerTimeoutMs, bool* tryAgain);

// Whether the server of display `name` answers a connection set-up within the time (true
// for displays on other hosts, which are not asked).
bool X11ServerAnswers(const char* name, uint32_t timeoutMs);

class X11DisplaySystem {
 public:
  virtual ~X11DisplaySystem() = default;
  // XInitThreads: non-zero on success.
  virtual int32_t InitThreads() = 0;
  // The display the environment names; null when it cannot be opened, with *tryAgain as
  // OpenX11Display sets it.
  virtual Display* Open(bool* tryAgain) = 0;
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
