// A builder connects outputs to one input node and takes them off again.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <list>
#include <mutex>
#include <string>

#include "core/tavo_video_node_link.h"
#include "core/tavo_video_vlink_node.h"
#include "tavo_video_vlink_component.h"

// Logs the failed step of a link made for a bind, in the bind's words. A macro, so that the
// line names the operation and file that made the link.
#define VLINK_REPORT_LINK_FAILURE(link, receiverId)            \
  do {                                                         \
    switch ((link).failed) {                                   \
      case ::vlink::LinkStep::kSenderSide:                     \
        VLOG_ERR("ConnectToNode failed!");                     \
        break;                                                 \
      case ::vlink::LinkStep::kReceiverSide:                   \
        VLOG_ERR("ConnectFromNode failed!");                   \
        break;                                                 \
      case ::vlink::LinkStep::kStart:                          \
        VLOG_ERR("Vo[%u] StartProcess failed!", (receiverId)); \
        break;                                                 \
      case ::vlink::LinkStep::kNone:                           \
        break;                                                 \
    }                                                          \
  } while (0)

class VlinkBuilder {
 public:
  using NodePtr = VideoVlinkNode::NodePtr;

  VlinkBuilder(uint32_t viNodeId, OS_E_MPP_DEV_TYPE type);
  virtual ~VlinkBuilder() = default;
  VlinkBuilder(const VlinkBuilder&) = delete;
  VlinkBuilder& operator=(const VlinkBuilder&) = delete;

  // 0 on success; 1 for a missing node, else the failing node operation's code.
  virtual uint32_t BindVo(uint32_t voNodeId) = 0;
  virtual uint32_t UnBindVo(uint32_t voNodeId) = 0;
  virtual uint32_t UpdateVoParam(uint32_t voNodeId, OS_E_MPP_DEV_TYPE voType,
                                 tagTavoVideoComponentParam* param);

  // Ids for nodes a builder inserts: 10001, 10002, ... for the life of the process.
  static uint32_t GenNodeId();
  // The node type of a registered node, or OS_E_MPP_DEV_BUTT (17) when there is none.
  static uint32_t GetNodeType(uint32_t nodeId);
  // "NAME->(NEXT1,NEXT2) " for node, then the same for each downstream node, depth first.
  static std::string GetNodeString(const NodePtr& node);
  // Links cur -> next in both directions and starts next.
  static uint32_t ConnectAndStartNode(const NodePtr& cur, const NodePtr& next);
  // The path from an output back to the input targetId, nearest node first, passing only
  // through processing nodes. 0 when found.
  static uint32_t FindNodeList(uint32_t targetId, const NodePtr& node, std::list<NodePtr>& out);

  // Takes voNode off the link of input viNodeId, then stops, unlinks and deletes every
  // processing node the removal left without outputs, climbing towards the input.
  uint32_t UnBindNode(uint32_t viNodeId, const NodePtr& voNode);
  // Registers a conversion node under a generated id, marks it inserted, links it after
  // viNode and starts it; its id goes to nodeId. Nothing is rolled back on failure.
  static uint32_t CreateImageProcessNode(const NodePtr& viNode, uint32_t& nodeId);
  // What a builder adds to a direct-sink bind.
  struct DirectBindSteps {
    // Finds the input (default: any node under the builder's input id).
    std::function<NodePtr()> findInput;
    // Runs once both nodes are found, before the first bind starts the input; m_bindLock
    // held. A non-zero code ends the bind with it.
    std::function<uint32_t(const NodePtr& input, const NodePtr& sink)> beforeStart;
    // Runs after the link step, whatever it returned.
    std::function<void(const NodePtr& input)> afterConnect;
    // Logs "Vi[%u] Vo[%u] ConnectAndStartNode failed!" after a failed link step.
    bool reportLinkFailure = true;
  };
  // BindVo of links whose sinks hang directly off the input: starts the input on the first
  // bind, then links and starts the sink. Nothing made before a failing step is undone.
  uint32_t BindDirectSink(uint32_t voNodeId, const DirectBindSteps& steps);
  // UnBindVo of links whose sinks hang directly off the input: looks the sink up and runs
  // the generic tear-down.
  uint32_t UnBindDirectSink(uint32_t voNodeId);
  std::string GetLinkString() const;
  uint32_t GetViNodeId() const { return m_viNodeId; }
  OS_E_MPP_DEV_TYPE GetViNodeType() const { return m_viNodeType; }

 protected:
  const uint32_t m_viNodeId;
  // Serialises binds and unbinds of this link (host threads may race them) and guards
  // m_isFirstBind. Taken before any node lock. Host callbacks that may run under it: the
  // encoder create callback (a sink's start). Held across a whole bind, but no frame is
  // queued under it: starting an input starts its thread (or opens it to the host's
  // frames), which sends without this lock.
  std::mutex m_bindLock;
  bool m_isFirstBind = true;  // the input is started by the first bind that succeeds
  const OS_E_MPP_DEV_TYPE m_viNodeType;

 private:
  static std::atomic<uint32_t> m_nameSlot;
};
