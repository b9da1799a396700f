// The base of every node of a link: identity, neighbours, frame hand-off on the worker
// pool, frame release back to the producer, and the registry entry points.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "core/tavo_video_frame_ref.h"
#include "core/tavo_video_instance_manager.h"
#include "core/tavo_video_nonblocking_queue.h"
#include "core/tavo_video_thread_pool.h"
#include "osv_graphic_buffer.h"
#include "trace/tavo_video_vlink_log.h"

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
  // Every task holds its node, so by the time the destructor runs no task is left.
  ~VideoVlinkNode() override;

  // The lifecycle lives here; subclasses add hooks and never repeat it.
  // StartProcess: 0 at once when started (OnStartWhileStarted decides what a repeated start
  // says), else OnStart(); its 0 marks the node started.
  // StopProcess: nothing when stopped; else marks the node stopped (new frames are refused
  // from here on), runs OnStop() (stop and join the node's threads there, without holding
  // the node lock), then waits for every task of this node already queued, except the one
  // the calling thread is running (a host callback stopping its own node).
  // A node that was shut down is never started again (1).
  uint32_t StartProcess();
  uint32_t StopProcess();
  // Run once by the registry before it lets the node go, outside the registry lock:
  // StopProcess, then OnShutdown for what outlives a stop (threads, caches), then waits
  // for the releases still queued.
  void Shutdown();
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
  // The node moves the frame out of `frame` to keep it or pass it on; whatever is left
  // there is dropped by the task. Non-zero is logged as a failure. Runs on the pool,
  // possibly concurrently for one node.
  virtual uint32_t HandleBuffer(FrameRef& frame);

  // A source's watermark setting for the frames stamped with imgNo. A node that does not
  // show frames passes it on downstream, so it reaches previews behind inserted nodes too.
  virtual void SetWaterMarkParam(uint32_t imgNo, bool enable, const std::string& content);

  OS_E_MPP_DEV_TYPE GetNodeType() const { return m_nodeType; }
  uint32_t GetNodeId() const { return m_nodeId; }
  const std::string& GetNodeName() const { return m_nodeName; }
  // Read-only: the lists change only through Connect and Disconnect.
  const NodeList& GetPrevConnectList() const { return m_prevNodes; }
  const NodeList& GetNextConnectList() const { return m_nextNodes; }
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

  // 0 when a hand-off task was queued (the task took `frame`), 1 when this node is not
  // started or the pool is stopping (`frame` is left with the caller).
  uint32_t QueueBuffer(FrameRef& frame);
  // Gives every started downstream node a reference and a task; the caller's own reference
  // is left as it was. Always 0.
  uint32_t SendBuffer(OsvGraphicBuffer* buffer);
  // The same to one node, which need not be a neighbour; 1 when it refused.
  uint32_t SendBuffer(const NodePtr& next, OsvGraphicBuffer* buffer);
  // false: returns at once (finished tasks need no reaping); true: waits until every task
  // this node queued has run, including tasks queued while it waits.
  void DealTaskHandler(bool waitAll);
  // Number of tasks queued by this node that have not finished.
  size_t GetPendingTaskCount() const { return m_pendingTasks.load(std::memory_order_acquire); }

  template <class T>
  static NodePtr CreateNodeByUnique(uint32_t id);
  template <class T>
  static std::shared_ptr<T> GetNodeByUnique(uint32_t id);
  static int DeleteNodeByUnique(uint32_t id);
  // Shuts node down and takes it out of the registry, unless another node has taken its id.
  static int DeleteNode(const NodePtr& node);
  // Called from inside a host callback of one of this node's hand-off tasks (this node's
  // lock is held further up the stack): queues `work` to run on this thread once the
  // hand-off has returned, without that lock, and gives true. False anywhere else.
  bool DeferUntilOwnHandoffEnds(std::function<void()> work);
  // From now on this node takes no frame (a destroy waiting for the end of its hand-off).
  void RefuseFrames() { m_refusing.store(true, std::memory_order_release); }
  // Empties the registry, shutting every node down and dropping its links; run when the
  // library goes away.
  static void ShutdownAll();

  // Frames offered to a node stuck in one HandleBuffer beyond this are dropped, oldest
  // first, so a sink that stalls cannot hoard every frame of a source that allocates per
  // frame.
  static constexpr size_t kMaxBacklog = 64;

  static InstanceManager<VideoVlinkNode>* m_nodeManager;
  static ThreadPool m_nodeThreadPool;

 protected:
  // Lifecycle hooks, called by StartProcess, StopProcess and Shutdown with no lock of the
  // base held. OnStart's non-zero code fails the start and is returned as it is.
  virtual uint32_t OnStart() { return 0; }
  virtual uint32_t OnStartWhileStarted() { return 0; }
  virtual uint32_t OnStop() { return 0; }
  virtual void OnShutdown() {}

  // Lock order: a sender's node lock, then the receiver's task lock, then the pool's locks.
  // Host callbacks that may run under it: the render callback (preview) and the encoder
  // frame callback; never the decoder release or first-frame callbacks. SendBuffer queues
  // every receiver's task under it, so the receiver list cannot change while a frame's batch
  // is made; no task runs under it. Recursive: a node's own operations nest.
  std::recursive_mutex m_nodeLock;  // guards m_prevNodes, m_nextNodes, m_requirement
  uint32_t m_nodeId;
  std::string m_nodeName;
  // What every hand-off reads, with the fields below it, on neighbouring cache lines: at a
  // paced frame rate they are cold, and each line costs a miss per receiver per frame.
  std::atomic<bool> m_isStart{false};
  std::atomic<bool> m_refusing{false};

 private:
  // One task of this node on the pool: a hand-off or a release run. It holds its node, is
  // counted in when made and counted out when destroyed, whether it ran or not, so
  // DealTaskHandler(true) sees every task that could still touch the node.
  class NodeTask;
  // Takes `frame` for this node: into a new hand-off task (returned) when no worker is
  // handing this node its frames, else into the backlog (empty task returned). false, with
  // `frame` left alone, when the node is not started or is being destroyed.
  bool AcceptFrame(FrameRef& frame, PoolTask& task);
  // The worker that runs this node's hand-off: `frame`, then the backlog in order.
  void RunHandoff(FrameRef& frame);
  // A hand-off task the pool dropped unrun: nobody will drain the backlog, so it goes.
  void AbandonHandoff();
  // The worker that runs this node's releases: every released frame, in order, until none
  // is left.
  void RunReleases();
  void FinishTask();
  // With m_nodeLock held: true (logged) once the node is shut down.
  bool RefusesLinks() const;
  // Starts loading what AcceptFrame reads.
  void PrefetchHandoffState() const {
    __builtin_prefetch(this);  // the node's own pointer to itself
    __builtin_prefetch(&m_isStart);
    __builtin_prefetch(&m_handoffRunning);
  }

  std::atomic<size_t> m_pendingTasks{0};
  std::atomic<int> m_taskWaiters{0};  // threads inside DealTaskHandler(true)
  // One worker at a time hands this node its frames: a node whose host callback blocks ties
  // up one worker of the shared pool, never all of them. Frames offered while a hand-off
  // task is queued or running wait here for it, so a busy node costs no task and no
  // wake-up per frame. Beyond kMaxBacklog frames that came while the node made no progress
  // (no new HandleBuffer began), the oldest go; a node that keeps up keeps them all.
  // A growing ring: queuing a frame allocates nothing once it has grown.
  std::mutex m_handoffLock;       // guards the four below; held by no host callback
  bool m_handoffRunning = false;  // a hand-off task is queued or running
  bool m_handling = false;        // that task has begun handing frames over
  NonblockingFifo<FrameRef> m_backlog;
  size_t m_arrivedWhileBusy = 0;  // frames offered since the last HandleBuffer began
  OS_E_MPP_DEV_TYPE m_nodeType;
  bool m_isViVoNode = true;
  NodeList m_prevNodes;
  NodeList m_nextNodes;
  // m_nextNodes in order, side by side, for the hand-off: walking the list's nodes is a
  // chain of cache misses at a paced frame rate, these are read at once. Its entries are
  // held by m_nextNodes; guarded by m_nodeLock.
  std::vector<VideoVlinkNode*> m_receivers;
  uint32_t m_viNodeId = 0xFFFFFFFFU;
  // Serialises start, stop and shutdown. Host callbacks that may run under it: the encoder
  // create callback (a start). From inside it, a start or stop of the same node is refused
  // (1) and a destroy makes the start undo itself and fail. No frame is queued under it: a
  // node's threads send without it, and a stop refuses new frames before it waits for the
  // queued ones.
  std::mutex m_lifecycleLock;
  // Written under m_lifecycleLock. Atomic because the links also read it, with m_nodeLock
  // held, in the same hold that adds a neighbour: it is set before a node's links are
  // dropped, so a link made by a bind that raced with the shutdown is either dropped with
  // the others or refused (a shut-down node that gained a neighbour would hold it, and be
  // held by it, for good).
  std::atomic<bool> m_shutDown{false};
  // Frames this node produced whose last holder let go, waiting for the one release task
  // of this node; swapped with m_releasing by that task, so both keep their capacity.
  std::mutex m_releaseLock;  // guards the two below; held by no host callback
  bool m_releaseRunning = false;
  std::vector<OsvGraphicBuffer*> m_released;
  std::vector<OsvGraphicBuffer*> m_releasing;  // the release task's own
  std::mutex m_taskLock;  // pairs with m_tasksDone; held by no task and no host callback
  std::condition_variable m_tasksDone;
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
