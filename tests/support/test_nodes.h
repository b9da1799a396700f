// Small nodes for driving the graph core in tests.
#pragma once

#include <atomic>
#include <functional>

#include "core/tavo_video_vlink_node.h"
#include "tests/support/wait.h"

// A node that can be started and that counts what reaches it. HandleBuffer runs `onFrame`
// (if set) and returns `handleResult`; on 0 it drops the frame's reference itself.
class CountingNode : public VideoVlinkNode {
 public:
  explicit CountingNode(uint32_t id, OS_E_MPP_DEV_TYPE type = OS_E_MPP_DEV_VENC)
      : VideoVlinkNode(id, type) {
    m_nodeName = "TEST_" + std::to_string(id);
  }
  // Tasks call back into this class, so they must be finished before its part goes.
  ~CountingNode() override { DealTaskHandler(true); }

  uint32_t StartProcess() override {
    VideoVlinkNode::StartProcess();
    m_isStart = true;
    return 0;
  }
  uint32_t StopProcess() override {
    VideoVlinkNode::StopProcess();
    m_isStart = false;
    return 0;
  }
  uint32_t HandleBuffer(OsvGraphicBuffer* buffer) override {
    if (onFrame) {
      onFrame(buffer);
    }
    handled.Add();
    if (handleResult == 0) {
      buffer->DecreaseRef();
    }
    return handleResult;
  }
  void ReleaseFrame(OsvGraphicBuffer* buffer) override {
    if (onRelease) {
      onRelease(buffer);
    }
    released.Add();
  }

  std::function<void(OsvGraphicBuffer*)> onFrame;
  std::function<void(OsvGraphicBuffer*)> onRelease;
  uint32_t handleResult = 0;
  CountLatch handled;
  CountLatch released;
};

// Links producer -> consumer in both directions, as builders do.
inline void Link(const VideoVlinkNode::NodePtr& producer, const VideoVlinkNode::NodePtr& consumer) {
  producer->ConnectToNode(consumer);
  consumer->ConnectFromNode(producer);
}

// Takes both halves of the link down again; neighbours keep each other alive until then.
inline void Unlink(const VideoVlinkNode::NodePtr& producer,
                   const VideoVlinkNode::NodePtr& consumer) {
  producer->DisconnectFromNode(consumer, true);
  consumer->DisconnectFromNode(producer, false);
}
