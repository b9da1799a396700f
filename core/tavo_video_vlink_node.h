// The base of every node of a link: identity, neighbours, frame hand-off on the worker
// pool, frame release back to the producer, and the registry entry points.
#pragma once

#include <atomic>
#include <cstdint>
#include <future>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "trace/tavo_video_vlink_log.h"
#include "core/tavo_video_instance_manager.h"
#include "core/tavo_video_thread_pool.h"
#include "osv_graphic_buffer.h"

// Node type, fixed by each node class.
enum OS_E_MPP_DEV_TYPE : uint32_t {
  OS_E_MPP_DEV_CAMERA = 0,
  OS_E_MPP_DEV_VO = 4,
  OS_E_MPP_DEV_VENC = 5,
  OS_E_MPP_DEV_VDEC = 6,
  OS_E_MPP_DEV_VI = 9,
  OS_E_MPP_DEV_VIRTUAL_CAMERA = 11,
  OS_E_MPP_DEV_TEST = 13,
  OS_E_MPP_DEV_IMAGE_PROCESS = 15,
  OS_E_MPP_DEV_BACKGROUND = 16,
  OS_E_MPP_DEV_BUTT = 17,  // no such node
};

// What a sink wants from its input.
struct VideoNodeRequirement {
  uint8_t needProcess;
  uint32_t width;
  uint32_t height;
  uint32_t format;
};

class VideoVlinkNode : public OsvReleaseBase<OsvGraphicBuffer>,
                       public std::enable_shared_from_this<VideoVlinkNode> {
 public:
  using NodePtr = std::shared_ptr<VideoVlinkNode>;
  using NodeList = std::list<NodePtr>;

  VideoVlinkNode(uint32_t id, OS_E_MPP_DEV_TYPE type);
  VideoVlinkNode(const VideoVlinkNode&) = delete;
  VideoVlinkNode& operator=(const VideoVlinkNode&) = delete;

  // Called by a buffer this node produced when its last holder lets go, on that holder's
  // thread; queues ReleaseFrame on the pool, also when the node is stopped.
  void ReleaseBufferDeal(OsvGraphicBuffer* buffer) override;
  // Waits for every task of this node first: a node is never freed under a running task.
  ~VideoVlinkNode() override;

  // Subclasses call the base first, then start or stop their own work and set or clear
  // m_isStart. The base stop waits for every queued task of this node; never call it from
  // one of them.
  virtual uint32_t StartProcess();
  virtual uint32_t StopProcess();
  // One half of a link each; neighbours are matched by node id. 1 when already linked.
  virtual uint32_t ConnectFromNode(NodePtr node);
  virtual uint32_t ConnectToNode(NodePtr node);
  // Removes node from the upstream list, else from the downstream list; isNext says which
  // side the caller means, for subclasses that keep state per neighbour.
  virtual uint32_t DisconnectFromNode(NodePtr node, bool isNext);
  virtual uint32_t GetNodeResolution(uint32_t& width, uint32_t& height, uint32_t& frameRate);
  // Takes back a frame this node produced; runs on the pool, possibly concurrently.
  virtual void ReleaseFrame(OsvGraphicBuffer* buffer);
  virtual void GetRequirement(VideoNodeRequirement& requirement) const;
  virtual void SetRequirement(VideoNodeRequirement& requirement);
  // 0: the node took the frame's reference and drops or passes it on itself. Non-zero:
  // the task drops it. Runs on the pool, possibly concurrently for one node.
  virtual uint32_t HandleBuffer(OsvGraphicBuffer* buffer);

  OS_E_MPP_DEV_TYPE GetNodeType() const { return m_nodeType; }
  uint32_t GetNodeId() const { return m_nodeId; }
  const std::string& GetNodeName() const { return m_nodeName; }
  NodeList& GetPrevConnectList() { return m_prevNodes; }
  NodeList& GetNextConnectList() { return m_nextNodes; }
  bool GetIsViVoNode() const { return m_isViVoNode; }
  void SetNotViVoFlag() { m_isViVoNode = false; }
  uint32_t GetViNodeId() const { return m_viNodeId; }
  void SetViNodeId(uint32_t id) { m_viNodeId = id; }
  bool IsStarted() const { return m_isStart.load(std::memory_order_acquire); }
  bool HasNextNodes();
  // Copies of the neighbour lists taken under the node lock, for walking a link while
  // frames flow.
  NodeList GetPrevConnectListCopy();
  NodeList GetNextConnectListCopy();

  // 0 when a hand-off task was queued, 1 when this node is not started (or the pool is
  // stopping).
  uint32_t QueueBuffer(OsvGraphicBuffer* buffer);
  // Gives every started downstream node one reference and one task; the caller's own
  // reference is left as it was. Always 0.
  uint32_t SendBuffer(OsvGraphicBuffer* buffer);
  // The same to one node, which need not be a neighbour; 1 when it refused.
  uint32_t SendBuffer(const NodePtr& next, OsvGraphicBuffer* buffer);
  // false: forget finished tasks without blocking; true: wait for every pending task.
  void DealTaskHandler(bool waitAll);
  // Number of tasks queued by this node and not yet reaped.
  size_t GetPendingTaskCount();

  template <class T>
  static NodePtr CreateNodeByUnique(uint32_t id);
  template <class T>
  static std::shared_ptr<T> GetNodeByUnique(uint32_t id);
  static int DeleteNodeByUnique(uint32_t id);

  static InstanceManager<VideoVlinkNode>* m_nodeManager;
  static ThreadPool m_nodeThreadPool;

 protected:
  // Lock order: a sender's node lock, then the receiver's task lock, then the pool's locks.
  std::recursive_mutex m_nodeLock;  // guards m_prevNodes and m_nextNodes
  uint32_t m_nodeId;
  std::atomic<bool> m_isStart{false};
  std::string m_nodeName;

 private:
  // Reaping and queuing share one hold of the task lock: this is the hot path.
  uint32_t QueueTask(std::function<int()> task);
  void ReapFinishedTasks();  // m_taskLock held

  OS_E_MPP_DEV_TYPE m_nodeType;
  bool m_isViVoNode = true;
  NodeList m_prevNodes;
  NodeList m_nextNodes;
  uint32_t m_viNodeId = 0xFFFFFFFFU;
  std::map<std::promise<void>*, std::future<void>> m_pendingTasks;  // guarded by m_taskLock
  std::mutex m_taskLock;
  VideoNodeRequirement m_requirement{};  // guarded by m_nodeLock
};

template <class T>
VideoVlinkNode::NodePtr VideoVlinkNode::CreateNodeByUnique(uint32_t id) {
  uint32_t key = id;
  uint32_t arg = id;
  std::optional<NodePtr> node = m_nodeManager->CreateInstance<T>(key, arg);
  if (!node || !*node) {
    return nullptr;
  }
  VLOG_INF_TRACE("Create Node[%d] success!", id);
  return *node;
}

template <class T>
std::shared_ptr<T> VideoVlinkNode::GetNodeByUnique(uint32_t id) {
  std::optional<std::shared_ptr<T>> node = m_nodeManager->GetInstance<T>(id);
  if (!node) {
    VLOG_INF_TRACE("Node[%d] is not existed", id);
    return nullptr;
  }
  return *node;
}
