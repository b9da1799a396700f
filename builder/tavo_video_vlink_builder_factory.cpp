#include "builder/tavo_video_vlink_builder_factory.h"

#include "builder/tavo_video_vlink_camera_builder.h"
#include "builder/tavo_video_vlink_decode_builder.h"
#include "builder/tavo_video_vlink_screen_builder.h"
#include "builder/tavo_video_vlink_test_builder.h"
#include "core/tavo_video_node_link.h"

VlinkBuilderFactory& VlinkBuilderFactory::GetInstance() {
  static VlinkBuilderFactory factory;
  return factory;
}

void VlinkBuilderFactory::TakeApart(const VideoVlinkNode::NodePtr& node, bool throughBuilders) {
  for (const VideoVlinkNode::NodePtr& prev : node->GetPrevConnectListCopy()) {
    VideoVlinkNode::NodePtr input = prev;
    while (!input->GetIsViVoNode()) {
      const VideoVlinkNode::NodeList above = input->GetPrevConnectListCopy();
      if (above.empty()) {
        break;
      }
      input = above.front();
    }
    std::shared_ptr<VlinkBuilder> builder =
        throughBuilders ? GetBuilderNoCreate(input->GetNodeId()) : nullptr;
    if (builder == nullptr || builder->UnBindVo(node->GetNodeId()) != 0) {
      prev->DisconnectFromNode(node, true);
    }
  }
  VideoVlinkNode::DeleteNode(node);  // stops and shuts the node down
  // Sinks still bound to a destroyed input keep it until they go; it lets go of them now, so
  // the two never hold each other for good.
  vlink::DropNeighbours(node);
  DeleteBuilder(node->GetNodeId());
}

VlinkBuilderFactory::~VlinkBuilderFactory() {
  std::map<uint32_t, std::shared_ptr<VlinkBuilder>> builders;
  {
    std::lock_guard<std::mutex> lock(m_lock);
    builders.swap(m_builders);
  }
}

namespace {

std::shared_ptr<VlinkBuilder> MakeBuilder(uint32_t viNodeId, OS_E_MPP_DEV_TYPE type) {
  switch (type) {
    case OS_E_MPP_DEV_TEST:
      return std::make_shared<VlinkTestBuilder>(viNodeId, type);
    case OS_E_MPP_DEV_VDEC:
      return std::make_shared<VlinkDecodeBuilder>(viNodeId, type);
    case OS_E_MPP_DEV_CAMERA:
      return std::make_shared<VlinkCameraBuilder>(viNodeId, type);
    case OS_E_MPP_DEV_VI:
      return std::make_shared<VlinkScreenBuilder>(viNodeId, type);
    default:
      return nullptr;
  }
}

}  // namespace

std::shared_ptr<VlinkBuilder> VlinkBuilderFactory::GetBuilder(uint32_t viNodeId) {
  std::lock_guard<std::mutex> lock(m_lock);
  if (auto it = m_builders.find(viNodeId); it != m_builders.end()) {
    return it->second;
  }
  VideoVlinkNode::NodePtr viNode = VideoVlinkNode::GetNodeByUnique<VideoVlinkNode>(viNodeId);
  if (!viNode) {
    VLOG_ERR("vi node is nullptr");
    return nullptr;
  }
  VLOG_INF_MODULE("Build builder! viNodeId[%u]", viNodeId);
  std::shared_ptr<VlinkBuilder> builder = MakeBuilder(viNodeId, viNode->GetNodeType());
  if (!builder) {
    VLOG_ERR_MODULE("BuilderFac no supoort vi type[%d]", static_cast<int>(viNode->GetNodeType()));
    return nullptr;
  }
  m_builders.emplace(viNodeId, builder);
  return builder;
}

std::shared_ptr<VlinkBuilder> VlinkBuilderFactory::GetBuilderNoCreate(uint32_t viNodeId) {
  std::lock_guard<std::mutex> lock(m_lock);
  auto it = m_builders.find(viNodeId);
  return it == m_builders.end() ? nullptr : it->second;
}

void VlinkBuilderFactory::DeleteBuilder(uint32_t viNodeId) {
  std::shared_ptr<VlinkBuilder> removed;  // destroyed after the lock is let go
  std::lock_guard<std::mutex> lock(m_lock);
  auto it = m_builders.find(viNodeId);
  if (it == m_builders.end()) {
    return;
  }
  VLOG_INF_MODULE("Delete Builder! viNodeId[%u]", viNodeId);
  removed = std::move(it->second);
  m_builders.erase(it);
}

std::string VlinkBuilderFactory::GetLinksText() {
  // Walked without the table's lock: the walk takes node locks, which a host callback may
  // hold while it asks this table for a builder.
  std::map<uint32_t, std::shared_ptr<VlinkBuilder>> builders;
  {
    std::lock_guard<std::mutex> lock(m_lock);
    builders = m_builders;
  }
  std::string text;
  for (const auto& [id, builder] : builders) {
    text += "{" + builder->GetLinkString() + "} ";
  }
  return text;
}

void VlinkBuilderFactory::PrintLink() {
  const std::string text = GetLinksText();
  VLOG_INF_MODULE("links: %s", text.c_str());
}
