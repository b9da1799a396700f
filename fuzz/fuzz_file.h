// Hands a fuzzer's input to code that only reads files: an anonymous memory file, rewritten
// for every input and opened by path through /proc.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

class FuzzFile {
 public:
  FuzzFile() {
    m_fd = memfd_create("vlink_fuzz", MFD_CLOEXEC);
    if (m_fd < 0) {
      perror("memfd_create");
      abort();
    }
    m_path = "/proc/self/fd/" + std::to_string(m_fd);
  }

  const char* Fill(const uint8_t* data, size_t size) {
    if (ftruncate(m_fd, 0) != 0 ||
        (size > 0 && pwrite(m_fd, data, size, 0) != static_cast<ssize_t>(size))) {
      perror("memfd write");
      abort();
    }
    return m_path.c_str();
  }

 private:
  int m_fd = -1;
  std::string m_path;
};
