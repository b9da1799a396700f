#include "core/tavo_video_vlink_node.h"

#include <algorithm>
#include <array>
#include <utility>
#include <vector>

namespace {

constexpr unsigned long kPoolThreadCount = 10;

// The node whose task this thread is running, if any: a stop or destroy the host makes from
// inside a callback of that task must not wait for the task itself.
thread_local const VideoVlinkNode* t_runningNode = nullptr;
// Work a host callback asked for from inside the hand-off this thread runs, done after it.
thread_local std::vector<std::function<void()>>* t_afterHandoff = nullptr;
// The node whose start this thread is running: the encoder's create callback runs inside it.
thread_local const VideoVlinkNode* t_startingNode = nullptr;

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

namespace {

// Set while the process exits, when static objects go before the library's finalisers run.
bool g_staticsGone = false;
struct MarkStaticsGone {
  MarkStaticsGone() = default;
  MarkStaticsGone(const MarkStaticsGone&) = delete;
  MarkStaticsGone& operator=(const MarkStaticsGone&) = delete;
  ~MarkStaticsGone() { g_staticsGone = true; }
} g_markStaticsGone;

// When the library is unloaded with links still running, their nodes are stopped and their
// threads joined while the code they run is still there. A finaliser runs at unload before
// any static object is destroyed; at process exit it comes after them and does nothing.
__attribute__((destructor)) void ShutdownAtUnload() {
  if (!g_staticsGone) {
    VideoVlinkNode::ShutdownAll();
  }
}

}  // namespace

void VideoVlinkNode::ShutdownAll() {
  std::vector<NodePtr> nodes = m_nodeManager->TakeAll();
  for (const NodePtr& node : nodes) {
    node->Shutdown();
  }
  // Neighbours hold each other: the links are dropped so that every node goes.
  for (const NodePtr& node : nodes) {
    NodeList prev;
    NodeList next;
    {
      std::lock_guard<std::recursive_mutex> lock(node->m_nodeLock);
      prev.swap(node->m_prevNodes);
      next.swap(node->m_nextNodes);
      node->m_receivers.clear();
    }
  }
}

VideoVlinkNode::VideoVlinkNode(uint32_t id, OS_E_MPP_DEV_TYPE type)
    : m_nodeId(id), m_nodeType(type) {}

VideoVlinkNode::~VideoVlinkNode() { DealTaskHandler(true); }

uint32_t VideoVlinkNode::StartProcess() {
  if (t_startingNode == this) {
    VLOG_ERR("[%s] start called from inside its own start", m_nodeName.c_str());
    return 1;
  }
  std::lock_guard<std::mutex> lifecycle(m_lifecycleLock);
  if (m_shutDown) {
    // Destroyed while a bind still held it: a thread started now would have no owner left.
    VLOG_ERR("[%s] is destroyed, not started", m_nodeName.c_str());
    return 1;
  }
  if (IsStarted()) {
    return OnStartWhileStarted();
  }
  const VideoVlinkNode* outer = std::exchange(t_startingNode, this);
  uint32_t code = OnStart();
  t_startingNode = outer;
  if (code == 0 && m_shutDown) {
    // Destroyed by a host callback inside the start: undone, never marked started.
    VLOG_ERR("[%s] destroyed while starting", m_nodeName.c_str());
    OnStop();
    OnShutdown();
    code = 1;
  }
  if (code == 0) {
    m_isStart.store(true, std::memory_order_release);
  }
  return code;
}

uint32_t VideoVlinkNode::StopProcess() {
  if (t_startingNode == this) {
    VLOG_ERR("[%s] stop called from inside its own start", m_nodeName.c_str());
    return 1;
  }
  uint32_t code = 0;
  {
    std::lock_guard<std::mutex> lifecycle(m_lifecycleLock);
    if (!m_isStart.exchange(false, std::memory_order_acq_rel)) {
      return 0;
    }
    code = OnStop();
  }
  // Waited for without the lifecycle lock: a task's own follow-up work (a destroy asked for
  // from inside its callback) may need it.
  DealTaskHandler(true);
  return code;
}

void VideoVlinkNode::Shutdown() {
  if (t_startingNode == this) {
    m_shutDown = true;  // this thread holds m_lifecycleLock: the start undoes itself
    return;
  }
  {
    // Marked first, so that no start can slip in between the stop and the shutdown.
    std::lock_guard<std::mutex> lifecycle(m_lifecycleLock);
    if (m_shutDown) {
      return;
    }
    m_shutDown = true;
  }
  StopProcess();
  {
    std::lock_guard<std::mutex> lifecycle(m_lifecycleLock);
    OnShutdown();
  }
  DealTaskHandler(true);
}

bool VideoVlinkNode::RefusesLinks() const {
  if (!m_shutDown.load()) {
    return false;
  }
  VLOG_ERR_MODULE("[%s] is shut down: no new link", m_nodeName.c_str());
  return true;
}

uint32_t VideoVlinkNode::ConnectFromNode(NodePtr node) {
  if (!node) {
    return 1;
  }
  std::lock_guard<std::recursive_mutex> lock(m_nodeLock);
  if (RefusesLinks()) {
    return 1;
  }
  if (FindById(m_prevNodes, node->GetNodeId()) != m_prevNodes.end()) {
    VLOG_ERR_MODULE("[%s] m_prevNodes has m_nodeId[%u]", m_nodeName.c_str(), node->GetNodeId());
    return 1;
  }
  m_prevNodes.push_back(std::move(node));
  return 0;
}

namespace {

// True when `target` is `from` or lies downstream of it.
bool Reaches(const VideoVlinkNode::NodePtr& from, const VideoVlinkNode* target) {
  if (from.get() == target) {
    return true;
  }
  for (const VideoVlinkNode::NodePtr& next : from->GetNextConnectListCopy()) {
    if (Reaches(next, target)) {
      return true;
    }
  }
  return false;
}

}  // namespace

uint32_t VideoVlinkNode::ConnectToNode(NodePtr node) {
  if (!node) {
    return 1;
  }
  // Node ids are the host's: a sink id that names this node or one upstream of it would
  // make frames go round for ever.
  if (Reaches(node, this)) {
    VLOG_ERR_MODULE("[%s] Node[%u] would close a loop", m_nodeName.c_str(), node->GetNodeId());
    return 1;
  }
  std::lock_guard<std::recursive_mutex> lock(m_nodeLock);
  if (RefusesLinks()) {
    return 1;
  }
  if (FindById(m_nextNodes, node->GetNodeId()) != m_nextNodes.end()) {
    VLOG_ERR_MODULE("[%s] m_nextNodes has m_nodeId[%u]", m_nodeName.c_str(), node->GetNodeId());
    return 1;
  }
  m_receivers.push_back(node.get());
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
    m_receivers.erase(std::find(m_receivers.begin(), m_receivers.end(), removed.get()));
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

uint32_t VideoVlinkNode::HandleBuffer(FrameRef& /*frame*/) { return 1; }

void VideoVlinkNode::SetWaterMarkParam(uint32_t imgNo, bool enable, const std::string& content) {
  for (const NodePtr& next : GetNextConnectListCopy()) {
    next->SetWaterMarkParam(imgNo, enable, content);
  }
}

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

class VideoVlinkNode::NodeTask {
 public:
  enum class Kind { kHandoff, kReleases };

  NodeTask(std::shared_ptr<VideoVlinkNode> node, Kind kind, FrameRef frame = FrameRef())
      : m_node(std::move(node)), m_frame(std::move(frame)), m_kind(kind) {
    m_node->m_pendingTasks.fetch_add(1);
  }
  NodeTask(NodeTask&&) noexcept = default;
  NodeTask& operator=(NodeTask&&) = delete;
  NodeTask(const NodeTask&) = delete;
  NodeTask& operator=(const NodeTask&) = delete;
  ~NodeTask() {
    if (m_node) {
      if (!m_ran) {
        // Dropped unrun by a stopping pool: nobody else will take what it was to run.
        if (m_kind == Kind::kHandoff) {
          m_frame.Reset();
          m_node->AbandonHandoff();
        } else {
          std::lock_guard<std::mutex> lock(m_node->m_releaseLock);
          m_node->m_releaseRunning = false;
        }
      }
      m_node->FinishTask();
      // m_node goes last: if it was the last holder, the node is destroyed here with no
      // task of its own left to wait for.
    }
  }

  void operator()() {
    m_ran = true;
    const VideoVlinkNode* outer = std::exchange(t_runningNode, m_node.get());
    if (m_kind == Kind::kReleases) {
      m_node->RunReleases();  // runs its host callbacks without the node lock
    } else {
      std::vector<std::function<void()>> after;
      auto* outerAfter = std::exchange(t_afterHandoff, &after);
      m_node->RunHandoff(m_frame);
      t_afterHandoff = outerAfter;
      // Still counted as this node's running task, so a stop in there does not wait for it.
      for (std::function<void()>& work : after) {
        work();
      }
    }
    t_runningNode = outer;
  }

 private:
  std::shared_ptr<VideoVlinkNode> m_node;
  FrameRef m_frame;
  Kind m_kind;
  bool m_ran = false;
};

void VideoVlinkNode::RunHandoff(FrameRef& frame) {
  {
    // Frames offered before the node began any work do not count as offered while busy.
    std::lock_guard<std::mutex> lock(m_handoffLock);
    m_handling = true;
    m_arrivedWhileBusy = 0;
  }
  for (;;) {
    // Every accepted frame reaches HandleBuffer, also after a stop; only a node being
    // destroyed from inside its own host callback takes no further frame.
    if (!m_refusing.load(std::memory_order_acquire) && HandleBuffer(frame) != 0) {
      VLOG_PACED(::vlink::kPerFrameLogEvery, VLOG_ERR_MODULE, "[%s] HandleBuffer error!",
                 m_nodeName.c_str());
    }
    frame.Reset();
    std::lock_guard<std::mutex> lock(m_handoffLock);
    if (m_backlog.empty()) {
      m_handoffRunning = false;
      m_handling = false;
      return;
    }
    frame = std::move(m_backlog.front());
    m_backlog.pop_front();
    m_arrivedWhileBusy = 0;
  }
}

void VideoVlinkNode::AbandonHandoff() {
  NonblockingFifo<FrameRef> dropped;  // let go after the lock
  std::lock_guard<std::mutex> lock(m_handoffLock);
  std::swap(dropped, m_backlog);
  m_handoffRunning = false;
  m_handling = false;
}

void VideoVlinkNode::RunReleases() {
  for (;;) {
    {
      std::lock_guard<std::mutex> lock(m_releaseLock);
      if (m_released.empty()) {
        m_releaseRunning = false;
        return;
      }
      m_releasing.swap(m_released);
    }
    for (OsvGraphicBuffer* buffer : m_releasing) {
      ReleaseFrame(buffer);
    }
    m_releasing.clear();
  }
}

void VideoVlinkNode::FinishTask() {
  // Sequentially consistent with the waiter's announce-then-check (a store-load pair on
  // both sides): either it sees the count at zero or this sees it waiting.
  // A waiter inside one of this node's own tasks waits for one task left, not none.
  if (m_pendingTasks.fetch_sub(1) <= 2 && m_taskWaiters.load() > 0) {
    // Under the lock the waiter checks the count with, so the wake-up cannot fall between
    // its check and its wait.
    std::lock_guard<std::mutex> lock(m_taskLock);
    m_tasksDone.notify_all();
  }
}

bool VideoVlinkNode::AcceptFrame(FrameRef& frame, PoolTask& task) {
  static_assert(sizeof(NodeTask) <= PoolTask::kInlineSize,
                "a node task must fit the pool task's own storage: no allocation per hand-off");
  if (!m_isStart.load(std::memory_order_acquire) || m_refusing.load(std::memory_order_acquire) ||
      !frame) {
    return false;
  }
  // Let go after the lock: their release may queue a task. Two per offer at most, so a
  // backlog that grew while the node kept up shrinks back to the limit once it stalls.
  std::array<FrameRef, 2> dropped;
  size_t droppedCount = 0;
  {
    std::lock_guard<std::mutex> lock(m_handoffLock);
    if (!m_handoffRunning) {
      m_handoffRunning = true;
    } else {
      m_backlog.push_back(std::move(frame));
      m_arrivedWhileBusy += m_handling ? 1 : 0;
      while (droppedCount < dropped.size() && m_backlog.size() > kMaxBacklog &&
             m_arrivedWhileBusy > kMaxBacklog) {
        dropped[droppedCount++] = std::move(m_backlog.front());
        m_backlog.pop_front();
      }
    }
  }
  for (size_t i = 0; i < droppedCount; ++i) {
    dropped[i].Reset();
    VLOG_PACED(::vlink::kPerFrameLogEvery, VLOG_WRN_MODULE,
               "[%s] busy with %zu frames waiting: oldest dropped", m_nodeName.c_str(),
               kMaxBacklog);
  }
  if (!frame) {
    return true;  // left for the worker that runs this node now
  }
  // The task holds the node: it can never run on a destroyed one.
  std::shared_ptr<VideoVlinkNode> self = weak_from_this().lock();
  if (!self) {
    AbandonHandoff();  // being destroyed: nothing may queue for it any more
    return false;
  }
  task = NodeTask(std::move(self), NodeTask::Kind::kHandoff, std::move(frame));
  return true;
}

uint32_t VideoVlinkNode::QueueBuffer(FrameRef& frame) {
  PoolTask task;
  if (!AcceptFrame(frame, task)) {
    return 1;
  }
  // A pool that is stopping drops the task, and the task its frame.
  return !task || m_nodeThreadPool.Post(std::move(task)) ? 0 : 1;
}

void VideoVlinkNode::ReleaseBufferDeal(OsvGraphicBuffer* buffer) {
  {
    std::lock_guard<std::mutex> lock(m_releaseLock);
    m_released.push_back(buffer);
    if (m_releaseRunning) {
      return;  // the release task of this node takes it
    }
    m_releaseRunning = true;
  }
  std::shared_ptr<VideoVlinkNode> self = weak_from_this().lock();
  if (!self) {
    // Only a node that is being destroyed has no owner left; its frames are its own to
    // free in its destructor.
    RunReleases();
    return;
  }
  m_nodeThreadPool.Post(NodeTask(std::move(self), NodeTask::Kind::kReleases));
}

uint32_t VideoVlinkNode::SendBuffer(OsvGraphicBuffer* buffer) {
  if (buffer == nullptr) {
    return 0;
  }
  std::lock_guard<std::recursive_mutex> lock(m_nodeLock);
  // Held for the whole call so that a receiver releasing early cannot return the frame to
  // its producer while it is still being handed out.
  FrameRef guard = FrameRef::Share(buffer);
  if (m_nextNodes.empty()) {
    VLOG_PACED(::vlink::kPerFrameLogEvery, VLOG_ERR_MODULE, "[%s] m_nextNodes is empty!",
               m_nodeName.c_str());
    return 0;
  }
  // At a paced rate every receiver's state is cold: asked for all at once, the misses
  // overlap instead of coming one receiver after another.
  for (VideoVlinkNode* next : m_receivers) {
    next->PrefetchHandoffState();
  }
  // The receivers that need a task get theirs in one batch: one hold of the pool's locks
  // per frame, however many receivers there are.
  constexpr size_t kBatch = 16;
  std::array<PoolTask, kBatch> tasks;
  size_t count = 0;
  for (VideoVlinkNode* next : m_receivers) {
    FrameRef share = guard.Clone();
    if (next->AcceptFrame(share, tasks[count]) && tasks[count]) {  // a refused share drops here
      ++count;
    }
    if (count == kBatch) {
      m_nodeThreadPool.PostBatch(tasks.data(), count);
      count = 0;
    }
  }
  if (count != 0) {
    m_nodeThreadPool.PostBatch(tasks.data(), count);
  }
  return 0;
}

uint32_t VideoVlinkNode::SendBuffer(const NodePtr& next, OsvGraphicBuffer* buffer) {
  if (!next || buffer == nullptr) {
    return 1;
  }
  std::lock_guard<std::recursive_mutex> lock(m_nodeLock);
  FrameRef share = FrameRef::Share(buffer);
  return next->QueueBuffer(share);
}

void VideoVlinkNode::DealTaskHandler(bool waitAll) {
  if (!waitAll) {
    return;
  }
  // Called from inside one of this node's tasks (a host callback stopping its own node), the
  // running task is not waited for: it finishes when the callback returns.
  const size_t own = t_runningNode == this ? 1 : 0;
  std::unique_lock<std::mutex> lock(m_taskLock);
  m_taskWaiters.fetch_add(1);
  m_tasksDone.wait(lock, [this, own] { return m_pendingTasks.load() <= own; });
  m_taskWaiters.fetch_sub(1);
}

int VideoVlinkNode::DeleteNodeByUnique(uint32_t id) {
  // Stopped and shut down outside the registry lock: its threads may look nodes up.
  std::optional<NodePtr> node = m_nodeManager->GetInstance<VideoVlinkNode>(id);
  if (!node || !*node) {
    return 1;
  }
  return DeleteNode(*node);
}

int VideoVlinkNode::DeleteNode(const NodePtr& node) {
  node->Shutdown();
  // Only the node shut down here: another host thread may have put a new one under the id,
  // which must not leave the registry still running.
  return m_nodeManager->DeleteInstance(node->GetNodeId(), node);
}

bool VideoVlinkNode::DeferUntilOwnHandoffEnds(std::function<void()> work) {
  if (t_runningNode != this || t_afterHandoff == nullptr) {
    return false;
  }
  t_afterHandoff->push_back(std::move(work));
  return true;
}
