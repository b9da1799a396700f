// The host's shared-memory queue: the writer side the library uses to hand pictures to the
// host (screen snapshots), and the reader side a host program or a test uses to take them.
// This stand-in keeps the queues in the process that loads the platform library: a queue
// exists from OsShmAdvancedQueueCreate to OsShmAdvancedQueueDestroy, holds at most `depth`
// written buffers, and hands them to its reader in the order they were written.
#pragma once

#include <cstdint>

#include "osv_graphic_buffer.h"  // OSV_API

extern "C" {
// One buffer of a queue. `mem` holds `capacity` bytes; the writer sets `usedLen` before
// queueing it.
struct OsShmAdvancedBuffer {
  void* mem;
  uint32_t usedLen;
  uint32_t capacity;
  uint32_t queueId;
};

// Writer side.
// A buffer of `size` bytes (zeroed) for the queue, or null when the queue does not exist,
// `size` is 0 or above the queue's limit, or memory is short. `flags` must be 0.
OSV_API OsShmAdvancedBuffer* OsShmAdvancedMemAllocBuffer(uint32_t queueId, uint32_t flags,
                                                         uint32_t size);
// Queues `count` buffers of that queue, in order, to its reader. 0 on success; non-zero
// (nothing queued) when the queue is gone or full, or a buffer is null, foreign or has a
// used length beyond its capacity. Queued buffers belong to the reader.
OSV_API int32_t OsShmAdvancedWriteBulkQueue(uint32_t queueId, OsShmAdvancedBuffer** buffers,
                                            uint32_t count);
// Gives back a buffer that was not queued, or one the reader is done with. Null is ignored.
OSV_API void OsShmAdvancedMemFreeBuffer(OsShmAdvancedBuffer* buffer);

// Reader side.
// Creates queue `queueId` holding up to `depth` buffers of at most `maxBufferSize` bytes.
// 0 on success, non-zero when it exists already or an argument is 0.
OSV_API int32_t OsShmAdvancedQueueCreate(uint32_t queueId, uint32_t depth, uint32_t maxBufferSize);
// Removes the queue and frees the buffers still queued. Buffers allocated and not yet
// queued stay valid until given back. 0, or non-zero for an unknown queue.
OSV_API int32_t OsShmAdvancedQueueDestroy(uint32_t queueId);
// Takes up to `capacity` queued buffers, oldest first, waiting up to `timeoutMs` for the
// first one. Returns how many were taken (0 on timeout or for an unknown queue); the reader
// gives each back with OsShmAdvancedMemFreeBuffer.
OSV_API uint32_t OsShmAdvancedReadBulkQueue(uint32_t queueId, OsShmAdvancedBuffer** buffers,
                                            uint32_t capacity, uint32_t timeoutMs);
}
