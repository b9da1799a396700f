// A move-only callable with room for small captures in place, so queuing a frame hand-off
// (a node's shared pointer and a frame pointer) allocates nothing. Larger captures go to
// the heap, like std::function's.
#pragma once

#include <cstddef>
#include <new>
#include <type_traits>
#include <utility>

class PoolTask {
 public:
  static constexpr size_t kInlineSize = 48;

  PoolTask() = default;
  template <class F, class = std::enable_if_t<!std::is_same_v<std::decay_t<F>, PoolTask>>>
  PoolTask(F&& fn) {  // NOLINT(google-explicit-constructor): built from lambdas
    using Fn = std::decay_t<F>;
    if constexpr (sizeof(Fn) <= kInlineSize && alignof(Fn) <= alignof(std::max_align_t) &&
                  std::is_nothrow_move_constructible_v<Fn>) {
      new (m_storage) Fn(std::forward<F>(fn));
      m_ops = &InlineOps<Fn>;
    } else {
      *reinterpret_cast<Fn**>(m_storage) = new Fn(std::forward<F>(fn));
      m_ops = &HeapOps<Fn>;
    }
  }
  PoolTask(PoolTask&& other) noexcept : m_ops(other.m_ops) {
    if (m_ops != nullptr) {
      m_ops->move(m_storage, other.m_storage);
      other.m_ops = nullptr;
    }
  }
  PoolTask& operator=(PoolTask&& other) noexcept {
    if (this != &other) {
      Reset();
      m_ops = other.m_ops;
      if (m_ops != nullptr) {
        m_ops->move(m_storage, other.m_storage);
        other.m_ops = nullptr;
      }
    }
    return *this;
  }
  PoolTask(const PoolTask&) = delete;
  PoolTask& operator=(const PoolTask&) = delete;
  ~PoolTask() { Reset(); }

  explicit operator bool() const { return m_ops != nullptr; }
  void operator()() { m_ops->invoke(m_storage); }
  // Destroys the callable and what it captured.
  void Reset() {
    if (m_ops != nullptr) {
      m_ops->destroy(m_storage);
      m_ops = nullptr;
    }
  }

 private:
  struct Ops {
    void (*invoke)(void*);
    void (*move)(void* to, void* from);  // leaves `from` destroyed
    void (*destroy)(void*);
  };
  template <class Fn>
  static constexpr Ops InlineOps{[](void* s) { (*static_cast<Fn*>(s))(); },
                                 [](void* to, void* from) {
                                   new (to) Fn(std::move(*static_cast<Fn*>(from)));
                                   static_cast<Fn*>(from)->~Fn();
                                 },
                                 [](void* s) { static_cast<Fn*>(s)->~Fn(); }};
  template <class Fn>
  static constexpr Ops HeapOps{
      [](void* s) { (**static_cast<Fn**>(s))(); },
      [](void* to, void* from) { *static_cast<Fn**>(to) = *static_cast<Fn**>(from); },
      [](void* s) { delete *static_cast<Fn**>(s); }};

  alignas(std::max_align_t) unsigned char m_storage[kInlineSize];
  const Ops* m_ops = nullptr;
};
