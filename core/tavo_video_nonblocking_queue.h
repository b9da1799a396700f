// A FIFO with two sides: producers push to one, consumers pop from the other, and the
// sides swap only when the popping side has run dry, so producers and consumers take
// different locks almost always.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

// A FIFO on one growing ring: once it has grown to the deepest queue seen, pushing and
// popping allocate nothing (a deque would allocate a block every few items).
template <class T>
class NonblockingFifo {
 public:
  bool empty() const { return m_size == 0; }
  size_t size() const { return m_size; }
  T& front() { return m_items[m_head]; }
  void push_back(T&& item) {
    if (m_size == m_items.size()) {
      Grow();
    }
    m_items[(m_head + m_size) & (m_items.size() - 1)] = std::move(item);
    ++m_size;
  }
  // The popped slot is left moved-from, so what the item held is let go with it.
  void pop_front() {
    [[maybe_unused]] T gone(std::move(m_items[m_head]));
    // Emptied, it starts again at the first slot: a queue that rarely holds more than a
    // few items keeps using the same few, still in the cache, instead of walking the ring.
    m_head = --m_size == 0 ? 0 : (m_head + 1) & (m_items.size() - 1);
  }

 private:
  void Grow() {
    std::vector<T> items(m_items.empty() ? kFirstCapacity : m_items.size() * 2);
    for (size_t i = 0; i < m_size; ++i) {
      items[i] = std::move(m_items[(m_head + i) & (m_items.size() - 1)]);
    }
    m_items.swap(items);
    m_head = 0;
  }

  static constexpr size_t kFirstCapacity = 64;  // a power of two, as every later size
  std::vector<T> m_items;
  size_t m_head = 0;
  size_t m_size = 0;
};

template <class T>
class NonblockingQueueProducer {
 public:
  explicit NonblockingQueueProducer(std::shared_ptr<NonblockingFifo<T>> fifo)
      : m_fifo(std::move(fifo)) {}
  virtual ~NonblockingQueueProducer() = default;

  // True when the FIFO holds exactly this one item now.
  bool Push(T&& item) {
    return PushEach(1, [&item](size_t) -> T&& { return std::move(item); });
  }
  // Pushes make(0) to make(count - 1) (each a T or a T&&) under one hold of the lock; true
  // when the FIFO was empty before.
  template <class Make>
  bool PushEach(size_t count, Make&& make) {
    std::lock_guard<std::mutex> lock(m_lock);
    const bool wasEmpty = m_fifo->empty();
    for (size_t i = 0; i < count; ++i) {
      m_fifo->push_back(make(i));
    }
    return wasEmpty && count != 0;
  }
  bool IsEmpty() {
    std::lock_guard<std::mutex> lock(m_lock);
    return m_fifo->empty();
  }

 private:
  std::shared_ptr<NonblockingFifo<T>> m_fifo;
  std::mutex m_lock;  // guards *m_fifo on the producing side; no task runs under it
};

template <class T>
class NonblockingQueueConsumer {
 public:
  explicit NonblockingQueueConsumer(std::shared_ptr<NonblockingFifo<T>> fifo)
      : m_fifo(std::move(fifo)) {}
  virtual ~NonblockingQueueConsumer() = default;

  std::optional<T> Pop() {
    std::lock_guard<std::mutex> lock(m_lock);
    if (m_fifo->empty()) {
      return std::nullopt;
    }
    std::optional<T> item(std::move(m_fifo->front()));
    m_fifo->pop_front();
    return item;
  }
  bool IsEmpty() {
    std::lock_guard<std::mutex> lock(m_lock);
    return m_fifo->empty();
  }

 private:
  std::shared_ptr<NonblockingFifo<T>> m_fifo;
  std::mutex m_lock;  // guards *m_fifo on the consuming side; no task runs under it
};

template <class T>
struct NonblockingQueue {
  std::shared_ptr<NonblockingFifo<T>> fifo = std::make_shared<NonblockingFifo<T>>();
  NonblockingQueueProducer<T> producer{fifo};
  NonblockingQueueConsumer<T> consumer{fifo};
};

// Lock order: consumer lock, then producer lock. A side is never written and read at
// once: pushes go to the write side, pops come from the other, and the write index flips
// only while both locks are held.
template <class T>
class DuelNonblockingQueue {
 public:
  DuelNonblockingQueue() = default;
  virtual ~DuelNonblockingQueue() = default;
  DuelNonblockingQueue(const DuelNonblockingQueue&) = delete;
  DuelNonblockingQueue& operator=(const DuelNonblockingQueue&) = delete;

  void Push(T&& item) {
    PushEach(1, [&item](size_t) -> T&& { return std::move(item); });
  }
  // Push of make(0) to make(count - 1), in that order, under one hold of each lock: a
  // frame's tasks for all of its receivers.
  template <class Make>
  void PushEach(size_t count, Make&& make) {
    std::lock_guard<std::mutex> lock(m_producerLock);
    if (m_sides[WriteIndex()].producer.PushEach(count, std::forward<Make>(make))) {
      m_newData.store(true, std::memory_order_release);
    }
  }

  std::optional<T> Pop() {
    std::lock_guard<std::mutex> consumerLock(m_consumerLock);
    if (std::optional<T> item = m_sides[ReadIndex()].consumer.Pop()) {
      return item;
    }
    {
      std::lock_guard<std::mutex> producerLock(m_producerLock);
      if (m_newData.exchange(false, std::memory_order_acq_rel)) {
        Switch(false);
      }
    }
    return m_sides[ReadIndex()].consumer.Pop();
  }

  bool IsEmpty() {
    std::lock_guard<std::mutex> consumerLock(m_consumerLock);
    if (!m_sides[ReadIndex()].consumer.IsEmpty()) {
      return false;
    }
    std::lock_guard<std::mutex> producerLock(m_producerLock);
    return m_sides[WriteIndex()].producer.IsEmpty();
  }

  // Flips the write side; without force only while switching is enabled. Callers hold
  // both locks.
  void Switch(bool force) {
    if (!m_switchEnabled.load(std::memory_order_acquire) && !force) {
      return;
    }
    m_writeIndex.store(static_cast<uint8_t>(1U - WriteIndex()), std::memory_order_release);
  }

  uint8_t WriteIndex() const { return m_writeIndex.load(std::memory_order_acquire); }

 private:
  uint8_t ReadIndex() const { return static_cast<uint8_t>(1U - WriteIndex()); }

  std::array<NonblockingQueue<T>, 2> m_sides;
  std::atomic<uint8_t> m_writeIndex{0};
  std::atomic<bool> m_newData{false};  // the write side went from empty to non-empty
  std::atomic<bool> m_switchEnabled{true};
  std::mutex m_producerLock;  // held by Push, and by a consumer that swaps or inspects
  std::mutex m_consumerLock;  // held by Pop and IsEmpty
};
