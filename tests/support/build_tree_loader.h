// The real dynamic loader, looking for libraries named without a folder in the build tree's
// lib/ folder first. Tests need it because the sanitizers intercept dlopen, after which
// the RUNPATH that finds those libraries in a plain build is no longer consulted.
#pragma once

#include <string>

#include "core/tavo_video_os_seams.h"

class BuildTreeLoader final : public DynamicLoader {
 public:
  explicit BuildTreeLoader(std::string folder) : m_folder(std::move(folder)) {}
  void* Open(const char* path) override {
    if (path != nullptr && std::string(path).find('/') == std::string::npos) {
      if (void* handle = DynamicLoader::Real().Open((m_folder + "/" + path).c_str())) {
        return handle;
      }
    }
    return DynamicLoader::Real().Open(path);
  }
  void* Symbol(void* handle, const char* name) override {
    return DynamicLoader::Real().Symbol(handle, name);
  }
  int32_t Close(void* handle) override { return DynamicLoader::Real().Close(handle); }
  std::string Error() override { return DynamicLoader::Real().Error(); }

 private:
  std::string m_folder;
};
