// Keeps one builder per input node that has ever been bound.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>

#include "builder/tavo_video_vlink_builder.h"

class VlinkBuilderFactory {
 public:
  static VlinkBuilderFactory& GetInstance();

  VlinkBuilderFactory() = default;
  ~VlinkBuilderFactory();
  VlinkBuilderFactory(const VlinkBuilderFactory&) = delete;
  VlinkBuilderFactory& operator=(const VlinkBuilderFactory&) = delete;

  // The input's builder, created on first use by the input node's type; null when the
  // input node is missing or of a type no builder serves.
  std::shared_ptr<VlinkBuilder> GetBuilder(uint32_t viNodeId);
  std::shared_ptr<VlinkBuilder> GetBuilderNoCreate(uint32_t viNodeId);
  void DeleteBuilder(uint32_t viNodeId);
  // Stops a component's node, takes it out of the registry and apart from its neighbours,
  // and forgets the builder registered under its id. A bound sink is first unbound from each
  // input it hangs off, through that input's builder when `throughBuilders` and there is one
  // (so conversion nodes left without outputs go too), else straight from its upstream node:
  // a host that destroys a bound component leaves nothing holding it.
  void TakeApart(const VideoVlinkNode::NodePtr& node, bool throughBuilders);
  // Logs every link, "links: {INPUT->(...) ...} ".
  void PrintLink();
  std::string GetLinksText();

 private:
  std::map<uint32_t, std::shared_ptr<VlinkBuilder>> m_builders;  // guarded by m_lock
  std::mutex m_lock;  // guards the builder table; no host callback runs under it
};
