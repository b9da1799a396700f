// X11ScreenCapturer: one frame. With the X DAMAGE extension only the rows the server says
// changed since the last frame are grabbed and converted (the rest is carried over from
// the previous output); a frame where nothing changed sends the previous output again.
#include <X11/extensions/Xfixes.h>

#include "core/tavo_video_os_seams.h"
#include "platform/adapt_common/tavo_video_frame_convert.h"
#include "screen/tavo_video_vlink_screen_band_convert.h"
#include "screen/tavo_video_vlink_screen_capturer_X11.h"
#include "screen/tavo_video_vlink_x11_capture_session.h"
#include "screen/tavo_video_vlink_x11_cursor_drawer.h"
#include "screen/tavo_video_vlink_x11_log.h"

namespace {

struct CursorImage {
  explicit CursorImage(XFixesCursorImage* image) : get(image) {}
  ~CursorImage() {
    if (get != nullptr) {
      XFree(get);
    }
  }
  CursorImage(const CursorImage&) = delete;
  CursorImage& operator=(const CursorImage&) = delete;
  XFixesCursorImage* const get;
};

}  // namespace

void X11ScreenCapturer::DrawCursorOf(Session& s, const XFixesCursorImage* cursor) {
  switch (DrawX11Cursor(cursor, s.image.Image(), s.grabX.load(), s.grabY.load(), s.layout)) {
    case CursorDrawResult::kNoCursorImage:
      if (s.ShouldLog(kSiteCursor)) {
        X11_ERR("XFixesGetCursorImage failed!");
      }
      break;
    case CursorDrawResult::kTransparent:
      X11_LOG(2, ::vlink::kToTrace, "cursor is hided!");
      break;
    default:
      break;
  }
}

void X11ScreenCapturer::X11ImageDrawCursor() {
  std::lock_guard<std::recursive_mutex> lock(m_session->lock);
  if (m_session->image.Ready()) {
    CursorImage cursor(XFixesGetCursorImage(m_session->target.connection->Get()));
    DrawCursorOf(*m_session, cursor.get);
  }
}

// The cursor to draw in: the one last asked for, unless the server told of a motion or a
// new cursor since (or the pointer's recheck is due).
const XFixesCursorImage* X11ScreenCapturer::CursorOf(Session& s, Display* display) {
  const bool moved = s.cursorWatch.TakePointerDue(Seam<Clock>::Get().NowUs());
  const bool changed = s.cursorWatch.TakeImageDue();
  if (moved || changed || !s.cursorImage) {
    s.cursorImage.reset(XFixesGetCursorImage(display));
  }
  return s.cursorImage.get();
}

// The rows to grab this frame: none when nothing changed, `full` for the whole monitor.
std::vector<RowBand> X11ScreenCapturer::ChangedRows(Session& s, const XFixesCursorImage* cursor,
                                                    bool drawn, bool* full) {
  const uint32_t height = s.capability.height;
  std::vector<RowBand> bands;
  if (s.damage.Active()) {
    // Taken before the grab: whatever changes from here on is in the next frame's rows.
    bands = s.damage.TakeChangedRows(s.target.connection->Get(), s.grabX.load(), s.grabY.load(),
                                     s.capability.width, height);
  }
  *full = s.fullNext || !s.damage.Active() || s.previous == nullptr || s.checkFormat;
  if (*full) {
    return {};
  }
  // A cursor drawn into the image: its old rows hold it, its new rows will.
  const bool cursorChanged =
      drawn != s.cursorDrawn ||
      (drawn && (cursor == nullptr || cursor->x != s.cursorX || cursor->y != s.cursorY ||
                 cursor->cursor_serial != s.cursorSerial));
  if (bands.empty() && !cursorChanged) {
    return {};
  }
  if (s.cursorRowsValid) {
    bands.push_back(s.cursorRows);
  }
  RowBand rows{};
  if (drawn && CursorRows(cursor, s.grabY.load(), height, &rows)) {
    bands.push_back(rows);
  }
  return MergeRowBands(std::move(bands), height);
}

uint32_t X11ScreenCapturer::FrameStep(Session& s) {
  if (CheckMonitor(s) != 0) {
    return 1;
  }
  FrameRef frame;
  {
    std::lock_guard<std::recursive_mutex> lock(s.lock);
    if (!s.target.connection || !s.image.Ready()) {
      if (s.ShouldLog(kSiteNoDisplay)) {
        X11_ERR("m_display is nullptr");
      }
      return 1;
    }
    if (s.target.root == 0) {
      if (s.ShouldLog(kSiteNoWindow)) {
        X11_ERR("m_desktopWindow is zero");
      }
      return 1;
    }
    Display* display = s.target.connection->Get();
    const int32_t grabX = s.grabX.load();
    const int32_t grabY = s.grabY.load();
    const bool drawn = s.mouseParam.isHide == 0 && s.drawCursor && s.mouseParam.independent == 0;
    const XFixesCursorImage* cursor = drawn ? CursorOf(s, display) : nullptr;
    bool full = true;
    const std::vector<RowBand> bands = ChangedRows(s, cursor, drawn, &full);
    const bool still = !full && bands.empty();
    if (!still) {
      bool grabbed = full ? s.image.Grab(s.target.root, grabX, grabY) : true;
      for (size_t i = 0; !full && grabbed && i < bands.size(); ++i) {
        grabbed = s.image.GrabRows(s.target.root, grabX, grabY, bands[i].begin, bands[i].end);
      }
      if (!grabbed) {
        s.fullNext = true;  // the image may hold rows of two moments now
        if (s.ShouldLog(kSiteGrab)) {
          X11_ERR("XShmGetImage failed! grabX[%u] grabY[%u]", static_cast<uint32_t>(grabX),
                  static_cast<uint32_t>(grabY));
        }
        return 1;
      }
      if (s.checkFormat) {
        CheckImageFormatOf(s);
        s.checkFormat = false;
      }
      s.cursorDrawn = drawn;
      s.cursorRowsValid = false;
      if (drawn) {
        DrawCursorOf(s, cursor);
        if (cursor != nullptr) {
          s.cursorX = cursor->x;
          s.cursorY = cursor->y;
          s.cursorSerial = cursor->cursor_serial;
          s.cursorRowsValid = CursorRows(cursor, grabY, s.capability.height, &s.cursorRows);
        }
      }
    }
    // The previous frame's buffer when it came back: a still frame then costs nothing and a
    // changed one only its rows.
    OsvGraphicBuffer* output = s.pool.TakePreferring(full ? nullptr : s.previous);
    if (output == nullptr) {
      s.fullNext = !still;  // the rows grabbed now are in no output
      if (s.ShouldLog(kSiteNoBuffer)) {
        X11_ERR("no available buffer!");
      }
      return 1;
    }
    // Held for the length of the hand-off: the buffer comes back to the pool when the last
    // holder, possibly this one, lets go.
    frame = FrameRef::Share(output);
    const int32_t converted = still ? CarryOver(s, output) : Convert(s, bands, output);
    if (converted != 0) {
      s.fullNext = true;
      return static_cast<uint32_t>(converted);
    }
    s.previous = output;
    s.fullNext = false;
    frame.Get()->SetSrcImgNo(s.devInfo.imgNo);
  }
  // To the owner without the capturer lock: a snapshot or a control call need not wait for
  // the sinks.
  if (!s.EnterOutlets()) {
    return 1;
  }
  const int sent = s.callback ? s.callback(frame) : 1;
  s.LeaveOutlets();
  if (sent != 0) {
    if (s.ShouldLog(kSiteSend)) {
      X11_ERR("SendFrame to Encoder failed!");
    }
    return static_cast<uint32_t>(sent);
  }
  return 0;
}

// A still frame in another buffer than the previous one: all its rows carried over.
int32_t X11ScreenCapturer::CarryOver(Session& s, OsvGraphicBuffer* output) {
  return output == s.previous ? 0 : CopyI420RowsOutside(s.previous, {}, output);
}

// The grabbed image (all of it for no bands) to I420 in `output`, scaled through the
// capture-size buffer when the sizes differ; that buffer always holds the latest whole
// frame, so only changed rows are converted into it.
int32_t X11ScreenCapturer::Convert(Session& s, const std::vector<RowBand>& bands,
                                   OsvGraphicBuffer* output) {
  XImage* image = s.image.Image();
  auto* pixels = reinterpret_cast<uint8_t*>(image->data);
  const auto stride = static_cast<uint32_t>(image->bytes_per_line);
  const uint32_t width = s.capability.width;
  const uint32_t height = s.capability.height;
  const std::vector<RowBand> all{{0, height}};
  const std::vector<RowBand>& rows = bands.empty() ? all : bands;
  const OsvGraphicBufferInfo out = output->GetImageInfo();
  const bool scale = out.width != width || out.height != height;
  int32_t result =
      ConvertArgbRows(pixels, stride, width, height, rows, scale ? s.pool.Scratch() : output);
  if (result != 0) {
    if (s.ShouldLog(kSiteConvert)) {
      X11_ERR("Convert srcImg to I420 failed!");
    }
    return result;
  }
  if (scale) {
    result = I420Scale(s.pool.Scratch(), output);
    if (result != 0 && s.ShouldLog(kSiteConvert)) {
      X11_ERR("I420Scale failed!");
    }
    return result;
  }
  if (!bands.empty() && output != s.previous) {
    result = CopyI420RowsOutside(s.previous, bands, output);
  }
  return result;
}
