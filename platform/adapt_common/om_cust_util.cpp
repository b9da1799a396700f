#include "platform/adapt_common/om_cust_util.h"

#include <dlfcn.h>

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

// An installed tree's own configuration directory: TAVO_OM_CFG_FROM_LIBRARY (set by the build
// to the install layout) from the folder this library was loaded from, when it exists, so a
// moved or packaged tree finds its own models. "" when there is none (a build tree).
std::string InstalledCfgPath() {
#ifdef TAVO_OM_CFG_FROM_LIBRARY
  Dl_info info{};
  if (dladdr(reinterpret_cast<void*>(&TavoOmCustUtilGetCfgPath), &info) == 0 ||
      info.dli_fname == nullptr) {
    return "";
  }
  std::error_code error;
  const std::filesystem::path library = std::filesystem::canonical(info.dli_fname, error);
  if (error) {
    return "";
  }
  const std::filesystem::path cfg =
      (library.parent_path() / TAVO_OM_CFG_FROM_LIBRARY).lexically_normal();
  return std::filesystem::is_directory(cfg, error) ? cfg.string() : "";
#else
  return "";
#endif
}

}  // namespace

const char* TavoOmCustUtilGetCfgPath(uint32_t /*kind*/) {
  const char* fromEnv = std::getenv("TAVO_OM_CFG_PATH");
  std::string path;
  if (fromEnv != nullptr && *fromEnv != '\0') {
    path = fromEnv;
  } else {
    path = InstalledCfgPath();
    if (path.empty()) {
      path = TAVO_OM_DEFAULT_CFG_PATH;
    }
  }
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
