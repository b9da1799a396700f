#include "screen/tavo_video_vlink_x11_grabber.h"

#include <X11/Xutil.h>
#include <sys/ipc.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "core/tavo_video_seam.h"
#include "screen/tavo_video_vlink_x11_log.h"
#include "screen/tavo_video_vlink_x11_seams.h"

namespace {

struct PixelLayoutRow {
  uint32_t bits;
  unsigned long redMask;
  unsigned long greenMask;
  unsigned long blueMask;
  X11PixelLayout layout;
};

constexpr PixelLayoutRow kPixelLayouts[] = {
    {24, 0xff0000, 0xff00, 0xff, {3, 2, 1, 0}},
    {24, 0xff, 0xff00, 0xff0000, {3, 0, 1, 2}},
    {32, 0xff0000, 0xff00, 0xff, {4, 2, 1, 0}},
    {32, 0xff, 0xff00, 0xff0000, {4, 0, 1, 2}},
    {32, 0xff000000, 0xff0000, 0xff00, {4, 3, 2, 1}},
    {32, 0xff00, 0xff0000, 0xff000000, {4, 1, 2, 3}},
};

constexpr int kShmFlags = IPC_CREAT | 0644;  // 932

}  // namespace

bool FindX11PixelLayout(uint32_t bits, unsigned long redMask, unsigned long greenMask,
                        unsigned long blueMask, X11PixelLayout* layout) {
  bool matched = false;
  for (const PixelLayoutRow& row : kPixelLayouts) {
    if (bits == row.bits && redMask == row.redMask && greenMask == row.greenMask &&
        blueMask == row.blueMask) {
      *layout = row.layout;
      matched = true;
    }
  }
  return matched;
}

uint32_t X11ShmImage::Create(uint32_t capturerId, const X11Target& target) {
  Destroy();
  Display* display = target.connection->Get();
  SharedMemorySystem& memory = Seam<SharedMemorySystem>::Get();
  m_connection = target.connection;
  m_image =
      XShmCreateImage(display, DefaultVisual(display, static_cast<int>(target.screenNum)),
                      target.depth, ZPixmap, nullptr, &m_segment, target.width, target.height);
  if (m_image == nullptr) {
    X11_ERR("XShmCreateImage fail");
    Destroy();
    return 1;
  }
  const size_t bytes = static_cast<size_t>(m_image->bytes_per_line) * m_image->height;
  const int id = memory.Get(bytes, kShmFlags);
  if (id == -1) {
    const int error = errno;
    X11_ERR("shmget failed, errono = %d, %s", error, std::strerror(error));
    Destroy();
    return 1;
  }
  m_segment.shmid = id;
  void* address = memory.Attach(id);
  if (address == reinterpret_cast<void*>(-1)) {
    const int error = errno;
    X11_ERR("shmat failed, errono = %d, %s", error, std::strerror(error));
    Destroy();
    return 1;
  }
  m_segment.shmaddr = static_cast<char*>(address);
  m_segment.readOnly = False;
  m_image->data = static_cast<char*>(address);
  std::memset(address, 0, std::min<size_t>(target.frameSize, bytes));
  const uint32_t errorsBefore = X11ErrorCount();
  if (XShmAttach(display, &m_segment) == 0 ||
      (XSync(display, False), X11ErrorCount() != errorsBefore)) {
    Destroy();
    X11_ERR("XShmAttach failed");
    return 1;
  }
  // Both sides hold it now: marked for removal at once, it goes when both let go, also when
  // this process dies without a teardown, instead of staying in the system for good.
  memory.Remove(id);
  m_removed = true;
  X11_INF("X11 Capturer[%u] InitShmImages successful", capturerId);
  return 0;
}

void X11ShmImage::Destroy() {
  SharedMemorySystem& memory = Seam<SharedMemorySystem>::Get();
  const bool attached = m_segment.shmid != -1 && m_segment.shmaddr != reinterpret_cast<char*>(-1);
  if (attached && m_connection && !m_connection->Lost()) {
    XShmDetach(m_connection->Get(), &m_segment);
  }
  if (m_image != nullptr) {
    m_image->data = nullptr;  // the segment is not the image's to free
    XDestroyImage(m_image);
    m_image = nullptr;
  }
  if (m_segment.shmaddr != reinterpret_cast<char*>(-1)) {
    memory.Detach(m_segment.shmaddr);
  }
  if (m_segment.shmid != -1 && !m_removed) {
    memory.Remove(m_segment.shmid);
  }
  m_removed = false;
  m_segment.shmid = -1;
  m_segment.shmaddr = reinterpret_cast<char*>(-1);
  m_connection.reset();
}

bool X11ShmImage::Grab(Window root, int32_t x, int32_t y) {
  return m_image != nullptr && m_connection &&
         XShmGetImage(m_connection->Get(), root, m_image, x, y, AllPlanes) != 0;
}

bool X11ShmImage::GrabRows(Window root, int32_t x, int32_t y, uint32_t begin, uint32_t end) {
  if (m_image == nullptr || !m_connection || end > static_cast<uint32_t>(m_image->height) ||
      begin >= end) {
    return false;
  }
  // The same segment at an offset: the server writes the rows straight into place.
  XImage rows = *m_image;
  rows.height = static_cast<int>(end - begin);
  rows.data = m_image->data + size_t{begin} * static_cast<size_t>(m_image->bytes_per_line);
  return XShmGetImage(m_connection->Get(), root, &rows, x, y + static_cast<int32_t>(begin),
                      AllPlanes) != 0;
}
