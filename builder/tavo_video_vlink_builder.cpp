#include "builder/tavo_video_vlink_builder.h"

#include <mutex>

#include "process/tavo_video_vlink_image_process_node.h"

// Logs the failed half of an unlink in the tear-down's words; a macro, so that the line
// names the tear-down.
#define VLINK_REPORT_UNLINK_FAILURE(unlink, sender, receiver)                          \
  do {                                                                                 \
    if ((unlink).failed == vlink::LinkStep::kSenderSide) {                             \
      VLOG_ERR("[%s] Disconnect to [%s] failed!", (sender)->GetNodeName().c_str(),     \
               (receiver)->GetNodeName().c_str());                                     \
    } else {                                                                           \
      VLOG_ERR("[%s] Disconnect from [%s] failed!", (receiver)->GetNodeName().c_str(), \
               (sender)->GetNodeName().c_str());                                       \
    }                                                                                  \
  } while (0)

std::atomic<uint32_t> VlinkBuilder::m_nameSlot{10000};

VlinkBuilder::VlinkBuilder(uint32_t viNodeId, OS_E_MPP_DEV_TYPE type)
    : m_viNodeId(viNodeId), m_viNodeType(type) {}

uint32_t VlinkBuilder::UpdateVoParam(uint32_t /*voNodeId*/, OS_E_MPP_DEV_TYPE /*voType*/,
                                     tagTavoVideoComponentParam* /*param*/) {
  return 0;
}

uint32_t VlinkBuilder::GenNodeId() { return m_nameSlot.fetch_add(1) + 1; }

uint32_t VlinkBuilder::GetNodeType(uint32_t nodeId) {
  NodePtr node = VideoVlinkNode::GetNodeByUnique<VideoVlinkNode>(nodeId);
  if (!node) {
    VLOG_ERR("node is nullptr");
    return OS_E_MPP_DEV_BUTT;
  }
  return node->GetNodeType();
}

std::string VlinkBuilder::GetNodeString(const NodePtr& node) {
  if (!node) {
    return {};
  }
  const VideoVlinkNode::NodeList next = node->GetNextConnectListCopy();
  if (next.empty()) {
    return {};
  }
  std::string text = node->GetNodeName() + "->(";
  bool first = true;
  for (const NodePtr& n : next) {
    if (!first) {
      text += ",";
    }
    first = false;
    text += n->GetNodeName();
  }
  text += ") ";
  for (const NodePtr& n : next) {
    text += GetNodeString(n);
  }
  return text;
}

std::string VlinkBuilder::GetLinkString() const {
  NodePtr viNode = VideoVlinkNode::GetNodeByUnique<VideoVlinkNode>(m_viNodeId);
  if (!viNode) {
    VLOG_ERR("vi node is nullptr");
    return {};
  }
  return GetNodeString(viNode);
}

uint32_t VlinkBuilder::ConnectAndStartNode(const NodePtr& cur, const NodePtr& next) {
  if (!cur) {
    VLOG_ERR("curNode is nullptr");
    return 1;
  }
  if (!next) {
    VLOG_ERR("nextNode is nullptr");
    return 1;
  }
  // A failed bind keeps what it made: the host unbinds a partial link.
  const vlink::LinkResult link = vlink::LinkNodes(cur, next);
  VLINK_REPORT_LINK_FAILURE(link, next->GetNodeId());
  return link.code;
}

uint32_t VlinkBuilder::FindNodeList(uint32_t targetId, const NodePtr& node,
                                    std::list<NodePtr>& out) {
  if (!node) {
    return 1;
  }
  for (const NodePtr& prev : node->GetPrevConnectListCopy()) {
    if (prev->GetNodeId() == targetId) {
      out.push_front(prev);
      return 0;
    }
    if (!prev->GetIsViVoNode() && FindNodeList(targetId, prev, out) == 0) {
      out.push_front(prev);
      return 0;
    }
  }
  return 1;
}

uint32_t VlinkBuilder::UnBindNode(uint32_t viNodeId, const NodePtr& voNode) {
  if (!voNode) {
    VLOG_ERR("node is nullptr");
    return 1;
  }
  std::list<NodePtr> path;
  if (FindNodeList(viNodeId, voNode, path) != 0 || path.empty()) {
    VLOG_ERR("can't find link! vi[%u] vo[%u]", viNodeId, voNode->GetNodeId());
    return 1;
  }
  const NodePtr front = path.front();
  vlink::LinkResult unlink = vlink::UnlinkNodes(front, voNode);
  if (unlink.code != 0) {
    VLINK_REPORT_UNLINK_FAILURE(unlink, front, voNode);
    return unlink.code;
  }
  if (front->GetIsViVoNode()) {
    return 0;
  }
  // Climb towards the input, removing each processing node left without outputs.
  NodePtr pending;
  for (const NodePtr& node : path) {
    if (pending) {
      const uint32_t result = pending->StopProcess();
      if (result != 0) {
        VLOG_ERR("[%s] StopProcess failed!", pending->GetNodeName().c_str());
        return result;
      }
      unlink = vlink::UnlinkNodes(node, pending);
      if (unlink.code != 0) {
        VLINK_REPORT_UNLINK_FAILURE(unlink, node, pending);
        return unlink.code;
      }
      VideoVlinkNode::DeleteNodeByUnique(pending->GetNodeId());
    }
    pending = (!node->GetIsViVoNode() && !node->HasNextNodes()) ? node : nullptr;
  }
  return 0;
}

uint32_t VlinkBuilder::CreateImageProcessNode(const NodePtr& viNode, uint32_t& nodeId) {
  if (!viNode) {
    VLOG_ERR("vi node is nullptr");
    return 1;
  }
  const uint32_t id = GenNodeId();
  VideoVlinkNode::CreateNodeByUnique<ImageProcessNode>(id);
  NodePtr process = VideoVlinkNode::GetNodeByUnique<ImageProcessNode>(id);
  if (!process) {
    VLOG_ERR("create process failed!");
    return 1;
  }
  process->SetNotViVoFlag();
  // Nothing is undone on failure: the node stays registered and partly linked.
  const vlink::LinkResult link = vlink::LinkNodes(viNode, process);
  switch (link.failed) {
    case vlink::LinkStep::kSenderSide:
      VLOG_ERR("VI[%u] ConnectTo process[%u] failed!", viNode->GetNodeId(), id);
      return link.code;
    case vlink::LinkStep::kReceiverSide:
      VLOG_ERR("VI[%u] ConnectFrom process[%u] failed!", viNode->GetNodeId(), id);
      return link.code;
    case vlink::LinkStep::kStart:
      VLOG_ERR("Process[%u] StartProcess failed!", id);
      return link.code;
    case vlink::LinkStep::kNone:
      break;
  }
  nodeId = id;
  return 0;
}

uint32_t VlinkBuilder::UnBindDirectSink(uint32_t voNodeId) {
  std::lock_guard<std::mutex> lock(m_bindLock);
  NodePtr sink = VideoVlinkNode::GetNodeByUnique<VideoVlinkNode>(voNodeId);
  if (!sink) {
    VLOG_ERR("node is nullptr");
    return 1;
  }
  const uint32_t result = UnBindNode(m_viNodeId, sink);
  if (result != 0) {
    VLOG_ERR("UnBindNode voNodeId[%u] failed!", voNodeId);
  }
  return result;
}

uint32_t VlinkBuilder::BindDirectSink(uint32_t voNodeId, const DirectBindSteps& steps) {
  std::lock_guard<std::mutex> lock(m_bindLock);
  NodePtr input = steps.findInput ? steps.findInput()
                                  : VideoVlinkNode::GetNodeByUnique<VideoVlinkNode>(m_viNodeId);
  if (!input) {
    VLOG_ERR("vi node is nullptr");
    return 1;
  }
  NodePtr sink = VideoVlinkNode::GetNodeByUnique<VideoVlinkNode>(voNodeId);
  if (!sink) {
    VLOG_ERR("vo node is nullptr");
    return 1;
  }
  if (steps.beforeStart) {
    const uint32_t result = steps.beforeStart(input, sink);
    if (result != 0) {
      return result;
    }
  }
  if (m_isFirstBind) {
    const uint32_t result = input->StartProcess();
    if (result != 0) {
      VLOG_ERR("Vi[%u] StartProcess failed!", m_viNodeId);
      return result;
    }
  }
  const uint32_t result = ConnectAndStartNode(input, sink);
  if (steps.afterConnect) {
    steps.afterConnect(input);
  }
  if (result != 0) {
    if (steps.reportLinkFailure) {
      VLOG_ERR("Vi[%u] Vo[%u] ConnectAndStartNode failed!", m_viNodeId, voNodeId);
    }
    return result;
  }
  m_isFirstBind = false;
  return 0;
}
