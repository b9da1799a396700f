// A test fixture that loads the built library as a host does: dlopen and dlsym only.
#pragma once

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdint>

#include "tests/support/table_rows.h"

class LoadedLibraryTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    s_library = dlopen(VLINK_LIBRARY_PATH, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(s_library, nullptr) << dlerror();
  }
  template <class F>
  static F* Symbol(const char* name) {
    return ::Symbol<F>(s_library, name);
  }
  static inline void* s_library = nullptr;
};
