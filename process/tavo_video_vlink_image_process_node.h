// The conversion node between an input and the sinks that want another pixel format or
// size. Sinks with the same requirement share one conversion and one pooled stream of
// converted buffers, so a frame is converted once per distinct requirement.
#pragma once

#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <mutex>

#include "core/tavo_video_frame_ref.h"
#include "core/tavo_video_vlink_node.h"

// A step of the task tree: its own buffer pool and the sinks fed by its output.
struct ImageProcessTask {
  std::list<OsvGraphicBuffer*> buffers;  // owned by the task
  VideoVlinkNode::NodeList nextNodes;
};

// A scale to width x height in format.
struct ImageProcessSizeTask : ImageProcessTask {
  uint32_t width = 0;
  uint32_t height = 0;
  uint32_t format = 0;
};

// A conversion to dstFormat at the source size (latched from the first frame converted);
// its pool holds I420 buffers of that size.
struct ImageProcessFormatTask : ImageProcessSizeTask {
  uint32_t dstFormat = 0;
  std::list<std::shared_ptr<ImageProcessSizeTask>> sizeTasks;
};

// The root: its sinks take the input as it comes.
struct ImageProcessOriginTask : ImageProcessTask {
  std::map<uint32_t, std::shared_ptr<ImageProcessFormatTask>> formatTasks;
};

struct ImageProcessTree {
  // Guards the whole tree. Held while frames are handed to
  // the sinks (SendBuffer, so before their task locks); no host callback runs under it.
  std::recursive_mutex lock;
  std::shared_ptr<ImageProcessOriginTask> taskRoot;
  std::list<std::shared_ptr<ImageProcessSizeTask>> sizeTasks;  // in creation order
};

class PoolBufferTracker;

class ImageProcessNode : public VideoVlinkNode {
 public:
  static constexpr size_t kMaxBuffersPerTask = 10;

  explicit ImageProcessNode(uint32_t nodeId);
  ~ImageProcessNode() override;

  // One upstream node only.
  uint32_t ConnectFromNode(NodePtr node) override;
  // Also places the sink in the task tree.
  uint32_t ConnectToNode(NodePtr node) override;
  // A sink that goes is taken out of the tree (forced: its buffers are dropped, those still
  // held downstream parked until they come back).
  uint32_t DisconnectFromNode(NodePtr node, bool isNext) override;
  uint32_t HandleBuffer(FrameRef& frame) override;

  uint32_t InsertImageProcess(const NodePtr& sink);
  uint32_t RemoveImageProcess(const NodePtr& sink, bool force);
  // Re-reads a sink's requirement after it changed.
  uint32_t ResetImageProcess(const NodePtr& sink);

  // A free buffer of the task's pool, held by `out` while it is filled and handed on.
  uint32_t GetOneBuffer(const std::shared_ptr<ImageProcessSizeTask>& task, FrameRef& out);
  // One step each; `out` holds the result (the input itself when the step has nothing to do).
  uint32_t TransformFormat(const std::shared_ptr<ImageProcessFormatTask>& task,
                           OsvGraphicBuffer* in, FrameRef& out);
  uint32_t TransformSize(const std::shared_ptr<ImageProcessSizeTask>& task, OsvGraphicBuffer* in,
                         FrameRef& out);
  // Drops one pool buffer: deleted at once when free, else parked and deleted when its last
  // holder lets go. Forced or not: a sink that was unbound without being stopped may still
  // hold one, and it must stay valid until that holder releases it.
  void DealBuffer(OsvGraphicBuffer* buffer, bool force);

  // For diagnostics and tests: tasks in the tree, pool buffers and parked buffers.
  size_t GetFormatTaskCount();
  size_t GetSizeTaskCount();
  size_t GetPoolBufferCount();
  size_t GetReleaseBufferCount();

 protected:
  uint32_t OnStart() override;
  uint32_t OnStop() override;

 private:
  ImageProcessTree m_processTree;
  // The release target of every pool buffer: knows which ones are downstream and keeps the
  // parked ones until their last holder lets go. Shared with the buffers, so it outlives
  // the node while any of them is still held.
  std::shared_ptr<PoolBufferTracker> m_releaseBuffers;
};
