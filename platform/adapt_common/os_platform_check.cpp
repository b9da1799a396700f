#include "platform/adapt_common/os_platform_check.h"

#include <algorithm>
#include <cctype>
#include <fstream>
#include <mutex>
#include <optional>
#include <string>

namespace {

std::string ReadField(const char* path, const std::string& key, char separator) {
  std::ifstream file(path);
  std::string line;
  while (std::getline(file, line)) {
    if (line.compare(0, key.size(), key) != 0) {
      continue;
    }
    const size_t at = line.find(separator, key.size());
    if (at == std::string::npos) {
      continue;
    }
    std::string value = line.substr(at + 1);
    value.erase(0, value.find_first_not_of(" \t\""));
    while (!value.empty() &&
           (value.back() == '"' || std::isspace(static_cast<unsigned char>(value.back())))) {
      value.pop_back();
    }
    return value;
  }
  return {};
}

struct Identity {
  std::mutex lock;  // guards the overrides; no callback runs under it
  std::optional<std::string> cpuOverride;
  std::optional<std::string> osOverride;
  std::string realCpu;
  std::string realOs;  // NAME and ID of os-release, space separated
};

Identity& GetIdentity() {
  static Identity* identity = [] {
    auto* made = new Identity;
    made->realCpu = ReadField("/proc/cpuinfo", "model name", ':');
    made->realOs =
        ReadField("/etc/os-release", "NAME", '=') + " " + ReadField("/etc/os-release", "ID", '=');
    return made;
  }();
  return *identity;
}

std::string Lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

bool IsSorenCpu() { return IsTargetCpu("Soren 7A") == 1 || IsTargetCpu("Soren 8C") == 1; }

}  // namespace

int32_t IsTargetCpu(const char* name) {
  if (name == nullptr || *name == '\0') {
    return 0;
  }
  Identity& identity = GetIdentity();
  std::lock_guard<std::mutex> lock(identity.lock);
  const std::string& model = identity.cpuOverride ? *identity.cpuOverride : identity.realCpu;
  return model.find(name) != std::string::npos ? 1 : 0;
}

int32_t IsTargetOs(const char* name) {
  if (name == nullptr || *name == '\0') {
    return 0;
  }
  Identity& identity = GetIdentity();
  std::lock_guard<std::mutex> lock(identity.lock);
  const std::string& os = identity.osOverride ? *identity.osOverride : identity.realOs;
  return Lower(os).find(Lower(name)) != std::string::npos ? 1 : 0;
}

int32_t IsSorenKOS() { return IsSorenCpu() && IsTargetOs("Kylin") == 1 ? 1 : 0; }

int32_t IsSorenUOS() { return IsSorenCpu() && IsTargetOs("Uos") == 1 ? 1 : 0; }

void OsPlatformSetIdentity(const char* cpuModel, const char* osName) {
  Identity& identity = GetIdentity();
  std::lock_guard<std::mutex> lock(identity.lock);
  identity.cpuOverride = cpuModel != nullptr ? std::optional<std::string>(cpuModel) : std::nullopt;
  identity.osOverride = osName != nullptr ? std::optional<std::string>(osName) : std::nullopt;
}
