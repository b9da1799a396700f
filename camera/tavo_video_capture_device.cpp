#include "camera/tavo_video_capture_device.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {

class KernelCaptureDevice final : public CaptureDevice {
 public:
  int Open(const char* path, int flags) override { return ::open(path, flags); }
  int Close(int fd) override { return ::close(fd); }
  int Ioctl(int fd, unsigned long request, void* arg) override { return ::ioctl(fd, request, arg); }
  void* Mmap(size_t length, int prot, int flags, int fd, off_t offset) override {
    return ::mmap(nullptr, length, prot, flags, fd, offset);
  }
  int Munmap(void* address, size_t length) override { return ::munmap(address, length); }
  int Select(int nfds, fd_set* readFds, fd_set* writeFds, fd_set* exceptFds,
             timeval* timeout) override {
    return ::select(nfds, readFds, writeFds, exceptFds, timeout);
  }
};

}  // namespace

CaptureDevice& CaptureDevice::Real() {
  static KernelCaptureDevice device;
  return device;
}
