#include "platform/adapt_common/os_thread.h"

#include <dlfcn.h>
#include <time.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

int32_t OsPthreadCreate(pthread_t* thread, const pthread_attr_t* attr, void* (*routine)(void*),
                        void* arg) {
  if (thread == nullptr || routine == nullptr) {
    return EINVAL;
  }
  return pthread_create(thread, attr, routine, arg);
}

int32_t OsPthreadJoin(pthread_t thread, void** result) { return pthread_join(thread, result); }

int32_t OsPthreadSetName(const char* name) {
  if (name == nullptr) {
    return EINVAL;
  }
  char shortName[16] = {};
  std::strncpy(shortName, name, sizeof(shortName) - 1);
  return pthread_setname_np(pthread_self(), shortName);
}

void OsSleepMs(uint32_t milliseconds) {
  timespec delay{static_cast<time_t>(milliseconds / 1000),
                 static_cast<long>(milliseconds % 1000) * 1000000L};
  while (nanosleep(&delay, &delay) != 0 && errno == EINTR) {
  }
}

void* OsDLibraryOpen(const char* path) {
  return path == nullptr ? nullptr : dlopen(path, RTLD_NOW | RTLD_LOCAL);
}

void* OsDLibrarySym(void* handle, const char* name) {
  return handle == nullptr || name == nullptr ? nullptr : dlsym(handle, name);
}

int32_t OsDLibraryClose(void* handle) { return handle == nullptr ? -1 : dlclose(handle); }

const char* OsDLibraryError() {
  const char* error = dlerror();
  return error != nullptr ? error : "no error";
}

int32_t OsRelPath(const char* path, char* out, uint32_t capacity) {
  if (path == nullptr || out == nullptr || capacity == 0) {
    errno = EINVAL;
    return -1;
  }
  char* resolved = realpath(path, nullptr);
  if (resolved == nullptr) {
    return -1;
  }
  const size_t length = std::strlen(resolved);
  if (length >= capacity) {
    std::free(resolved);
    errno = ENAMETOOLONG;
    return -1;
  }
  std::memcpy(out, resolved, length + 1);
  std::free(resolved);
  return 0;
}
