// The platform's reference-counted video frame, shared by the host and the library.
//
// A host that decodes video creates these objects itself and hands them to the library,
// and the library deletes some of them again, so both sides must see the same class: keep
// the layout and the constructors stable.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

#define OSV_API __attribute__((visibility("default")))

// Pixel format of an OsvGraphicBuffer.
enum TavoVideoVlinkFormat : uint32_t {
  TAVO_VIDEO_VLINK_FORMAT_I420 = 0,
  TAVO_VIDEO_VLINK_FORMAT_ARGB = 12,  // 4 bytes a pixel, B G R A in memory, as X11 delivers it
  TAVO_VIDEO_VLINK_FORMAT_RGB24 = 15,
};

struct OsvGraphicBufferInfo {
  uint32_t width;
  uint32_t height;
  uint32_t stride[3];  // bytes per row of each plane; unused planes 0
  uint32_t size;       // bytes of image data
  uint32_t format;     // TavoVideoVlinkFormat
  uint32_t rotation;   // degrees
  uint32_t mirror;     // non-zero = mirrored
};

// Whoever must hear that the last holder of a buffer let go (usually the producing node).
template <class T>
class OsvReleaseBase {
 public:
  virtual void ReleaseBufferDeal(T* buffer) = 0;
  virtual ~OsvReleaseBase() = default;
};

class OSV_API OsvGraphicBuffer final {
 public:
  using ReleaseTarget = std::shared_ptr<OsvReleaseBase<OsvGraphicBuffer>>;

  // Allocates packed memory for a width x height frame of `format` and describes it.
  // GetBufHandle() is null when the size is zero, the format unknown or memory short.
  // zeroFill clears the memory; alignRows rounds every row up to 64 bytes.
  OsvGraphicBuffer(uint32_t width, uint32_t height, uint32_t format, bool zeroFill = false,
                   bool alignRows = false);
  // Wraps memory owned by somebody else (the buffer never frees it); describe it with
  // SetImageInfo and SetImageAddr.
  explicit OsvGraphicBuffer(void* handle);
  ~OsvGraphicBuffer();

  OsvGraphicBuffer(const OsvGraphicBuffer&) = delete;
  OsvGraphicBuffer& operator=(const OsvGraphicBuffer&) = delete;

  // A new buffer has no holder. Each holder adds one reference; the holder that drops the
  // last one makes the buffer call ReleaseBufferDeal on its release target, on that
  // holder's thread. Both return the new count; DecreaseRef returns -1, changes nothing,
  // logs an error and counts the fault (GetUnderflowCount) when there was no reference to
  // drop: a double release is a bug somewhere and must be seen.
  int32_t IncreaseRef();
  int32_t DecreaseRef();
  static uint64_t GetUnderflowCount();
  uint32_t GetRefCount() const { return m_refCount.load(std::memory_order_acquire); }
  // True when nobody holds the buffer: a pooled buffer may be reused.
  bool IsAvailable() const { return GetRefCount() == 0; }

  // The target is kept (and kept alive) until it is replaced or the buffer is destroyed.
  void SetReleaseTarget(ReleaseTarget target);

  OsvGraphicBufferInfo GetImageInfo() const { return m_info; }
  void SetImageInfo(const OsvGraphicBufferInfo& info) { m_info = info; }
  // Sets the three plane addresses. Fails (-1, nothing changed) when y is null or, for a
  // buffer with a handle and a known size, a given plane lies outside that memory.
  int32_t SetImageAddr(uint8_t* y, uint8_t* u, uint8_t* v);
  uint8_t* GetImageAddr(uint32_t plane) const { return plane < 3 ? m_planes[plane] : nullptr; }
  // The memory the buffer was created over (own or foreign).
  void* GetBufHandle() const { return m_handle; }

  void SetSrcImgNo(uint32_t imgNo) { m_srcImgNo = imgNo; }
  uint32_t GetSrcImgNo() const { return m_srcImgNo; }

 private:
  OsvGraphicBufferInfo m_info{};
  uint8_t* m_planes[3]{};
  void* m_handle = nullptr;
  bool m_ownsMemory = false;
  std::atomic<uint32_t> m_refCount{0};
  uint32_t m_srcImgNo = 0;
  std::mutex m_targetLock;  // guards m_releaseTarget
  ReleaseTarget m_releaseTarget;
};
