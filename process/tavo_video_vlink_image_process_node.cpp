#include "process/tavo_video_vlink_image_process_node.h"

#include <algorithm>
#include <set>
#include <string>

#include "core/tavo_video_pool_buffer_tracker.h"
#include "platform/adapt_common/tavo_video_frame_convert.h"
#include "trace/tavo_video_vlink_log.h"

namespace {

template <class List, class T>
bool EraseOne(List& list, const T& value) {
  auto it = std::find(list.begin(), list.end(), value);
  if (it == list.end()) {
    return false;
  }
  list.erase(it);
  return true;
}

}  // namespace

ImageProcessNode::ImageProcessNode(uint32_t nodeId)
    : VideoVlinkNode(nodeId, OS_E_MPP_DEV_IMAGE_PROCESS),
      m_releaseBuffers(std::make_shared<PoolBufferTracker>()) {
  m_nodeName = "IMG_" + std::to_string(nodeId);
  VLOG_INF("[%s] create m_nodeId[%u] success", m_nodeName.c_str(), m_nodeId);
}

ImageProcessNode::~ImageProcessNode() {
  if (IsStarted()) {
    VLOG_WRN("[%s] m_nodeId[%u] is no closed", m_nodeName.c_str(), m_nodeId);
  }
  // Normally every sink is gone by now; buffers of tasks left in the tree are dropped like
  // those of removed tasks (a holder downstream keeps its buffer until it lets go).
  std::lock_guard<std::recursive_mutex> lock(m_processTree.lock);
  for (const auto& task : m_processTree.sizeTasks) {
    for (OsvGraphicBuffer* buffer : task->buffers) {
      DealBuffer(buffer, true);
    }
  }
  if (m_processTree.taskRoot) {
    for (const auto& [format, task] : m_processTree.taskRoot->formatTasks) {
      for (OsvGraphicBuffer* buffer : task->buffers) {
        DealBuffer(buffer, true);
      }
    }
  }
}

uint32_t ImageProcessNode::OnStart() { return 0; }

uint32_t ImageProcessNode::OnStop() { return 0; }

uint32_t ImageProcessNode::ConnectFromNode(NodePtr node) {
  {
    std::lock_guard<std::recursive_mutex> lock(m_nodeLock);
    if (!GetPrevConnectList().empty()) {
      VLOG_ERR("[%s] prevNodes too more", m_nodeName.c_str());
      return 1;
    }
  }
  return VideoVlinkNode::ConnectFromNode(std::move(node));
}

uint32_t ImageProcessNode::ConnectToNode(NodePtr node) {
  const uint32_t result = VideoVlinkNode::ConnectToNode(node);
  if (result != 0) {
    return result;
  }
  if (InsertImageProcess(node) != 0) {
    VLOG_ERR("[%s] InsertImageProcess failed!", m_nodeName.c_str());
    return 1;
  }
  return 0;
}

uint32_t ImageProcessNode::DisconnectFromNode(NodePtr node, bool isNext) {
  if (VideoVlinkNode::DisconnectFromNode(node, isNext) != 0) {
    return 1;
  }
  if (isNext && RemoveImageProcess(node, true) != 0) {
    VLOG_ERR("[%s] RemoveImageProcess failed!", m_nodeName.c_str());
    return 1;
  }
  return 0;
}

uint32_t ImageProcessNode::InsertImageProcess(const NodePtr& sink) {
  std::lock_guard<std::recursive_mutex> lock(m_processTree.lock);
  if (!sink) {
    VLOG_ERR("node is nullptr");
    return 1;
  }
  VideoNodeRequirement requirement{};
  sink->GetRequirement(requirement);
  if (!m_processTree.taskRoot) {
    m_processTree.taskRoot = std::make_shared<ImageProcessOriginTask>();
  }
  if (requirement.needProcess == 0) {
    m_processTree.taskRoot->nextNodes.push_back(sink);
    return 0;
  }
  for (const auto& task : m_processTree.sizeTasks) {
    if (task->width == requirement.width && task->height == requirement.height &&
        task->format == requirement.format) {
      task->nextNodes.push_back(sink);
      return 0;
    }
  }
  std::shared_ptr<ImageProcessFormatTask>& formatTask =
      m_processTree.taskRoot->formatTasks[requirement.format];
  if (!formatTask) {
    formatTask = std::make_shared<ImageProcessFormatTask>();
    formatTask->dstFormat = requirement.format;
  }
  auto sizeTask = std::make_shared<ImageProcessSizeTask>();
  sizeTask->width = requirement.width;
  sizeTask->height = requirement.height;
  sizeTask->format = requirement.format;
  sizeTask->nextNodes.push_back(sink);
  formatTask->sizeTasks.push_back(sizeTask);
  m_processTree.sizeTasks.push_back(sizeTask);
  VLOG_INF("[%s] Insert new image process: format[%d] width[%u] height[%u]", m_nodeName.c_str(),
           static_cast<int>(requirement.format), requirement.width, requirement.height);
  return 0;
}

uint32_t ImageProcessNode::RemoveImageProcess(const NodePtr& sink, bool force) {
  std::lock_guard<std::recursive_mutex> lock(m_processTree.lock);
  if (!sink) {
    VLOG_ERR("node is nullptr");
    return 1;
  }
  const std::shared_ptr<ImageProcessOriginTask> root = m_processTree.taskRoot;
  if (!root) {
    VLOG_ERR("taskRoot is nullptr");
    return 1;
  }
  if (EraseOne(root->nextNodes, sink)) {
    return 0;
  }
  auto taskIt = std::find_if(m_processTree.sizeTasks.begin(), m_processTree.sizeTasks.end(),
                             [&](const std::shared_ptr<ImageProcessSizeTask>& task) {
                               return std::find(task->nextNodes.begin(), task->nextNodes.end(),
                                                sink) != task->nextNodes.end();
                             });
  if (taskIt == m_processTree.sizeTasks.end()) {
    VLOG_ERR("[%s] can't find task!", m_nodeName.c_str());
    return 1;
  }
  const std::shared_ptr<ImageProcessSizeTask> sizeTask = *taskIt;
  EraseOne(sizeTask->nextNodes, sink);
  if (!sizeTask->nextNodes.empty()) {
    return 0;
  }
  m_processTree.sizeTasks.erase(taskIt);
  for (OsvGraphicBuffer* buffer : sizeTask->buffers) {
    DealBuffer(buffer, force);
  }
  sizeTask->buffers.clear();
  auto formatIt = root->formatTasks.find(sizeTask->format);
  if (formatIt == root->formatTasks.end() || !formatIt->second) {
    VLOG_ERR("[%s] formatIt is nullptr", m_nodeName.c_str());
    return 1;
  }
  const std::shared_ptr<ImageProcessFormatTask> formatTask = formatIt->second;
  if (!EraseOne(formatTask->sizeTasks, sizeTask)) {
    VLOG_ERR("[%s] sizeIt is nullptr", m_nodeName.c_str());
    return 1;
  }
  if (!formatTask->sizeTasks.empty()) {
    return 0;
  }
  for (OsvGraphicBuffer* buffer : formatTask->buffers) {
    DealBuffer(buffer, force);
  }
  formatTask->buffers.clear();
  root->formatTasks.erase(formatIt);
  return 0;
}

uint32_t ImageProcessNode::ResetImageProcess(const NodePtr& sink) {
  std::lock_guard<std::recursive_mutex> lock(m_processTree.lock);
  VLOG_INF("[%s] ResetImageProcess %s", m_nodeName.c_str(),
           sink ? sink->GetNodeName().c_str() : "");
  if (RemoveImageProcess(sink, false) != 0) {
    VLOG_ERR("[%s] ResetImageProcess RemoveImageProcess failed!", m_nodeName.c_str());
    return 1;
  }
  if (InsertImageProcess(sink) != 0) {
    VLOG_ERR("[%s] ResetImageProcess InsertImageProcess failed!", m_nodeName.c_str());
    return 1;
  }
  return 0;
}

void ImageProcessNode::DealBuffer(OsvGraphicBuffer* buffer, bool /*force*/) {
  if (buffer != nullptr) {
    m_releaseBuffers->Retire(buffer);
  }
}

uint32_t ImageProcessNode::GetOneBuffer(const std::shared_ptr<ImageProcessSizeTask>& task,
                                        FrameRef& out) {
  if (!task) {
    VLOG_ERR("task is nullptr");
    return 1;
  }
  for (OsvGraphicBuffer* buffer : task->buffers) {
    if (m_releaseBuffers->TryTake(buffer)) {
      out = FrameRef::Share(buffer);
      return 0;
    }
  }
  if (task->buffers.size() >= kMaxBuffersPerTask) {
    VLOG_PACED(::vlink::kPerFrameLogEvery, VLOG_ERR, "[%s] buffer too many!", m_nodeName.c_str());
    return 1;
  }
  auto* buffer = new OsvGraphicBuffer(task->width, task->height, task->format, false, false);
  if (buffer->GetBufHandle() == nullptr) {
    VLOG_ERR("[%s] new buffer failed: width[%u] height[%u] format[%d]", m_nodeName.c_str(),
             task->width, task->height, static_cast<int>(task->format));
    delete buffer;
    return 1;
  }
  buffer->SetReleaseTarget(m_releaseBuffers);
  task->buffers.push_back(buffer);
  m_releaseBuffers->TryTake(buffer);
  out = FrameRef::Share(buffer);
  VLOG_INF("[%s] new buffer: width[%u] height[%u] format[%d] size[%u]!", m_nodeName.c_str(),
           task->width, task->height, static_cast<int>(task->format),
           static_cast<uint32_t>(task->buffers.size()));
  return 0;
}

uint32_t ImageProcessNode::TransformFormat(const std::shared_ptr<ImageProcessFormatTask>& task,
                                           OsvGraphicBuffer* in, FrameRef& out) {
  if (!task) {
    VLOG_ERR("task is nullptr");
    return 1;
  }
  if (in == nullptr) {
    VLOG_ERR("oldBuffer is nullptr");
    return 1;
  }
  const OsvGraphicBufferInfo info = in->GetImageInfo();
  if (info.format == task->dstFormat) {
    out = FrameRef::Share(in);
    return 0;
  }
  if (task->width != 0 && task->height != 0) {
    if (info.width != task->width || info.height != task->height) {
      VLOG_PACED(::vlink::kPerFrameLogEvery, VLOG_ERR, "[%s] vi buffer size changed!",
                 m_nodeName.c_str());
      return 1;
    }
  } else {
    task->width = info.width;
    task->height = info.height;
  }
  if (GetOneBuffer(task, out) != 0) {
    return 1;
  }
  if (info.format != TAVO_VIDEO_VLINK_FORMAT_ARGB ||
      task->dstFormat != TAVO_VIDEO_VLINK_FORMAT_I420) {
    VLOG_PACED(::vlink::kPerFrameLogEvery, VLOG_ERR, "[%s] not support format[%d]->format[%d]!",
               m_nodeName.c_str(), static_cast<int>(info.format),
               static_cast<int>(task->dstFormat));
    out.Reset();
    return 1;
  }
  out->SetSrcImgNo(in->GetSrcImgNo());
  if (ConvertToI420(in, out.Get()) != 0) {
    out.Reset();
    return 1;
  }
  return 0;
}

uint32_t ImageProcessNode::TransformSize(const std::shared_ptr<ImageProcessSizeTask>& task,
                                         OsvGraphicBuffer* in, FrameRef& out) {
  if (!task) {
    VLOG_ERR("task is nullptr");
    return 1;
  }
  if (in == nullptr) {
    VLOG_ERR("oldBuffer is nullptr");
    return 1;
  }
  const OsvGraphicBufferInfo info = in->GetImageInfo();
  if (info.width == task->width && info.height == task->height) {
    out = FrameRef::Share(in);
    return 0;
  }
  if (GetOneBuffer(task, out) != 0) {
    return 1;
  }
  if (task->format != TAVO_VIDEO_VLINK_FORMAT_I420) {
    VLOG_PACED(::vlink::kPerFrameLogEvery, VLOG_ERR, "[%s] not support format[%d]!",
               m_nodeName.c_str(), static_cast<int>(task->format));
    out.Reset();
    return 1;
  }
  out->SetSrcImgNo(in->GetSrcImgNo());
  if (I420Scale(in, out.Get()) != 0) {
    out.Reset();
    return 1;
  }
  return 0;
}

uint32_t ImageProcessNode::HandleBuffer(FrameRef& frame) {
  if (!frame) {
    VLOG_ERR("buffer is nullptr");
    return 1;
  }
  std::lock_guard<std::recursive_mutex> lock(m_processTree.lock);
  const std::shared_ptr<ImageProcessOriginTask> root = m_processTree.taskRoot;
  if (!root) {
    VLOG_ERR("taskRoot is nullptr");
    return 1;
  }
  OsvGraphicBuffer* input = frame.Get();
  for (const NodePtr& next : root->nextNodes) {
    SendBuffer(next, input);
  }
  for (const auto& [format, formatTask] : root->formatTasks) {
    // Each step's output is held here until every sink of the branch took its share, so a
    // buffer nobody took goes back to its pool.
    FrameRef converted;
    if (TransformFormat(formatTask, input, converted) != 0) {
      VLOG_PACED(::vlink::kPerFrameLogEvery, VLOG_ERR, "[%s] TransformFormat failed!",
                 m_nodeName.c_str());
      continue;
    }
    for (const auto& sizeTask : formatTask->sizeTasks) {
      FrameRef scaled;
      if (TransformSize(sizeTask, converted.Get(), scaled) != 0) {
        VLOG_PACED(::vlink::kPerFrameLogEvery, VLOG_ERR, "[%s] TransformSize failed!",
                   m_nodeName.c_str());
        continue;
      }
      for (const NodePtr& next : sizeTask->nextNodes) {
        SendBuffer(next, scaled.Get());
      }
    }
  }
  frame.Reset();
  return 0;
}

size_t ImageProcessNode::GetFormatTaskCount() {
  std::lock_guard<std::recursive_mutex> lock(m_processTree.lock);
  return m_processTree.taskRoot ? m_processTree.taskRoot->formatTasks.size() : 0;
}

size_t ImageProcessNode::GetSizeTaskCount() {
  std::lock_guard<std::recursive_mutex> lock(m_processTree.lock);
  return m_processTree.sizeTasks.size();
}

size_t ImageProcessNode::GetPoolBufferCount() {
  std::lock_guard<std::recursive_mutex> lock(m_processTree.lock);
  size_t count = 0;
  for (const auto& task : m_processTree.sizeTasks) {
    count += task->buffers.size();
  }
  if (m_processTree.taskRoot) {
    for (const auto& [format, task] : m_processTree.taskRoot->formatTasks) {
      count += task->buffers.size();
    }
  }
  return count;
}

size_t ImageProcessNode::GetReleaseBufferCount() { return m_releaseBuffers->RetiredCount(); }
