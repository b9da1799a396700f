// A test fixture that loads the built library as a host does: dlopen and dlsym only.
#pragma once

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdint>

class LoadedLibraryTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    s_library = dlopen(VLINK_LIBRARY_PATH, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(s_library, nullptr) << dlerror();
  }
  template <class F>
  static F* Symbol(const char* name) {
    return reinterpret_cast<F*>(dlsym(s_library, name));
  }
  static inline void* s_library = nullptr;
};

// The function of a component table's row for (type, srcType); null when there is none.
template <class Row>
auto Find(const Row* table, uint32_t count, uint32_t type, uint32_t srcType = 0)
    -> decltype(table->func) {
  for (uint32_t i = 0; i < count; ++i) {
    if (table[i].type == type && table[i].srcType == srcType) {
      return table[i].func;
    }
  }
  return nullptr;
}
