#include "platform/adapt_common/om_cust_util.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <set>
#include <string>

namespace {

std::mutex g_cfgLock;  // guards g_cfgPaths; no callback runs under it
// Every directory ever handed out, kept so that a text given to one thread stays valid
// while another sees a new value.
std::set<std::string> g_cfgPaths;

}  // namespace

const char* TavoOmCustUtilGetCfgPath(uint32_t /*kind*/) {
  const char* fromEnv = std::getenv("TAVO_OM_CFG_PATH");
  std::string path = (fromEnv != nullptr && *fromEnv != '\0') ? fromEnv : TAVO_OM_DEFAULT_CFG_PATH;
  while (path.size() > 1 && path.back() == '/') {
    path.pop_back();
  }
  std::lock_guard<std::mutex> lock(g_cfgLock);
  return g_cfgPaths.insert(std::move(path)).first->c_str();
}

int32_t TavoDevmGetGpuInfo(char* info, uint32_t length) {
  if (info == nullptr || length < 8) {
    return -1;
  }
  std::string text = "none";
  std::error_code error;
  // /sys/class/drm/card0/device/driver -> .../drivers/<name>
  const std::filesystem::path driver =
      std::filesystem::read_symlink("/sys/class/drm/card0/device/driver", error);
  if (!error && !driver.filename().empty()) {
    text = "drm:" + driver.filename().string();
  }
  const size_t n = std::min<size_t>(text.size(), length - 1);
  std::memcpy(info, text.data(), n);
  info[n] = '\0';
  return 0;
}
