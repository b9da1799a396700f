// Run-time binding of the image-operations wrapper "libtavo_video_opencv_wrapper.so": one
// process-wide function object per wrapper function, which finds the function by name on
// its first call and forwards every call to it. The video library never links OpenCV.
//
// A call whose library or function cannot be found does not jump anywhere: it returns the
// object's fallback (null handles, 0, and true for CMatEmpty, so an unusable wrapper looks
// like an empty image) and is resolved again on the next call.
#pragma once

#include <atomic>
#include <mutex>
#include <string>
#include <type_traits>
#include <variant>

#include "platform/opencv_wrapper/tavo_video_opencv_wrapper.h"

// The cached handle of the wrapper library, opened through the DynamicLoader seam; null
// when it cannot be opened (tried again on the next call).
void* GetOpencvHandle();
// The name as this platform spells it (unchanged on Linux).
std::string ReplaceLibSuffix(const std::string& name);
// True when the library opens and every wrapper function resolves; else `missing` (if
// given) says what is not there.
bool OpencvWrapperUsable(std::string* missing = nullptr);
// Forgets the library handle and every resolved address (closing the library through the
// loader), so the next call binds afresh; for tests that swap the loader.
void ResetOpencvBinding();

namespace cvbind {

// Resolution shared by every function object: stores the address in `slot` under the
// binding lock (so a reset never races a late store) and returns it, or null.
void* ResolveWrapperSymbol(const char* name, std::atomic<void*>* slot);
// Every function object registers its cached address here so ResetOpencvBinding finds it.
void RegisterWrapperSlot(std::atomic<void*>* slot);

template <class Signature>
class CVCall;

template <class R, class... Args>
class CVCall<R(Args...)> {
  using Fallback = std::conditional_t<std::is_void_v<R>, std::monostate, R>;

 public:
  explicit CVCall(const char* name, Fallback fallback = Fallback{})
      : m_name(name), m_fallback(fallback) {
    RegisterWrapperSlot(&m_address);
  }
  CVCall(const CVCall&) = delete;
  CVCall& operator=(const CVCall&) = delete;

  R operator()(Args... args) const {
    void* address = m_address.load(std::memory_order_acquire);
    if (address == nullptr) {
      address = ResolveWrapperSymbol(m_name, &m_address);
      if (address == nullptr) {
        if constexpr (std::is_void_v<R>) {
          return;
        } else {
          return m_fallback;
        }
      }
    }
    return reinterpret_cast<R (*)(Args...)>(address)(args...);
  }
  const char* Name() const { return m_name; }

 private:
  const char* m_name;
  Fallback m_fallback;
  mutable std::atomic<void*> m_address{nullptr};
};

#define CVBIND_FUNCTION(name, ...) \
  inline CVCall<decltype(::name)> name{#name __VA_OPT__(, ) __VA_ARGS__};
CVBIND_FUNCTION(CMatCreateEmpty)
CVBIND_FUNCTION(CMatDestroy)
CVBIND_FUNCTION(CImread)
CVBIND_FUNCTION(C_IMREAD_COLOR)
CVBIND_FUNCTION(CMatEmpty, true)
CVBIND_FUNCTION(CSizeCreate)
CVBIND_FUNCTION(CSizeDestroy)
CVBIND_FUNCTION(CResize)
CVBIND_FUNCTION(CMatRows)
CVBIND_FUNCTION(CMatCols)
CVBIND_FUNCTION(CMatData)
CVBIND_FUNCTION(CMatCreate)
CVBIND_FUNCTION(CMatCreateFromData)
CVBIND_FUNCTION(CMatCreateFromDataStep)
CVBIND_FUNCTION(CMatCreateFromScalar)
CVBIND_FUNCTION(CScalarCreate)
CVBIND_FUNCTION(CScalarDestroy)
CVBIND_FUNCTION(CPoint2fCreate)
CVBIND_FUNCTION(CPoint2fDestroy)
CVBIND_FUNCTION(CRectCreate)
CVBIND_FUNCTION(CRectDestroy)
CVBIND_FUNCTION(CMatStep)
CVBIND_FUNCTION(CMatChannels)
CVBIND_FUNCTION(CMatConvertTo)
CVBIND_FUNCTION(CMatPow)
CVBIND_FUNCTION(CMatMultiplyScalar)
CVBIND_FUNCTION(CMatCopy)
CVBIND_FUNCTION(CMatCopyData)
CVBIND_FUNCTION(CGetRotationMatrix2d)
CVBIND_FUNCTION(CWarpAffine)
CVBIND_FUNCTION(CImwrite)
CVBIND_FUNCTION(CMatGetRoi)
CVBIND_FUNCTION(CGaussianBlur)
CVBIND_FUNCTION(CFlip)
CVBIND_FUNCTION(C_CV_8UC1)
CVBIND_FUNCTION(C_CV_8UC3)
CVBIND_FUNCTION(C_CV_8UC4)
CVBIND_FUNCTION(C_CV_32F)
CVBIND_FUNCTION(C_CV_32FC1)
CVBIND_FUNCTION(C_INTER_LINEAR)
#undef CVBIND_FUNCTION

// The names of all 40 functions, in the order above.
extern const char* const kWrapperFunctionNames[40];

}  // namespace cvbind
