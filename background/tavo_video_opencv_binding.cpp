#include "background/tavo_video_opencv_binding.h"

#include <vector>

#include "core/tavo_video_os_seams.h"

namespace {

constexpr const char* kWrapperLibrary = "libtavo_video_opencv_wrapper.so";

// Lock order: taken alone; the loader seam is called under it, nothing else.
std::mutex g_bindLock;  // guards g_handle, g_slots and the resolution of every address
void* g_handle = nullptr;
std::vector<std::atomic<void*>*>& Slots() {
  static std::vector<std::atomic<void*>*> slots;  // guarded by g_bindLock
  return slots;
}

void* OpenLocked() {
  if (g_handle == nullptr) {
    g_handle = Seam<DynamicLoader>::Get().Open(ReplaceLibSuffix(kWrapperLibrary).c_str());
  }
  return g_handle;
}

}  // namespace

std::string ReplaceLibSuffix(const std::string& name) { return name; }

void* GetOpencvHandle() {
  std::lock_guard<std::mutex> lock(g_bindLock);
  return OpenLocked();
}

void ResetOpencvBinding() {
  std::lock_guard<std::mutex> lock(g_bindLock);
  for (std::atomic<void*>* slot : Slots()) {
    slot->store(nullptr, std::memory_order_release);
  }
  if (g_handle != nullptr) {
    Seam<DynamicLoader>::Get().Close(g_handle);
    g_handle = nullptr;
  }
}

bool OpencvWrapperUsable(std::string* missing) {
  std::lock_guard<std::mutex> lock(g_bindLock);
  void* handle = OpenLocked();
  if (handle == nullptr) {
    if (missing != nullptr) {
      *missing = Seam<DynamicLoader>::Get().Error();
    }
    return false;
  }
  for (const char* name : cvbind::kWrapperFunctionNames) {
    if (Seam<DynamicLoader>::Get().Symbol(handle, name) == nullptr) {
      if (missing != nullptr) {
        *missing = name;
      }
      return false;
    }
  }
  return true;
}

namespace cvbind {

const char* const kWrapperFunctionNames[40] = {"CMatCreateEmpty",
                                               "CMatDestroy",
                                               "CImread",
                                               "C_IMREAD_COLOR",
                                               "CMatEmpty",
                                               "CSizeCreate",
                                               "CSizeDestroy",
                                               "CResize",
                                               "CMatRows",
                                               "CMatCols",
                                               "CMatData",
                                               "CMatCreate",
                                               "CMatCreateFromData",
                                               "CMatCreateFromDataStep",
                                               "CMatCreateFromScalar",
                                               "CScalarCreate",
                                               "CScalarDestroy",
                                               "CPoint2fCreate",
                                               "CPoint2fDestroy",
                                               "CRectCreate",
                                               "CRectDestroy",
                                               "CMatStep",
                                               "CMatChannels",
                                               "CMatConvertTo",
                                               "CMatPow",
                                               "CMatMultiplyScalar",
                                               "CMatCopy",
                                               "CMatCopyData",
                                               "CGetRotationMatrix2d",
                                               "CWarpAffine",
                                               "CImwrite",
                                               "CMatGetRoi",
                                               "CGaussianBlur",
                                               "CFlip",
                                               "C_CV_8UC1",
                                               "C_CV_8UC3",
                                               "C_CV_8UC4",
                                               "C_CV_32F",
                                               "C_CV_32FC1",
                                               "C_INTER_LINEAR"};

void* ResolveWrapperSymbol(const char* name, std::atomic<void*>* slot) {
  std::lock_guard<std::mutex> lock(g_bindLock);
  void* address = slot->load(std::memory_order_acquire);
  if (address != nullptr) {
    return address;  // another thread resolved it while this one waited
  }
  void* handle = OpenLocked();
  address = handle == nullptr ? nullptr : Seam<DynamicLoader>::Get().Symbol(handle, name);
  slot->store(address, std::memory_order_release);
  return address;
}

void RegisterWrapperSlot(std::atomic<void*>* slot) {
  std::lock_guard<std::mutex> lock(g_bindLock);
  Slots().push_back(slot);
}

}  // namespace cvbind
