#include "builder/tavo_video_vlink_builder.h"

#include <mutex>

#include "process/tavo_video_vlink_image_process_node.h"

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
  uint32_t result = cur->ConnectToNode(next);
  if (result != 0) {
    VLOG_ERR("ConnectToNode failed!");
    return result;
  }
  result = next->ConnectFromNode(cur);
  if (result != 0) {
    VLOG_ERR("ConnectFromNode failed!");
    return result;
  }
  result = next->StartProcess();
  if (result != 0) {
    VLOG_ERR("Vo[%u] StartProcess failed!", next->GetNodeId());
    return result;
  }
  return 0;
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
  uint32_t result = front->DisconnectFromNode(voNode, true);
  if (result != 0) {
    VLOG_ERR("[%s] Disconnect to [%s] failed!", front->GetNodeName().c_str(),
             voNode->GetNodeName().c_str());
    return result;
  }
  result = voNode->DisconnectFromNode(front, false);
  if (result != 0) {
    VLOG_ERR("[%s] Disconnect from [%s] failed!", voNode->GetNodeName().c_str(),
             front->GetNodeName().c_str());
    return result;
  }
  if (front->GetIsViVoNode()) {
    return 0;
  }
  // Climb towards the input, removing each processing node left without outputs.
  NodePtr pending;
  for (const NodePtr& node : path) {
    if (pending) {
      result = pending->StopProcess();
      if (result != 0) {
        VLOG_ERR("[%s] StopProcess failed!", pending->GetNodeName().c_str());
        return result;
      }
      result = node->DisconnectFromNode(pending, true);
      if (result != 0) {
        VLOG_ERR("[%s] Disconnect to [%s] failed!", node->GetNodeName().c_str(),
                 pending->GetNodeName().c_str());
        return result;
      }
      result = pending->DisconnectFromNode(node, false);
      if (result != 0) {
        VLOG_ERR("[%s] Disconnect from [%s] failed!", pending->GetNodeName().c_str(),
                 node->GetNodeName().c_str());
        return result;
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
  uint32_t result = viNode->ConnectToNode(process);
  if (result != 0) {
    VLOG_ERR("VI[%u] ConnectTo process[%u] failed!", viNode->GetNodeId(), id);
    return result;
  }
  result = process->ConnectFromNode(viNode);
  if (result != 0) {
    VLOG_ERR("VI[%u] ConnectFrom process[%u] failed!", viNode->GetNodeId(), id);
    return result;
  }
  result = process->StartProcess();
  if (result != 0) {
    VLOG_ERR("Process[%u] StartProcess failed!", id);
    return result;
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

uint32_t VlinkBuilder::BindDirectSink(
    uint32_t voNodeId, const std::function<void(const NodePtr& input)>& afterConnect) {
  std::lock_guard<std::mutex> lock(m_bindLock);
  NodePtr input = VideoVlinkNode::GetNodeByUnique<VideoVlinkNode>(m_viNodeId);
  if (!input) {
    VLOG_ERR("vi node is nullptr");
    return 1;
  }
  NodePtr sink = VideoVlinkNode::GetNodeByUnique<VideoVlinkNode>(voNodeId);
  if (!sink) {
    VLOG_ERR("vo node is nullptr");
    return 1;
  }
  if (m_isFirstBind) {
    const uint32_t result = input->StartProcess();
    if (result != 0) {
      VLOG_ERR("Vi[%u] StartProcess failed!", m_viNodeId);
      return result;
    }
  }
  const uint32_t result = ConnectAndStartNode(input, sink);
  if (afterConnect) {
    afterConnect(input);
  }
  if (result != 0) {
    VLOG_ERR("Vi[%u] Vo[%u] ConnectAndStartNode failed!", m_viNodeId, voNodeId);
    return result;
  }
  m_isFirstBind = false;
  return 0;
}
