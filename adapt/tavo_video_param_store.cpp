#include "adapt/tavo_video_param_store.h"

#include <map>
#include <mutex>

#include "trace/tavo_video_host_guard.h"
#include "trace/tavo_video_vlink_log.h"

std::map<std::string, std::shared_ptr<DataContainer>> DataContainer::m_dataContainerTable;
std::mutex DataContainer::m_classLock;

std::shared_ptr<DataContainer> DataContainer::GetInstance(const std::string& name) {
  std::lock_guard<std::mutex> lock(m_classLock);
  std::shared_ptr<DataContainer>& container = m_dataContainerTable[name];
  if (!container) {
    container = std::make_shared<DataContainer>();
  }
  return container;
}

uint32_t DataContainer::ReleaseInstance(const std::string& name) {
  std::shared_ptr<DataContainer> released;  // destroyed after the lock is let go
  std::lock_guard<std::mutex> lock(m_classLock);
  auto it = m_dataContainerTable.find(name);
  if (it == m_dataContainerTable.end()) {
    return 1;
  }
  released = std::move(it->second);
  m_dataContainerTable.erase(it);
  return 0;
}

std::string PresentParamContainerName(uint32_t componentId) {
  return "Node[" + std::to_string(componentId) + "]PresentParam";
}

namespace {

int ReadPresentParam(uint32_t componentId, const char* key, uint32_t* value) {
  if (value == nullptr) {
    return 1;
  }
  std::shared_ptr<DataContainer> container =
      DataContainer::GetInstance(PresentParamContainerName(componentId));
  return container->GetDataByString<uint32_t>(key, *value);
}

}  // namespace

int GetImgNoFromNodeId(uint32_t componentId, uint32_t* imgNo) {
  const int result = ReadPresentParam(componentId, "imgNo", imgNo);
  if (result != 0) {
    VLOG_ERR("GetDataByString imgNo failed!");
  }
  return result;
}

int GetPortIdFromNodeId(uint32_t componentId, uint32_t* portId) {
  const int result = ReadPresentParam(componentId, "portId", portId);
  if (result != 0) {
    VLOG_ERR("GetDataByString portId failed!");
  }
  return result;
}

DataContainer* TavoVideoGetDataContainer(const char* name) try {
  if (name == nullptr) {
    VLOG_ERR("null container name");
    return nullptr;
  }
  VLOG_INF("nodeName[%s]", name);
  try {
    return DataContainer::GetInstance(name).get();
  } catch (const std::exception& e) {
    VLOG_ERR("GetDataContainer failed: %s", e.what());
    return nullptr;
  }
}
VLINK_HOST_CATCH(nullptr)

uint32_t TavoVideoReleaseDataContainer(const char* name) try {
  if (name == nullptr) {
    VLOG_ERR("Cannot release dataContainer[%s]", "(null)");
    return 1;
  }
  VLOG_INF("nodeName[%s]", name);
  const uint32_t result = DataContainer::ReleaseInstance(name);
  if (result == 1) {
    VLOG_ERR("Cannot release dataContainer[%s]", name);
  }
  return result;
}
VLINK_HOST_CATCH(1)
