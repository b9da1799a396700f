// Every system call the V4L2 capturer makes on a camera device goes through this seam, so
// the capturer can be driven by a fake camera on a machine without one.
#pragma once

#include <sys/select.h>
#include <sys/types.h>

#include <cstddef>

#include "core/tavo_video_seam.h"

class CaptureDevice {
 public:
  virtual ~CaptureDevice() = default;
  // Each behaves as its system call: the call's result, or -1 (MAP_FAILED for Mmap) with
  // errno set.
  virtual int Open(const char* path, int flags) = 0;
  virtual int Close(int fd) = 0;
  virtual int Ioctl(int fd, unsigned long request, void* arg) = 0;
  // mmap(nullptr, length, prot, flags, fd, offset).
  virtual void* Mmap(size_t length, int prot, int flags, int fd, off_t offset) = 0;
  virtual int Munmap(void* address, size_t length) = 0;
  virtual int Select(int nfds, fd_set* readFds, fd_set* writeFds, fd_set* exceptFds,
                     timeval* timeout) = 0;
  static CaptureDevice& Real();
};
