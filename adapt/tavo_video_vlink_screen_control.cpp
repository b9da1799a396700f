// The host's controls of screen inputs: snapshots and the cursor (mouse) of each screen.
#include "adapt/tavo_video_vlink_screen_control.h"

#include <map>
#include <mutex>
#include <unordered_map>

#include "adapt/tavo_video_param_store.h"
#include "tavo_video_vlink_capture.h"
#include "trace/tavo_video_host_guard.h"

uint32_t VlinkCreateScreenIn(ViDevInfo& out, uint32_t portId, uint32_t imgNo,
                             const tagTavoVideoComponentParam* param) {
  out = ViDevInfo{};
  const tagTavoVideoScreenParam& screen = param->screen;
  out.imgNo = imgNo;
  out.portId = portId;
  out.width = screen.width;
  out.height = screen.height;
  out.fps = screen.frameRate;
  out.captureFps = screen.frameRate;
  out.statusCallback = screen.statusCallback;
  out.hostValue64 = screen.hostValue64;
  out.hostValue32 = screen.hostValue32;
  VLOG_INF("viInfo: w[%u] h[%u] fps[%u]", out.width, out.height, out.fps);
  return 0;
}

namespace {

// Which screen node each host mouse is attached to, from its first successful set to its
// stop. Host threads may race on it.
std::mutex g_mouseTableLock;  // guards g_mouseTable; no host callback runs under it
std::map<uint32_t, uint32_t> g_mouseTable;

bool FindMouse(uint32_t mouseId, uint32_t* screenId) {
  std::lock_guard<std::mutex> lock(g_mouseTableLock);
  auto it = g_mouseTable.find(mouseId);
  if (it == g_mouseTable.end()) {
    return false;
  }
  *screenId = it->second;
  return true;
}

// Reads the cursor record of screen `screenId` (from its node, or from the stored records
// when the node does not exist yet), lets `change` edit it and writes it back the same way.
// 0 when the write succeeded.
template <class Change>
uint32_t ChangeCursor(uint32_t screenId, Change change) {
  VlinkCursorParams cursor{};
  if (std::shared_ptr<ScreenCaptureNode> node =
          VideoVlinkNode::GetNodeByUnique<ScreenCaptureNode>(screenId)) {
    node->GetMouseParam(&cursor);
    change(cursor);
    return node->SetMouseParam(cursor);
  }
  ScreenCaptureNode::GetGlobalMouseParam(screenId, &cursor, /*quiet=*/true);
  change(cursor);
  return ScreenCaptureNode::SaveGlobalMouseParam(screenId, cursor);
}

uint32_t SetMouseHidden(uint32_t mouseId, bool hide) {
  uint32_t screenId = 0;
  if (!FindMouse(mouseId, &screenId)) {
    if (hide) {
      VLOG_ERR("TavoVideoHideMouse failed! mouse[%u] has not set params!", mouseId);
    } else {
      VLOG_ERR("TavoVideoShowMouse failed! mouse[%u] has not set params!", mouseId);
    }
    return 1;
  }
  const uint32_t result =
      ChangeCursor(screenId, [hide](VlinkCursorParams& cursor) { cursor.isHide = hide ? 1 : 0; });
  if (result != 0) {
    if (hide) {
      VLOG_ERR("mouse[%u] set hide failed!", mouseId);
    } else {
      VLOG_ERR("set show mouse[%u] failed!", mouseId);
    }
    return 1;
  }
  return 0;
}

constexpr uint32_t kSnapshotFormat = 3;

uint32_t SnapshotNodeId(uint32_t id) {
  // The host's snapshot ids of the first two screens.
  static const std::unordered_map<uint32_t, uint32_t> idMap{{99, 90}, {100, 91}};
  auto it = idMap.find(id);
  return it == idMap.end() ? id : it->second;
}

}  // namespace

uint32_t TavoVideoMouseSetParam(uint32_t mouseId, tagTavoVideoMouseParam* param) try {
  if (param == nullptr) {
    VLOG_ERR("mouseParam is nullptr");
    return 1;
  }
  uint32_t screenId = 0;
  if (GetImgNoFromNodeId(param->screenComponentId, &screenId) != 0) {
    VLOG_ERR("GetImgNoFromNodeId faild");
    return 1;
  }
  {
    std::lock_guard<std::mutex> lock(g_mouseTableLock);
    auto it = g_mouseTable.find(mouseId);
    if (it != g_mouseTable.end() && it->second != screenId) {
      VLOG_ERR("TavoVideoMouseSetParam failed! Please stop mouse [%u] before attach new vi",
               mouseId);
      return 1;
    }
    g_mouseTable[mouseId] = screenId;
  }
  const tagTavoVideoMouseParam host = *param;
  const bool exists =
      static_cast<bool>(VideoVlinkNode::GetNodeByUnique<ScreenCaptureNode>(screenId));
  const uint32_t result = ChangeCursor(screenId, [&host](VlinkCursorParams& cursor) {
    cursor.hostValue = host.screenComponentId;
    cursor.userData = host.userData;
    cursor.independent = host.independent;
    cursor.framerate = host.framerate;
    cursor.shape = host.shape;
    cursor.cursorCallback = host.cursorCallback;
  });
  if (result != 0) {
    if (exists) {
      VLOG_ERR("mouse[%u] SetMouseParam failed!", mouseId);
    } else {
      VLOG_ERR("mouse[%u] SaveMouseParam failed!", mouseId);
    }
    return 1;
  }
  return 0;
}
VLINK_HOST_CATCH(1)

uint32_t TavoVideoShowMouse(uint32_t mouseId) try { return SetMouseHidden(mouseId, false); }
VLINK_HOST_CATCH(1)

uint32_t TavoVideoHideMouse(uint32_t mouseId) try { return SetMouseHidden(mouseId, true); }
VLINK_HOST_CATCH(1)

uint32_t TavoVideoMouseStop(uint32_t mouseId) try {
  std::lock_guard<std::mutex> lock(g_mouseTableLock);
  g_mouseTable.erase(mouseId);
  return 0;
}
VLINK_HOST_CATCH(0)

uint32_t TavoVideoVlinkSnapShot(uint32_t id, TagTavoVideoSnapshotStorage* storage) try {
  if (storage == nullptr) {
    VLOG_ERR("snapshot: storage is nullptr");
    return 1;
  }
  const uint32_t nodeId = SnapshotNodeId(id);
  if (storage->format != kSnapshotFormat) {
    VLOG_ERR("snapshot: the format[%d] is unsupported", static_cast<int>(storage->format));
    return 1;
  }
  std::shared_ptr<ScreenCaptureNode> node =
      VideoVlinkNode::GetNodeByUnique<ScreenCaptureNode>(nodeId);
  const bool temporary = !node;
  if (temporary) {
    node = std::make_shared<ScreenCaptureNode>(nodeId);
  }
  const uint32_t result = node->CapturePicture(nodeId, *storage);
  if (temporary) {
    node->Shutdown();  // never registered: nobody else ends its threads
  }
  if (result != 0) {
    VLOG_ERR("CapturePicture[%u] failed!", id);
    return 1;
  }
  VLOG_INF("snapshot: vi[%u] ok! queId[%u], width[%u], height[%u].", nodeId, storage->queueId,
           storage->width, storage->height);
  return 0;
}
VLINK_HOST_CATCH(1)
