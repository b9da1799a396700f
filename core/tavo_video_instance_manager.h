// The process-wide registry that owns every live node, keyed by node id.
#pragma once

#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <type_traits>
#include <unordered_map>
#include <utility>
#include <vector>

#include "pelv_any.h"

template <class Base>
class InstanceManager {
 public:
  // Key (the id as an unsigned 32-bit PelvAny) -> (type code of the creating class, node).
  using Entry = std::pair<PelvAny, std::pair<uint64_t, std::shared_ptr<Base>>>;
  using EntryList = std::list<Entry>;

  static InstanceManager& GetInstanceManager() {
    static InstanceManager manager;
    return manager;
  }

  InstanceManager() = default;
  InstanceManager(const InstanceManager&) = delete;
  InstanceManager& operator=(const InstanceManager&) = delete;

  // Nodes still registered at exit are destroyed after the lock is released: their
  // destructors wait for pool tasks that may themselves look nodes up.
  ~InstanceManager() {
    std::unordered_map<uint64_t, EntryList> table;
    {
      std::lock_guard<std::mutex> lock(m_lock);
      table.swap(m_table);
    }
    table.clear();
    std::lock_guard<std::mutex> lock(m_lock);
    m_count = 0;
  }

  // Creates a T(arg) under `key` unless the key is taken. A key taken by a T gives that
  // node back; a key taken by another class gives nothing. T's constructor runs under the
  // registry lock and must not call back into the registry.
  template <class T>
  std::optional<std::shared_ptr<Base>> CreateInstance(uint32_t& key, uint32_t& arg) {
    std::lock_guard<std::mutex> lock(m_lock);
    EntryList& list = m_table[Hash(key)];
    if (Entry* entry = Find(list, key)) {
      if (entry->second.first == PelvTypeInfo::HashCode<T>()) {
        return entry->second.second;
      }
      return std::nullopt;
    }
    std::shared_ptr<Base> node(static_cast<Base*>(new T(arg)), [](Base* p) { delete p; });
    list.emplace_back(PelvAny(key), std::make_pair(PelvTypeInfo::HashCode<T>(), node));
    ++m_count;
    return node;
  }

  // The node under key as a T: any node when T is the base class, otherwise only a node
  // created as a T, so that a node is never used as a class it is not.
  template <class T>
  std::optional<std::shared_ptr<T>> GetInstance(uint32_t key) {
    std::lock_guard<std::mutex> lock(m_lock);
    auto slot = m_table.find(Hash(key));
    if (slot == m_table.end()) {
      return std::nullopt;
    }
    Entry* entry = Find(slot->second, key);
    if (entry == nullptr || !entry->second.second) {
      return std::nullopt;
    }
    if constexpr (!std::is_same_v<T, Base>) {
      if (entry->second.first != PelvTypeInfo::HashCode<T>()) {
        return std::nullopt;
      }
    }
    return std::static_pointer_cast<T>(entry->second.second);
  }

  // 0 when an entry was erased, 1 when none was found. The node itself goes when its last
  // holder lets go, never under the registry lock.
  // With `only`, the entry is erased only while it still holds that node: one created
  // under the key meanwhile stays.
  int DeleteInstance(uint32_t key, const std::shared_ptr<Base>& only = nullptr) {
    EntryList erased;
    std::lock_guard<std::mutex> lock(m_lock);
    auto slot = m_table.find(Hash(key));
    if (slot == m_table.end()) {
      return 1;
    }
    if (only) {
      Entry* entry = Find(slot->second, key);
      if (entry == nullptr || entry->second.second != only) {
        return 1;
      }
    }
    return EraseKeyInList(key, slot->second, erased);
  }

  // Empties the registry and gives its nodes to the caller, who lets them go.
  std::vector<std::shared_ptr<Base>> TakeAll() {
    std::vector<std::shared_ptr<Base>> nodes;
    std::lock_guard<std::mutex> lock(m_lock);
    for (auto& [hash, list] : m_table) {
      for (Entry& entry : list) {
        nodes.push_back(std::move(entry.second.second));
      }
    }
    m_table.clear();
    m_count = 0;
    return nodes;
  }

  uint64_t GetCount() {
    std::lock_guard<std::mutex> lock(m_lock);
    return m_count;
  }

 private:
  static uint64_t Hash(uint32_t key) { return key; }

  static Entry* Find(EntryList& list, uint32_t key) {
    for (Entry& entry : list) {
      if (AnyCast<uint32_t>(entry.first) == key) {
        return &entry;
      }
    }
    return nullptr;
  }

  // Moves the first entry with key into `erased`; called with the lock held. `erased` is
  // declared before the lock by the caller, so the node is released after unlocking.
  int EraseKeyInList(uint32_t key, EntryList& list, EntryList& erased) {
    for (auto it = list.begin(); it != list.end(); ++it) {
      if (AnyCast<uint32_t>(it->first) == key) {
        erased.splice(erased.end(), list, it);
        --m_count;
        return 0;
      }
    }
    return 1;
  }

  std::unordered_map<uint64_t, EntryList> m_table;  // guarded by m_lock
  // Guards m_table and m_count. Node constructors run under it (they must not call back
  // into the registry); no host callback does, and no frame is queued under it.
  std::mutex m_lock;
  uint64_t m_count = 0;
};
