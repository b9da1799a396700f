// A camera made of a file, for hosts on machines without one: preloaded (LD_PRELOAD) into
// the host process, it answers the V4L2 calls the library makes on one /dev/videoN from a
// FakeV4l2Device playing a clip (MJPEG or Y4M, FileFrameSource), and passes every other
// call on to the C library.
//
// Environment (read at the first open of the device):
//   VLINK_FAKE_CAMERA_CLIP   the clip to play (required; without it nothing is served)
//   VLINK_FAKE_CAMERA_ID     the bus identity the camera reports (default "usb-vlink-file")
//   VLINK_FAKE_CAMERA_INDEX  N of /dev/videoN (default 0)
//   VLINK_FAKE_CAMERA_FPS    the rate of an MJPEG clip (default 30)
//
// For the host it also tells when each frame of the clip was last taken from the camera
// (VlinkFakeCameraCapturedAtUs), to time frames from the camera to the host.
//
// Each descriptor of the fake is backed by a real one (of /dev/null), so the kernel never
// hands the same number to anyone else; calls on it are translated to the fake's own.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "tools/common/fake_v4l2_device.h"
#include "tools/common/file_frame_source.h"

#define VLINK_PRELOAD_API extern "C" __attribute__((visibility("default")))

namespace {

// The C library's own functions, found once.
struct Next {
  int (*open)(const char*, int, ...) = nullptr;
  int (*close)(int) = nullptr;
  int (*ioctl)(int, unsigned long, ...) = nullptr;
  void* (*mmap)(void*, size_t, int, int, int, off_t) = nullptr;
  int (*munmap)(void*, size_t) = nullptr;
  int (*select)(int, fd_set*, fd_set*, fd_set*, timeval*) = nullptr;
};

template <class F>
void Find(F& function, const char* name) {
  function = reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}

const Next& Libc() {
  static const Next next = [] {
    Next n;
    Find(n.open, "open");
    Find(n.close, "close");
    Find(n.ioctl, "ioctl");
    Find(n.mmap, "mmap");
    Find(n.munmap, "munmap");
    Find(n.select, "select");
    return n;
  }();
  return next;
}

uint64_t NowUs() {
  return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(
                                   std::chrono::steady_clock::now().time_since_epoch())
                                   .count());
}

// Sizes the file camera offers besides the clip's own: the fake scales frames to any of
// them, so a host can change the capture size.
constexpr FakeFrameSize kExtraSizes[] = {{640, 360}, {640, 480}, {960, 540}, {1920, 1080}};

class FileCamera {
 public:
  static FileCamera& Get() {
    static FileCamera* camera = new FileCamera();  // never destroyed: threads may still call
    return *camera;
  }

  // True when `path` is the device this camera serves.
  bool Serves(const char* path) {
    // Other paths never start the camera: loading the clip opens files itself.
    if (path == nullptr || std::strncmp(path, "/dev/video", 10) != 0) {
      return false;
    }
    EnsureStarted();
    return m_device != nullptr && path != nullptr && m_path == path;
  }

  int Open(const char* path, int flags) {
    const int fake = m_device->Open(path, flags);
    if (fake < 0) {
      return -1;
    }
    const int real = Libc().open("/dev/null", O_RDWR | O_CLOEXEC);
    if (real < 0) {
      m_device->Close(fake);
      return -1;
    }
    std::lock_guard<std::mutex> lock(m_lock);
    m_fakeOf[real] = fake;
    return real;
  }

  // The fake's descriptor behind a real one, or -1 when it is not ours.
  int FakeOf(int fd) {
    std::lock_guard<std::mutex> lock(m_lock);
    auto found = m_fakeOf.find(fd);
    return found == m_fakeOf.end() ? -1 : found->second;
  }

  int Close(int real, int fake) {
    {
      std::lock_guard<std::mutex> lock(m_lock);
      m_fakeOf.erase(real);
    }
    const int result = m_device->Close(fake);
    Libc().close(real);
    return result;
  }

  int Ioctl(int fake, unsigned long request, void* arg) {
    const int result = m_device->Ioctl(fake, request, arg);
    if (result == 0 && request == VIDIOC_DQBUF && m_clipFrames > 0) {
      const uint32_t frame = static_cast<v4l2_buffer*>(arg)->sequence % m_clipFrames;
      std::lock_guard<std::mutex> lock(m_lock);
      m_takenAtUs[frame] = NowUs();
    }
    return result;
  }

  // When frame `frame` of the clip was last taken from the camera; 0 when never.
  uint64_t TakenAtUs(uint32_t frame) {
    std::lock_guard<std::mutex> lock(m_lock);
    auto found = m_takenAtUs.find(frame);
    return found == m_takenAtUs.end() ? 0 : found->second;
  }

  void* Mmap(size_t length, int prot, int flags, int fake, off_t offset) {
    void* address = m_device->Mmap(length, prot, flags, fake, offset);
    if (address != MAP_FAILED) {
      std::lock_guard<std::mutex> lock(m_lock);
      m_mappings.insert(address);
    }
    return address;
  }

  // True (and the fake's answer in result) when `address` is one of the fake's mappings.
  bool Munmap(void* address, size_t length, int& result) {
    {
      std::lock_guard<std::mutex> lock(m_lock);
      if (m_mappings.erase(address) == 0) {
        return false;
      }
    }
    result = m_device->Munmap(address, length);
    return true;
  }

  // Select on sets naming only the fake's descriptors, translated both ways. False when a
  // set names none of them (the C library answers then).
  bool Select(int nfds, fd_set* sets[3], timeval* timeout, int& result) {
    fd_set translated[3];
    std::map<int, int> realOf;
    int highest = -1;
    {
      std::lock_guard<std::mutex> lock(m_lock);
      for (int s = 0; s < 3; ++s) {
        FD_ZERO(&translated[s]);
        for (int fd = 0; sets[s] != nullptr && fd < nfds; ++fd) {
          auto found = m_fakeOf.find(fd);
          if (FD_ISSET(fd, sets[s]) && found != m_fakeOf.end()) {
            FD_SET(found->second, &translated[s]);
            realOf[found->second] = fd;
            highest = std::max(highest, found->second);
          }
        }
      }
    }
    if (highest < 0) {
      return false;
    }
    fd_set* fakeSets[3];
    for (int s = 0; s < 3; ++s) {
      fakeSets[s] = sets[s] != nullptr ? &translated[s] : nullptr;
    }
    result = m_device->Select(highest + 1, fakeSets[0], fakeSets[1], fakeSets[2], timeout);
    for (int s = 0; s < 3; ++s) {
      if (sets[s] == nullptr) {
        continue;
      }
      FD_ZERO(sets[s]);
      for (const auto& [fake, real] : realOf) {
        if (result > 0 && FD_ISSET(fake, &translated[s])) {
          FD_SET(real, sets[s]);
        }
      }
    }
    return true;
  }

  uint32_t FramesDelivered() {
    EnsureStarted();
    return m_device != nullptr ? m_device->FramesDelivered(m_index) : 0;
  }

 private:
  void EnsureStarted() {
    std::call_once(m_started, [this] { Start(); });
  }

  void Start() {
    const char* clip = std::getenv("VLINK_FAKE_CAMERA_CLIP");
    if (clip == nullptr || *clip == '\0') {
      return;
    }
    const char* id = std::getenv("VLINK_FAKE_CAMERA_ID");
    const char* index = std::getenv("VLINK_FAKE_CAMERA_INDEX");
    const char* fps = std::getenv("VLINK_FAKE_CAMERA_FPS");
    m_index = index != nullptr ? std::atoi(index) : 0;
    std::string error;
    auto source = FileFrameSource::Open(
        clip, &error, fps != nullptr ? static_cast<uint32_t>(std::atoi(fps)) : 30U);
    if (source == nullptr) {
      std::fprintf(stderr, "file camera: %s\n", error.c_str());
      return;
    }
    FakeCameraConfig config = source->Camera(id != nullptr ? id : "usb-vlink-file");
    for (FakeCameraFormat& format : config.formats) {
      for (const FakeFrameSize& size : kExtraSizes) {
        if (size.width != source->Width() || size.height != source->Height()) {
          format.sizes.push_back(size);
        }
      }
    }
    auto device = std::make_unique<FakeV4l2Device>();
    device->AddCamera(m_index, std::move(config));
    m_path = "/dev/video" + std::to_string(m_index);
    m_clipFrames = static_cast<uint32_t>(source->FrameCount());
    m_device = std::move(device);
    std::fprintf(stderr, "file camera: %s plays %s (%ux%u, %zu frames)\n", m_path.c_str(), clip,
                 source->Width(), source->Height(), source->FrameCount());
  }

  std::once_flag m_started;
  std::unique_ptr<FakeV4l2Device> m_device;  // set once, in Start
  std::string m_path;
  int m_index = 0;
  uint32_t m_clipFrames = 0;    // set once, in Start
  std::mutex m_lock;            // guards the tables below; never held across the fake
  std::map<int, int> m_fakeOf;  // real descriptor -> the fake's
  std::set<void*> m_mappings;
  std::map<uint32_t, uint64_t> m_takenAtUs;  // frame of the clip -> last dequeue
};

int OpenWith(const char* path, int flags, mode_t mode) {
  if (FileCamera::Get().Serves(path)) {
    return FileCamera::Get().Open(path, flags);
  }
  return Libc().open(path, flags, mode);
}

mode_t ModeOf(int flags, va_list args) {
  return (flags & (O_CREAT | O_TMPFILE)) != 0 ? static_cast<mode_t>(va_arg(args, unsigned)) : 0;
}

}  // namespace

VLINK_PRELOAD_API int open(const char* path, int flags, ...) {
  va_list args;
  va_start(args, flags);
  const mode_t mode = ModeOf(flags, args);
  va_end(args);
  return OpenWith(path, flags, mode);
}

VLINK_PRELOAD_API int open64(const char* path, int flags, ...) {
  va_list args;
  va_start(args, flags);
  const mode_t mode = ModeOf(flags, args);
  va_end(args);
  return OpenWith(path, flags, mode);
}

// What fortified builds call for open without a mode.
VLINK_PRELOAD_API int __open_2(const char* path, int flags) { return OpenWith(path, flags, 0); }
VLINK_PRELOAD_API int __open64_2(const char* path, int flags) { return OpenWith(path, flags, 0); }

VLINK_PRELOAD_API int close(int fd) {
  const int fake = FileCamera::Get().FakeOf(fd);
  return fake >= 0 ? FileCamera::Get().Close(fd, fake) : Libc().close(fd);
}

VLINK_PRELOAD_API int ioctl(int fd, unsigned long request, ...) noexcept {
  va_list args;
  va_start(args, request);
  void* arg = va_arg(args, void*);
  va_end(args);
  const int fake = FileCamera::Get().FakeOf(fd);
  return fake >= 0 ? FileCamera::Get().Ioctl(fake, request, arg) : Libc().ioctl(fd, request, arg);
}

VLINK_PRELOAD_API void* mmap(void* address, size_t length, int prot, int flags, int fd,
                             off_t offset) noexcept {
  const int fake = fd >= 0 ? FileCamera::Get().FakeOf(fd) : -1;
  return fake >= 0 ? FileCamera::Get().Mmap(length, prot, flags, fake, offset)
                   : Libc().mmap(address, length, prot, flags, fd, offset);
}

VLINK_PRELOAD_API void* mmap64(void* address, size_t length, int prot, int flags, int fd,
                               off_t offset) noexcept {
  return mmap(address, length, prot, flags, fd, offset);
}

VLINK_PRELOAD_API int munmap(void* address, size_t length) noexcept {
  int result = 0;
  return FileCamera::Get().Munmap(address, length, result) ? result
                                                           : Libc().munmap(address, length);
}

VLINK_PRELOAD_API int select(int nfds, fd_set* readFds, fd_set* writeFds, fd_set* exceptFds,
                             timeval* timeout) {
  fd_set* sets[3] = {readFds, writeFds, exceptFds};
  int result = 0;
  return FileCamera::Get().Select(nfds, sets, timeout, result)
             ? result
             : Libc().select(nfds, readFds, writeFds, exceptFds, timeout);
}

// For the host program: when frame `frame` of the clip was last taken from the camera, in
// microseconds of the steady clock; 0 when never.
VLINK_PRELOAD_API uint64_t VlinkFakeCameraCapturedAtUs(uint32_t frame) {
  return FileCamera::Get().TakenAtUs(frame);
}

// For the host program: frames the file camera has delivered so far (0 without one).
VLINK_PRELOAD_API uint32_t VlinkFakeCameraFramesDelivered() {
  return FileCamera::Get().FramesDelivered();
}
