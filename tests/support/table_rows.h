// Reaching the built library as a host does: a symbol by name, a component table's row.
#pragma once

#include <dlfcn.h>

#include <cstdint>

template <class F>
F* Symbol(void* library, const char* name) {
  return reinterpret_cast<F*>(dlsym(library, name));
}

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
