// Named tables of named values shared by the host and the library.
//
// The host gets a container by name with TavoVideoGetDataContainer and fills it with the
// inline operations below; the library reads it. Both sides compile this class, so its
// fields must stay as they are.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "pelv_any.h"
#include "tavo_video_vlink_trace.h"  // TAVO_VLINK_API

class DataContainer {
 public:
  // Gets the container registered under name, creating an empty one if there is none.
  static std::shared_ptr<DataContainer> GetInstance(const std::string& name);
  // Removes name from the directory: 0 when it was there, 1 when not. The container goes
  // when its last shared pointer does.
  static uint32_t ReleaseInstance(const std::string& name);

  // Stores value under key, replacing what was there. 0.
  template <class T>
  int SetDataByString(const std::string& key, const T& value) {
    std::lock_guard<std::mutex> lock(m_lock);
    m_dataTable[key] = PelvAny(value);
    return 0;
  }

  // 0 and the value in out; 1 and out untouched when the key is absent or holds a value of
  // another type (a signed or 64-bit number is not an unsigned 32-bit one).
  template <class T>
  int GetDataByString(const std::string& key, T& out) {
    std::lock_guard<std::mutex> lock(m_lock);
    auto it = m_dataTable.find(key);
    if (it == m_dataTable.end()) {
      return 1;
    }
    const T* value = AnyCast<T>(&it->second);
    if (value == nullptr) {
      return 1;
    }
    out = *value;
    return 0;
  }

  // 0 when the key was there, 1 when not.
  int EraseDataByString(const std::string& key) {
    std::lock_guard<std::mutex> lock(m_lock);
    return m_dataTable.erase(key) != 0 ? 0 : 1;
  }

 private:
  std::map<std::string, PelvAny> m_dataTable;  // guarded by m_lock
  std::mutex m_lock;

  static std::map<std::string, std::shared_ptr<DataContainer>> m_dataContainerTable;
  static std::mutex m_classLock;  // guards m_dataContainerTable; no host callback under it
};

// Logs "nodeName[%s]" and gets or creates the container. The pointer stays valid until
// the host releases the name. Null for a null name.
TAVO_VLINK_API DataContainer* TavoVideoGetDataContainer(const char* name);
// 0 when the name was registered, 1 (and an error log) when not.
TAVO_VLINK_API uint32_t TavoVideoReleaseDataContainer(const char* name);
