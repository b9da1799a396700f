// The image-operations wrapper's functions by name, for a FakeDynamicLoader library that
// serves the real wrapper (linked into the test) with one function left out on demand.
#pragma once

#include <dlfcn.h>

#include <map>
#include <string>

#include "background/tavo_video_opencv_binding.h"
#include "platform/opencv_wrapper/tavo_video_opencv_wrapper.h"

inline std::map<std::string, void*> WrapperSymbols(const std::string& omit = "") {
  // Taking one address links the wrapper in; the functions the node binds are then looked up
  // in it by the node's own names.
  std::map<std::string, void*> symbols = {
      {"CMatCreateEmpty", reinterpret_cast<void*>(&::CMatCreateEmpty)}};
  for (const char* name : cvbind::kWrapperFunctionNames) {
    symbols.emplace(name, dlsym(RTLD_DEFAULT, name));
  }
  symbols.erase(omit);
  return symbols;
}
