// Small nodes for driving the graph core in tests.
#pragma once

#include <atomic>
#include <functional>

#include "core/tavo_video_node_link.h"
#include "core/tavo_video_vlink_node.h"
#include "tests/support/wait.h"

// A node that can be started and that counts what reaches it. HandleBuffer runs `onFrame`
// (if set), keeps the frame for `keep` (if set) and returns `handleResult`.
class CountingNode : public VideoVlinkNode {
 public:
  explicit CountingNode(uint32_t id, OS_E_MPP_DEV_TYPE type = OS_E_MPP_DEV_VENC)
      : VideoVlinkNode(id, type) {
    m_nodeName = "TEST_" + std::to_string(id);
  }
  ~CountingNode() override {
    if (onDestroy) {
      onDestroy();
    }
  }

  uint32_t HandleBuffer(FrameRef& frame) override {
    if (onFrame) {
      onFrame(frame.Get());
    }
    if (keep) {
      keep(std::move(frame));
    }
    // Let go before counting: a test that saw the count may end, and its frame with it.
    frame.Reset();
    handled.Add();
    return handleResult;
  }
  void ReleaseFrame(OsvGraphicBuffer* buffer) override {
    if (onRelease) {
      onRelease(buffer);
    }
    released.Add();
  }

 protected:
  uint32_t OnStart() override { return startResult; }
  uint32_t OnStop() override {
    stopping.Add();
    return 0;
  }

 public:
  std::function<void(OsvGraphicBuffer*)> onFrame;
  std::function<void(FrameRef)> keep;
  std::function<void(OsvGraphicBuffer*)> onRelease;
  std::function<void()> onDestroy;
  CountLatch stopping;  // bumped when a stop has begun (the started flag is already clear)
  uint32_t handleResult = 0;
  uint32_t startResult = 0;  // what a start returns
  CountLatch handled;
  CountLatch released;
};

// Links producer -> consumer in both directions, as builders do.
inline void Link(const VideoVlinkNode::NodePtr& producer, const VideoVlinkNode::NodePtr& consumer) {
  vlink::LinkNodes(producer, consumer, {.startReceiver = false});
}

// Takes both halves of the link down again; neighbours keep each other alive until then.
inline void Unlink(const VideoVlinkNode::NodePtr& producer,
                   const VideoVlinkNode::NodePtr& consumer) {
  vlink::UnlinkNodes(producer, consumer);
}
