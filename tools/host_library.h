// The host's way into libtavo_video_vlink.so: the exported functions looked up with dlsym,
// the component tables, and the components a mode creates, binds and takes down through
// them. Nothing here links against the library.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tavo_video_vlink.h"
#include "tavo_video_vlink_capture.h"

// The library's exported functions, looked up by name.
struct Library {
  void* handle = nullptr;
  decltype(&TavoVideoVlinkInit) init = nullptr;
  decltype(&TavoVideoSetTraceLevel) setTraceLevel = nullptr;
  decltype(&TavoVideoRegisterTraceCallBack) registerTrace = nullptr;
  decltype(&TavoVideoGetDataContainer) getContainer = nullptr;
  decltype(&TavoVideoReleaseDataContainer) releaseContainer = nullptr;
  decltype(&TavoVideoGetCreateNodeFuncMap) getCreate = nullptr;
  decltype(&TavoVideoGetBindNodeFuncMap) getBind = nullptr;
  decltype(&TavoVideoGetUnBindNodeFuncMap) getUnbind = nullptr;
  decltype(&TavoVideoGetDestroyNodeFuncMap) getDestroy = nullptr;
  decltype(&TavoVideoReleaseVEncFrame) releaseFrame = nullptr;
  decltype(&TavoVideoReceiveVDecFrame) receiveDecFrame = nullptr;
  decltype(&TavoVideoSetWinReportCb) setWinReportCb = nullptr;
  // Capture, snapshot, mouse and overlay control: null when this build of the library lacks
  // them (the modes that need them say so).
  decltype(&TavoVideoSetCapResolution) setCapResolution = nullptr;
  decltype(&TavoVideoVlinkSnapShot) snapShot = nullptr;
  decltype(&TavoVideoMouseSetParam) mouseSetParam = nullptr;
  decltype(&TavoVideoShowMouse) showMouse = nullptr;
  decltype(&TavoVideoHideMouse) hideMouse = nullptr;
  decltype(&TavoVideoMouseStop) mouseStop = nullptr;
  decltype(&TavoVideoVlinkOverlayParamCreate) overlayCreate = nullptr;
  decltype(&TavoVideoVlinkOverlayParamEnable) overlayEnable = nullptr;
  decltype(&TavoVideoVlinkOverlayParamSet) overlaySet = nullptr;
  decltype(&TavoVideoVlinkOverlayParamDestroy) overlayDestroy = nullptr;

  // dlopens path and looks up every function above; false, with a message, when one is
  // missing.
  bool Load(const std::string& path);
  // Initialises the library and writes its traces, up to traceLevel, to tracePath (none when
  // empty) and, with toTerminal, to stderr.
  void Start(int traceLevel, const std::string& tracePath, bool toTerminal) const;
};

// The four tables this host uses, and the rows it needs from them.
struct Tables {
  const tagTavoVideoCreateFuncMap* create = nullptr;
  const tagTavoVideoBindFuncMap* bind = nullptr;
  const tagTavoVideoBindFuncMap* unbind = nullptr;
  const tagTavoVideoDestroyFuncMap* destroy = nullptr;
  uint32_t createCount = 0;
  uint32_t bindCount = 0;
  uint32_t unbindCount = 0;
  uint32_t destroyCount = 0;

  bool Fetch(const Library& lib);
  // nullptr when the table has no such row.
  TavoVideoCreateNodeFunc Create(uint32_t type) const;
  TavoVideoBindNodeFunc Bind(uint32_t sinkType, uint32_t sourceType) const;
  TavoVideoBindNodeFunc Unbind(uint32_t sinkType, uint32_t sourceType) const;
  TavoVideoDestroyNodeFunc Destroy(uint32_t type) const;
};

// A zeroed parameter record, as the library expects the fields a mode leaves alone.
std::unique_ptr<tagTavoVideoComponentParam> NewRecord();

// One component as a mode sets it up. Component ids are the host's own numbers; the node
// id goes into the component's container, where the library looks it up at creation.
struct LinkNode {
  uint32_t component;
  uint32_t type;
  uint32_t nodeId;
  const char* name;  // as the bind lines call it
};

// The test-image input the encode and preview modes read from.
inline constexpr LinkNode kTestImageNode{100, TAVO_VIDEO_COMPONENT_TEST_IMAGE, 50, "test image"};
// Its record: the image file to send, asked for at 30 frames a second.
std::unique_ptr<tagTavoVideoComponentParam> TestImageRecord(const std::string& image);

// Components bound sink to source, declared in full up front (a type-4 input, which has no
// create or destroy row, only gets its container) so that a missing table row
// stops a run before anything exists. Containers are filled and released in the order the
// nodes are declared, bindings made and undone in the order they are declared; sinks come
// down before the sources they read from.
class HostLink {
 public:
  HostLink(const Library& lib, std::vector<LinkNode> nodes,
           std::vector<std::pair<LinkNode, LinkNode>> bindings);  // sink, source

  // Looks up every row the link needs; false, with a message, when one is missing.
  bool Resolve(const Tables& tables);
  // Fills each node's container with its node id and port.
  void StoreNodeIds() const;
  // Creates one declared node; returns its own status and adds it to Status().
  uint32_t Create(const LinkNode& node, tagTavoVideoComponentParam* param);
  // Makes the bindings in order, printing each, while Status() is 0. Returns Status().
  uint32_t BindAll();
  // Non-zero once a creation or a binding has failed.
  uint32_t Status() const { return m_status; }
  // Undoes every binding and destroys every node, made or not; afterUnbind, when given, runs
  // between the two (frames have stopped, every node still exists). Returns 0 when all did.
  uint32_t TearDown(const std::function<void()>& afterUnbind = nullptr) const;
  void ReleaseContainers() const;

 private:
  struct Binding {
    LinkNode sink;
    LinkNode source;
    TavoVideoBindNodeFunc bind = nullptr;
    TavoVideoBindNodeFunc unbind = nullptr;
  };
  struct Node {
    LinkNode node;
    TavoVideoCreateNodeFunc create = nullptr;
    TavoVideoDestroyNodeFunc destroy = nullptr;
  };

  const Library& m_lib;
  std::vector<Node> m_nodes;
  std::vector<Binding> m_bindings;
  uint32_t m_status = 0;
};

// The last lines of every mode's summary: the teardown and how many error and warning lines
// the library traced.
void PrintTeardown(uint32_t teardown);
