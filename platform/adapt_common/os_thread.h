// Thread, sleep and dynamic-loading services of the platform's OS libraries.
#pragma once

#include <pthread.h>

#include <cstdint>

#include "osv_graphic_buffer.h"  // OSV_API

extern "C" {
// 0 on success, else the pthread error code.
OSV_API int32_t OsPthreadCreate(pthread_t* thread, const pthread_attr_t* attr,
                                void* (*routine)(void*), void* arg);
OSV_API int32_t OsPthreadJoin(pthread_t thread, void** result);
// Names the calling thread; longer names are cut to the kernel's 15 characters.
OSV_API int32_t OsPthreadSetName(const char* name);
OSV_API void OsSleepMs(uint32_t milliseconds);

// dlopen with RTLD_NOW | RTLD_LOCAL; null on failure, with the reason in OsDLibraryError.
OSV_API void* OsDLibraryOpen(const char* path);
OSV_API void* OsDLibrarySym(void* handle, const char* name);
OSV_API int32_t OsDLibraryClose(void* handle);
OSV_API const char* OsDLibraryError();
}

extern "C" {
// Writes the canonical absolute path of an existing file into out (capacity bytes).
// Non-zero on failure, with errno set.
OSV_API int32_t OsRelPath(const char* path, char* out, uint32_t capacity);
}
