#include "osv_graphic_buffer.h"

#include <cstdlib>
#include <cstring>

#include "platform/adapt_common/om_log.h"
#include "platform/adapt_common/osv_graphic_buffer_fault.h"

namespace {

std::atomic<OsvAllocationFilter> g_allocationFilter{nullptr};

constexpr uint32_t kRowAlignment = 64;

uint32_t AlignUp(uint64_t value, uint32_t alignment) {
  return static_cast<uint32_t>((value + alignment - 1) / alignment * alignment);
}

bool Inside(const uint8_t* p, const uint8_t* begin, uint32_t size) {
  return p >= begin && p < begin + size;
}

}  // namespace

OsvGraphicBuffer::OsvGraphicBuffer(uint32_t width, uint32_t height, uint32_t format, bool zeroFill,
                                   bool alignRows) {
  m_info.width = width;
  m_info.height = height;
  m_info.format = format;
  uint32_t bytesPerPixel = 0;
  switch (format) {
    case TAVO_VIDEO_VLINK_FORMAT_I420:
      bytesPerPixel = 1;
      break;
    case TAVO_VIDEO_VLINK_FORMAT_ARGB:
      bytesPerPixel = 4;
      break;
    case TAVO_VIDEO_VLINK_FORMAT_RGB24:
      bytesPerPixel = 3;
      break;
    default:
      return;
  }
  // Frames beyond 16384 pixels a side are not video; refusing them keeps sizes in 32 bits.
  if (width == 0 || height == 0 || width > 16384 || height > 16384) {
    return;
  }
  const uint32_t align = alignRows ? kRowAlignment : 1;
  uint64_t planeSize[3] = {};
  m_info.stride[0] = AlignUp(uint64_t{width} * bytesPerPixel, align);
  planeSize[0] = uint64_t{m_info.stride[0]} * height;
  if (format == TAVO_VIDEO_VLINK_FORMAT_I420) {
    const uint32_t chromaWidth = (width + 1) / 2;
    const uint32_t chromaHeight = (height + 1) / 2;
    m_info.stride[1] = m_info.stride[2] = AlignUp(chromaWidth, align);
    planeSize[1] = planeSize[2] = uint64_t{m_info.stride[1]} * chromaHeight;
  }
  const uint64_t total = planeSize[0] + planeSize[1] + planeSize[2];
  auto* memory =
      OsvAllocationAllowed(total)
          ? static_cast<uint8_t*>(std::aligned_alloc(kRowAlignment, AlignUp(total, kRowAlignment)))
          : nullptr;
  if (memory == nullptr) {
    m_info = {};
    return;
  }
  if (zeroFill) {
    std::memset(memory, 0, total);
  }
  m_handle = memory;
  m_ownsMemory = true;
  m_info.size = static_cast<uint32_t>(total);
  m_planes[0] = memory;
  if (planeSize[1] != 0) {
    m_planes[1] = memory + planeSize[0];
    m_planes[2] = m_planes[1] + planeSize[1];
  }
}

void OsvSetAllocationFilter(OsvAllocationFilter filter) {
  g_allocationFilter.store(filter, std::memory_order_release);
}

bool OsvAllocationAllowed(uint64_t bytes) {
  const OsvAllocationFilter filter = g_allocationFilter.load(std::memory_order_acquire);
  return filter == nullptr || filter(bytes);
}

OsvGraphicBuffer::OsvGraphicBuffer(void* handle) : m_handle(handle) {}

OsvGraphicBuffer::~OsvGraphicBuffer() {
  if (m_ownsMemory) {
    std::free(m_handle);
  }
}

namespace {
std::atomic<uint64_t> g_underflows{0};
}  // namespace

uint64_t OsvGraphicBuffer::GetUnderflowCount() {
  return g_underflows.load(std::memory_order_relaxed);
}

int32_t OsvGraphicBuffer::IncreaseRef() {
  return static_cast<int32_t>(m_refCount.fetch_add(1, std::memory_order_acq_rel) + 1);
}

int32_t OsvGraphicBuffer::DecreaseRef() {
  // Read before the last reference goes: a pooled buffer is free, and may be reused or
  // destroyed by its owner, the moment the count reaches 0, so no member is touched after.
  ReleaseTarget target;
  bool targetRead = false;
  uint32_t count = m_refCount.load(std::memory_order_acquire);
  do {
    if (count == 0) {
      // An unbalanced release must not call the target twice, and must not go unnoticed.
      const uint64_t seen = g_underflows.fetch_add(1, std::memory_order_relaxed) + 1;
      TavoOmLogModuleLogRecord(1, TavoVideoGetPrivateLogId(0) & 0xFFFFU, __FILE_NAME__,
                               sizeof(__FILE_NAME__) - 1, __LINE__,
                               "buffer[%p] released with no reference left (%llu so far)!",
                               static_cast<void*>(this), static_cast<unsigned long long>(seen));
      return -1;
    }
    if (count == 1 && !targetRead) {
      std::lock_guard<std::mutex> lock(m_targetLock);
      target = m_releaseTarget;
      targetRead = true;
    }
  } while (!m_refCount.compare_exchange_weak(count, count - 1, std::memory_order_acq_rel));
  if (count != 1) {
    return static_cast<int32_t>(count - 1);
  }
  // The target may destroy this buffer.
  if (target) {
    target->ReleaseBufferDeal(this);
  }
  return 0;
}

void OsvGraphicBuffer::SetReleaseTarget(ReleaseTarget target) {
  std::lock_guard<std::mutex> lock(m_targetLock);
  m_releaseTarget = std::move(target);
}

int32_t OsvGraphicBuffer::SetImageAddr(uint8_t* y, uint8_t* u, uint8_t* v) {
  if (y == nullptr) {
    return -1;
  }
  if (m_handle != nullptr && m_info.size != 0) {
    const auto* begin = static_cast<const uint8_t*>(m_handle);
    for (const uint8_t* plane : {y, u, v}) {
      if (plane != nullptr && !Inside(plane, begin, m_info.size)) {
        return -1;
      }
    }
  }
  m_planes[0] = y;
  m_planes[1] = u;
  m_planes[2] = v;
  return 0;
}
