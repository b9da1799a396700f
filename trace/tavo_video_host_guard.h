// No exception crosses the library boundary. Every exported function and every component
// table row is written as a function-try-block ending in VLINK_HOST_CATCH(code): whatever
// escaped its body (thread creation, allocation, containers) is logged and answered with
// the documented failure code.
#pragma once

namespace vlink {
// Logs the exception being handled; call only from a catch clause.
void LogHostCallException(const char* function) noexcept;
}  // namespace vlink

#define VLINK_HOST_CATCH(code)               \
  catch (...) {                              \
    ::vlink::LogHostCallException(__func__); \
    return code;                             \
  }
