#include "core/tavo_video_vlink_node.h"

#include <algorithm>
#include <chrono>

namespace {

constexpr unsigned long kPoolThreadCount = 10;

VideoVlinkNode::NodeList::iterator FindById(VideoVlinkNode::NodeList& list, uint32_t id) {
  return std::find_if(list.begin(), list.end(),
                      [id](const VideoVlinkNode::NodePtr& n) { return n && n->GetNodeId() == id; });
}

}  // namespace

// Defined in this order on purpose: the pool starts first and, being destroyed last, still
// runs the tasks that nodes destroyed with the registry wait for.
ThreadPool VideoVlinkNode::m_nodeThreadPool(kPoolThreadCount);
InstanceManager<VideoVlinkNode>* VideoVlinkNode::m_nodeManager =
    &InstanceManager<VideoVlinkNode>::GetInstanceManager();

VideoVlinkNode::VideoVlinkNode(uint32_t id, OS_E_MPP_DEV_TYPE type)
    : m_nodeId(id), m_nodeType(type) {}

VideoVlinkNode::~VideoVlinkNode() { DealTaskHandler(true); }

uint32_t VideoVlinkNode::StartProcess() { return 0; }

uint32_t VideoVlinkNode::StopProcess() {
  DealTaskHandler(true);
  return 0;
}

uint32_t VideoVlinkNode::ConnectFromNode(NodePtr node) {
  if (!node) {
    return 1;
  }
  std::lock_guard<std::recursive_mutex> lock(m_nodeLock);
  if (FindById(m_prevNodes, node->GetNodeId()) != m_prevNodes.end()) {
    VLOG_ERR_MODULE("[%s] m_prevNodes has m_nodeId[%u]", m_nodeName.c_str(), node->GetNodeId());
    return 1;
  }
  m_prevNodes.push_back(std::move(node));
  return 0;
}

uint32_t VideoVlinkNode::ConnectToNode(NodePtr node) {
  if (!node) {
    return 1;
  }
  std::lock_guard<std::recursive_mutex> lock(m_nodeLock);
  if (FindById(m_nextNodes, node->GetNodeId()) != m_nextNodes.end()) {
    VLOG_ERR_MODULE("[%s] m_nextNodes has m_nodeId[%u]", m_nodeName.c_str(), node->GetNodeId());
    return 1;
  }
  m_nextNodes.push_back(std::move(node));
  return 0;
}

uint32_t VideoVlinkNode::DisconnectFromNode(NodePtr node, bool /*isNext*/) {
  if (!node) {
    return 0;
  }
  const uint32_t id = node->GetNodeId();
  NodePtr removed;  // released after the lock, in case it was the last holder
  std::lock_guard<std::recursive_mutex> lock(m_nodeLock);
  if (auto it = FindById(m_prevNodes, id); it != m_prevNodes.end()) {
    removed = std::move(*it);
    m_prevNodes.erase(it);
    VLOG_INF_MODULE("[%s] Disconnect from prevNode[%d] succes", m_nodeName.c_str(), id);
    return 0;
  }
  if (auto it = FindById(m_nextNodes, id); it != m_nextNodes.end()) {
    removed = std::move(*it);
    m_nextNodes.erase(it);
    VLOG_INF_MODULE("[%s] Disconnect from nextNode[%d] succes", m_nodeName.c_str(), id);
    return 0;
  }
  VLOG_WRN_MODULE("[%s] Node[%d] is not attached", m_nodeName.c_str(), id);
  return 1;
}

uint32_t VideoVlinkNode::GetNodeResolution(uint32_t& /*width*/, uint32_t& /*height*/,
                                           uint32_t& /*frameRate*/) {
  return 1;
}

void VideoVlinkNode::ReleaseFrame(OsvGraphicBuffer* /*buffer*/) {}

void VideoVlinkNode::GetRequirement(VideoNodeRequirement& requirement) const {
  std::lock_guard<std::recursive_mutex> lock(const_cast<std::recursive_mutex&>(m_nodeLock));
  requirement = m_requirement;
}

void VideoVlinkNode::SetRequirement(VideoNodeRequirement& requirement) {
  std::lock_guard<std::recursive_mutex> lock(m_nodeLock);
  m_requirement = requirement;
}

uint32_t VideoVlinkNode::HandleBuffer(OsvGraphicBuffer* /*buffer*/) { return 1; }

bool VideoVlinkNode::HasNextNodes() {
  std::lock_guard<std::recursive_mutex> lock(m_nodeLock);
  return !m_nextNodes.empty();
}

VideoVlinkNode::NodeList VideoVlinkNode::GetPrevConnectListCopy() {
  std::lock_guard<std::recursive_mutex> lock(m_nodeLock);
  return m_prevNodes;
}

VideoVlinkNode::NodeList VideoVlinkNode::GetNextConnectListCopy() {
  std::lock_guard<std::recursive_mutex> lock(m_nodeLock);
  return m_nextNodes;
}

uint32_t VideoVlinkNode::QueueTask(std::function<int()> task) {
  std::lock_guard<std::mutex> lock(m_taskLock);
  ReapFinishedTasks();
  std::promise<void>* promise = m_nodeThreadPool.Add(task);
  if (promise == nullptr) {
    return 1;
  }
  m_pendingTasks.emplace(promise, promise->get_future());
  return 0;
}

uint32_t VideoVlinkNode::QueueBuffer(OsvGraphicBuffer* buffer) {
  if (!m_isStart.load(std::memory_order_acquire)) {
    return 1;
  }
  return QueueTask([this, buffer] {
    if (HandleBuffer(buffer) != 0) {
      VLOG_ERR_MODULE("[%s] HandleBuffer error!", m_nodeName.c_str());
      buffer->DecreaseRef();
    }
    return 0;
  });
}

void VideoVlinkNode::ReleaseBufferDeal(OsvGraphicBuffer* buffer) {
  // The task keeps the node alive while it runs; if it holds the last reference, the node
  // is destroyed on the worker after the task's promise is fulfilled.
  std::shared_ptr<VideoVlinkNode> self = weak_from_this().lock();
  VideoVlinkNode* node = this;
  QueueTask([self = std::move(self), node, buffer] {
    node->ReleaseFrame(buffer);
    return 0;
  });
}

uint32_t VideoVlinkNode::SendBuffer(OsvGraphicBuffer* buffer) {
  if (buffer == nullptr) {
    return 0;
  }
  std::lock_guard<std::recursive_mutex> lock(m_nodeLock);
  // Held for the whole call so that a receiver releasing early cannot return the frame to
  // its producer while it is still being handed out.
  buffer->IncreaseRef();
  if (m_nextNodes.empty()) {
    VLOG_ERR_MODULE("[%s] m_nextNodes is empty!", m_nodeName.c_str());
  }
  for (const NodePtr& next : m_nextNodes) {
    buffer->IncreaseRef();
    if (next->QueueBuffer(buffer) != 0) {
      buffer->DecreaseRef();
    }
  }
  buffer->DecreaseRef();
  return 0;
}

uint32_t VideoVlinkNode::SendBuffer(const NodePtr& next, OsvGraphicBuffer* buffer) {
  if (!next || buffer == nullptr) {
    return 1;
  }
  std::lock_guard<std::recursive_mutex> lock(m_nodeLock);
  buffer->IncreaseRef();
  if (next->QueueBuffer(buffer) != 0) {
    buffer->DecreaseRef();
    return 1;
  }
  return 0;
}

void VideoVlinkNode::ReapFinishedTasks() {
  for (auto it = m_pendingTasks.begin(); it != m_pendingTasks.end();) {
    if (it->second.wait_for(std::chrono::seconds(0)) == std::future_status::ready) {
      delete it->first;
      it = m_pendingTasks.erase(it);
    } else {
      ++it;
    }
  }
}

void VideoVlinkNode::DealTaskHandler(bool waitAll) {
  if (!waitAll) {
    std::lock_guard<std::mutex> lock(m_taskLock);
    ReapFinishedTasks();
    return;
  }
  for (;;) {
    std::promise<void>* promise = nullptr;
    std::future<void> future;
    {
      std::lock_guard<std::mutex> lock(m_taskLock);
      if (m_pendingTasks.empty()) {
        return;
      }
      auto first = m_pendingTasks.begin();
      promise = first->first;
      future = std::move(first->second);
      m_pendingTasks.erase(first);
    }
    // Waited without the task lock, so finishing tasks can still reap and queue.
    future.wait();
    delete promise;
  }
}

size_t VideoVlinkNode::GetPendingTaskCount() {
  std::lock_guard<std::mutex> lock(m_taskLock);
  return m_pendingTasks.size();
}

int VideoVlinkNode::DeleteNodeByUnique(uint32_t id) { return m_nodeManager->DeleteInstance(id); }
