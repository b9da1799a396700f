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
  // Logs every link, "links: {INPUT->(...) ...} ".
  void PrintLink();
  std::string GetLinksText();

 private:
  std::map<uint32_t, std::shared_ptr<VlinkBuilder>> m_builders;  // guarded by m_lock
  std::mutex m_lock;  // guards the builder table; no host callback runs under it
};
