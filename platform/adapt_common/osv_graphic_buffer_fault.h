// Frame memory that cannot be had, on demand: a loaded system runs short of memory at any
// frame, and every producer must survive it. Tests set a filter; production code never does.
#pragma once

#include <cstdint>

// Asked before a buffer allocates its own memory; false makes the constructor act as if the
// allocation failed (GetBufHandle() null). Null (the default) lets every allocation through.
using OsvAllocationFilter = bool (*)(uint64_t bytes);

__attribute__((visibility("default"))) void OsvSetAllocationFilter(OsvAllocationFilter filter);

// For the platform's own frame memory (buffers, decoded image files): false when the filter
// in force refuses `bytes`. Not exported.
bool OsvAllocationAllowed(uint64_t bytes);
