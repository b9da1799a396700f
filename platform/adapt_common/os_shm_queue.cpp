#include "platform/adapt_common/os_shm_queue.h"

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <set>

namespace {

struct Queue {
  uint32_t depth;
  uint32_t maxBufferSize;
  std::deque<OsShmAdvancedBuffer*> written;
};

struct Queues {
  std::mutex lock;  // guards every member; no callback runs under it
  std::condition_variable written;
  std::map<uint32_t, Queue> byId;
  std::set<OsShmAdvancedBuffer*> allocated;  // every buffer handed out and not freed
};

Queues& GetQueues() {
  static Queues* queues = new Queues;
  return *queues;
}

void FreeBuffer(OsShmAdvancedBuffer* buffer) {
  std::free(buffer->mem);
  delete buffer;
}

}  // namespace

OsShmAdvancedBuffer* OsShmAdvancedMemAllocBuffer(uint32_t queueId, uint32_t flags, uint32_t size) {
  Queues& queues = GetQueues();
  std::lock_guard<std::mutex> lock(queues.lock);
  const auto queue = queues.byId.find(queueId);
  if (queue == queues.byId.end() || flags != 0 || size == 0 || size > queue->second.maxBufferSize) {
    return nullptr;
  }
  void* memory = std::calloc(size, 1);
  auto* buffer = new (std::nothrow) OsShmAdvancedBuffer{memory, 0, size, queueId};
  if (memory == nullptr || buffer == nullptr) {
    std::free(memory);
    delete buffer;
    return nullptr;
  }
  queues.allocated.insert(buffer);
  return buffer;
}

int32_t OsShmAdvancedWriteBulkQueue(uint32_t queueId, OsShmAdvancedBuffer** buffers,
                                    uint32_t count) {
  if (buffers == nullptr || count == 0) {
    return -1;
  }
  Queues& queues = GetQueues();
  {
    std::lock_guard<std::mutex> lock(queues.lock);
    const auto queue = queues.byId.find(queueId);
    if (queue == queues.byId.end() || queue->second.written.size() + count > queue->second.depth) {
      return -1;
    }
    for (uint32_t i = 0; i < count; ++i) {
      OsShmAdvancedBuffer* buffer = buffers[i];
      if (buffer == nullptr || queues.allocated.count(buffer) == 0 || buffer->queueId != queueId ||
          buffer->usedLen > buffer->capacity) {
        return -1;
      }
    }
    for (uint32_t i = 0; i < count; ++i) {
      queue->second.written.push_back(buffers[i]);
    }
  }
  queues.written.notify_all();
  return 0;
}

void OsShmAdvancedMemFreeBuffer(OsShmAdvancedBuffer* buffer) {
  if (buffer == nullptr) {
    return;
  }
  Queues& queues = GetQueues();
  {
    std::lock_guard<std::mutex> lock(queues.lock);
    if (queues.allocated.erase(buffer) == 0) {
      return;  // not ours, or given back twice
    }
    for (auto& [id, queue] : queues.byId) {
      (void)id;
      std::erase(queue.written, buffer);
    }
  }
  FreeBuffer(buffer);
}

int32_t OsShmAdvancedQueueCreate(uint32_t queueId, uint32_t depth, uint32_t maxBufferSize) {
  if (depth == 0 || maxBufferSize == 0) {
    return -1;
  }
  Queues& queues = GetQueues();
  std::lock_guard<std::mutex> lock(queues.lock);
  return queues.byId.emplace(queueId, Queue{depth, maxBufferSize, {}}).second ? 0 : -1;
}

int32_t OsShmAdvancedQueueDestroy(uint32_t queueId) {
  Queues& queues = GetQueues();
  std::deque<OsShmAdvancedBuffer*> dropped;
  {
    std::lock_guard<std::mutex> lock(queues.lock);
    const auto queue = queues.byId.find(queueId);
    if (queue == queues.byId.end()) {
      return -1;
    }
    dropped.swap(queue->second.written);
    queues.byId.erase(queue);
    for (OsShmAdvancedBuffer* buffer : dropped) {
      queues.allocated.erase(buffer);
    }
  }
  for (OsShmAdvancedBuffer* buffer : dropped) {
    FreeBuffer(buffer);
  }
  return 0;
}

uint32_t OsShmAdvancedReadBulkQueue(uint32_t queueId, OsShmAdvancedBuffer** buffers,
                                    uint32_t capacity, uint32_t timeoutMs) {
  if (buffers == nullptr || capacity == 0) {
    return 0;
  }
  Queues& queues = GetQueues();
  std::unique_lock<std::mutex> lock(queues.lock);
  const auto ready = [&] {
    const auto queue = queues.byId.find(queueId);
    return queue == queues.byId.end() || !queue->second.written.empty();
  };
  queues.written.wait_for(lock, std::chrono::milliseconds(timeoutMs), ready);
  const auto queue = queues.byId.find(queueId);
  if (queue == queues.byId.end()) {
    return 0;
  }
  uint32_t taken = 0;
  while (taken < capacity && !queue->second.written.empty()) {
    buffers[taken++] = queue->second.written.front();
    queue->second.written.pop_front();
  }
  return taken;
}
