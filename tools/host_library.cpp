#include "host_library.h"

#include <dlfcn.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <string>
#include <system_error>

namespace {

template <class F>
bool BindSymbol(void* handle, F& function, const char* name) {
  function = reinterpret_cast<F>(dlsym(handle, name));
  if (function == nullptr) {
    std::fprintf(stderr, "missing symbol %s\n", name);
  }
  return function != nullptr;
}

template <class F>
void BindOptional(void* handle, F& function, const char* name) {
  function = reinterpret_cast<F>(dlsym(handle, name));
}

template <class Row>
auto FindRow(const Row* table, uint32_t count, uint32_t type, uint32_t srcType = 0)
    -> decltype(table->func) {
  for (uint32_t i = 0; i < count; ++i) {
    if (table[i].type == type && table[i].srcType == srcType) {
      return table[i].func;
    }
  }
  return nullptr;
}

// Where the library's trace lines go: a file (out/trace.log by default) and, when asked, the
// terminal. Lines of every level are counted for the summary.
struct TraceSink {
  std::mutex lock;  // guards file; trace callbacks come from any library thread
  FILE* file = nullptr;
  bool terminal = false;
  std::string path;
  std::atomic<uint32_t> errors{0};
  std::atomic<uint32_t> warnings{0};
};
TraceSink g_trace;

void OnTrace(uint32_t level, const char* text) {
  if (level == TAVO_VIDEO_TRACE_ERROR) {
    ++g_trace.errors;
  } else if (level == TAVO_VIDEO_TRACE_WARNING) {
    ++g_trace.warnings;
  }
  // Texts start with a line break and a coloured prefix; print them as one line, and
  // without the colour codes in the file.
  while (*text == '\r' || *text == '\n') {
    ++text;
  }
  if (g_trace.terminal) {
    std::fprintf(stderr, "%s\n", text);
  }
  std::string plain;
  for (const char* c = text; *c != '\0'; ++c) {
    if (*c == '\033') {
      while (*c != '\0' && *c != 'm') {
        ++c;
      }
      if (*c == '\0') {
        break;
      }
      continue;
    }
    plain += *c;
  }
  std::lock_guard<std::mutex> lock(g_trace.lock);
  if (g_trace.file != nullptr) {
    std::fprintf(g_trace.file, "%s\n", plain.c_str());
    std::fflush(g_trace.file);
  }
}

std::string ContainerName(uint32_t component) {
  return "Node[" + std::to_string(component) + "]PresentParam";
}

}  // namespace

bool Library::Load(const std::string& path) {
  handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) {
    std::fprintf(stderr, "cannot load %s: %s\n", path.c_str(), dlerror());
    return false;
  }
  BindOptional(handle, setCapResolution, "TavoVideoSetCapResolution");
  BindOptional(handle, snapShot, "TavoVideoVlinkSnapShot");
  BindOptional(handle, mouseSetParam, "TavoVideoMouseSetParam");
  BindOptional(handle, showMouse, "TavoVideoShowMouse");
  BindOptional(handle, hideMouse, "TavoVideoHideMouse");
  BindOptional(handle, mouseStop, "TavoVideoMouseStop");
  BindOptional(handle, overlayCreate, "TavoVideoVlinkOverlayParamCreate");
  BindOptional(handle, overlayEnable, "TavoVideoVlinkOverlayParamEnable");
  BindOptional(handle, overlaySet, "TavoVideoVlinkOverlayParamSet");
  BindOptional(handle, overlayDestroy, "TavoVideoVlinkOverlayParamDestroy");
  return BindSymbol(handle, init, "TavoVideoVlinkInit") &&
         BindSymbol(handle, setTraceLevel, "TavoVideoSetTraceLevel") &&
         BindSymbol(handle, registerTrace, "TavoVideoRegisterTraceCallBack") &&
         BindSymbol(handle, getContainer, "TavoVideoGetDataContainer") &&
         BindSymbol(handle, releaseContainer, "TavoVideoReleaseDataContainer") &&
         BindSymbol(handle, getCreate, "TavoVideoGetCreateNodeFuncMap") &&
         BindSymbol(handle, getBind, "TavoVideoGetBindNodeFuncMap") &&
         BindSymbol(handle, getUnbind, "TavoVideoGetUnBindNodeFuncMap") &&
         BindSymbol(handle, getDestroy, "TavoVideoGetDestroyNodeFuncMap") &&
         BindSymbol(handle, releaseFrame, "TavoVideoReleaseVEncFrame") &&
         BindSymbol(handle, receiveDecFrame, "TavoVideoReceiveVDecFrame") &&
         BindSymbol(handle, setWinReportCb, "TavoVideoSetWinReportCb");
}

void Library::Start(int traceLevel, const std::string& tracePath, bool toTerminal) const {
  g_trace.terminal = toTerminal;
  if (!tracePath.empty()) {
    std::error_code error;
    std::filesystem::create_directories(std::filesystem::path(tracePath).parent_path(), error);
    g_trace.file = std::fopen(tracePath.c_str(), "w");
    if (g_trace.file == nullptr) {
      std::fprintf(stderr, "cannot write the trace to %s: %s\n", tracePath.c_str(),
                   std::strerror(errno));
    } else {
      g_trace.path = tracePath;
    }
  }
  init(0, 0, [] {});
  registerTrace(0, OnTrace);
  registerTrace(1, OnTrace);
  registerTrace(2, OnTrace);
  setTraceLevel(traceLevel);
}

bool Tables::Fetch(const Library& lib) {
  if (lib.getCreate(&create, &createCount) != 0 || lib.getBind(&bind, &bindCount) != 0 ||
      lib.getUnbind(&unbind, &unbindCount) != 0 || lib.getDestroy(&destroy, &destroyCount) != 0) {
    std::fprintf(stderr, "cannot fetch the component tables\n");
    return false;
  }
  return true;
}

TavoVideoCreateNodeFunc Tables::Create(uint32_t type) const {
  return FindRow(create, createCount, type);
}

TavoVideoBindNodeFunc Tables::Bind(uint32_t sinkType, uint32_t sourceType) const {
  return FindRow(bind, bindCount, sinkType, sourceType);
}

TavoVideoBindNodeFunc Tables::Unbind(uint32_t sinkType, uint32_t sourceType) const {
  return FindRow(unbind, unbindCount, sinkType, sourceType);
}

TavoVideoDestroyNodeFunc Tables::Destroy(uint32_t type) const {
  return FindRow(destroy, destroyCount, type);
}

std::unique_ptr<tagTavoVideoComponentParam> NewRecord() {
  auto record = std::make_unique<tagTavoVideoComponentParam>();
  std::memset(record.get(), 0, sizeof(*record));
  return record;
}

std::unique_ptr<tagTavoVideoComponentParam> TestImageRecord(const std::string& image) {
  auto record = NewRecord();
  record->test.frameRate = 30;
  std::snprintf(record->test.fileName, sizeof(record->test.fileName), "%s", image.c_str());
  return record;
}

HostLink::HostLink(const Library& lib, std::vector<LinkNode> nodes,
                   std::vector<std::pair<LinkNode, LinkNode>> bindings)
    : m_lib(lib) {
  for (const LinkNode& node : nodes) {
    m_nodes.push_back({node});
  }
  for (const auto& [sink, source] : bindings) {
    m_bindings.push_back({sink, source});
  }
}

bool HostLink::Resolve(const Tables& tables) {
  bool ok = true;
  for (Node& node : m_nodes) {
    // An input seen as type 4 is only a name for a node another component made.
    if (node.node.type == TAVO_VIDEO_COMPONENT_INPUT) {
      continue;
    }
    node.create = tables.Create(node.node.type);
    node.destroy = tables.Destroy(node.node.type);
    ok = ok && node.create != nullptr && node.destroy != nullptr;
  }
  for (Binding& binding : m_bindings) {
    binding.bind = tables.Bind(binding.sink.type, binding.source.type);
    binding.unbind = tables.Unbind(binding.sink.type, binding.source.type);
    ok = ok && binding.bind != nullptr && binding.unbind != nullptr;
  }
  if (!ok) {
    std::fprintf(stderr, "the tables lack a row this host needs\n");
  }
  return ok;
}

void HostLink::StoreNodeIds() const {
  for (const Node& node : m_nodes) {
    DataContainer* container = m_lib.getContainer(ContainerName(node.node.component).c_str());
    container->SetDataByString<uint32_t>("imgNo", node.node.nodeId);
    container->SetDataByString<uint32_t>("portId", 0);
  }
}

uint32_t HostLink::Create(const LinkNode& node, tagTavoVideoComponentParam* param) {
  auto found = std::find_if(m_nodes.begin(), m_nodes.end(),
                            [&](const Node& n) { return n.node.component == node.component; });
  const uint32_t result =
      found != m_nodes.end() && found->create != nullptr ? found->create(node.component, param) : 1;
  m_status |= result;
  return result;
}

uint32_t HostLink::BindAll() {
  for (size_t i = 0; i < m_bindings.size() && m_status == 0; ++i) {
    const Binding& binding = m_bindings[i];
    m_status = binding.bind(binding.sink.component, binding.source.component);
    std::printf("bind %s <- %s: %u\n", binding.sink.name, binding.source.name, m_status);
  }
  return m_status;
}

uint32_t HostLink::TearDown(const std::function<void()>& afterUnbind) const {
  uint32_t result = 0;
  // Rows a failed Resolve left out were never used: nothing to undo.
  for (const Binding& binding : m_bindings) {
    if (binding.unbind != nullptr) {
      result |= binding.unbind(binding.sink.component, binding.source.component);
    }
  }
  if (afterUnbind) {
    afterUnbind();
  }
  // Sinks in the order they were bound, then the sources they read from.
  std::vector<const Node*> order;
  auto add = [&](uint32_t component) {
    for (const Node& node : m_nodes) {
      if (node.node.component == component &&
          std::find(order.begin(), order.end(), &node) == order.end()) {
        order.push_back(&node);
      }
    }
  };
  for (const Binding& binding : m_bindings) {
    add(binding.sink.component);
  }
  for (const Node& node : m_nodes) {
    add(node.node.component);
  }
  for (const Node* node : order) {
    if (node->destroy != nullptr) {
      result |= node->destroy(node->node.component);
    }
  }
  return result;
}

void HostLink::ReleaseContainers() const {
  for (const Node& node : m_nodes) {
    m_lib.releaseContainer(ContainerName(node.node.component).c_str());
  }
}

void PrintTeardown(uint32_t teardown) {
  std::printf("teardown: %s\n", teardown == 0 ? "clean" : "failed");
  std::printf("library trace: %u error lines, %u warning lines%s%s\n", g_trace.errors.load(),
              g_trace.warnings.load(), g_trace.path.empty() ? "" : " in ", g_trace.path.c_str());
}
