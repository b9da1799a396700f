#include "background/tavo_video_background_virtuality.h"

#include <cstring>
#include <new>

#include "background/tavo_video_background_log.h"
#include "background/tavo_video_opencv_binding.h"
#include "core/tavo_video_os_seams.h"
#include "platform/adapt_common/om_cust_util.h"
#include "platform/adapt_common/safe_string.h"

int modelWidth = 0;
int modelHeight = 0;

std::mutex BackgroundVirtualityNode::callbackMapLock;
std::map<int, std::weak_ptr<BackgroundVirtualityNode>> BackgroundVirtualityNode::callbackMap;

namespace {

constexpr const char* kClientName = "tavo_video_master";
constexpr const char* kTaskName = "BG_VIRTAL";
constexpr const char* kPluginName = "libtavo_video_plugin.so";
constexpr const char* kModelFolder = "/computing/arm64/Virtualbackground/";
constexpr size_t kGpuInfoBytes = 640;

std::atomic<uint8_t> g_modelSizeCode{0};

uint8_t* NewMask() { return new (std::nothrow) uint8_t[BackgroundVirtualityNode::kMaskBytes]; }

}  // namespace

BackgroundVirtualityNode::BackgroundVirtualityNode(unsigned int nodeId)
    : BackgroundVirtualityBaseNode(nodeId) {
  m_bgImage = cvbind::CMatCreateEmpty();
}

BackgroundVirtualityNode::~BackgroundVirtualityNode() {
  // The registry shut the node down before letting it go: no thread or task is left. What
  // a late callback may still have delivered is freed here.
  ClearQueue();
  FreeMasks(m_maskQueue);
  FreeMasks(m_freeMaskQueue);
  {
    std::lock_guard<std::mutex> lock(m_imageMutex);
    cvbind::CMatDestroy(m_bgImage);
    m_bgImage = nullptr;
  }
  VLOG_INF("~BackgroundVirtualityNode end[%d]", m_nodeId);
}

void BackgroundVirtualityNode::InitModeResource(std::function<void()> /*resource*/) {}

std::string BackgroundVirtualityNode::GetGPUInfo() {
  static std::once_flag once;
  static std::string info;
  std::call_once(once, [] {
    char text[kGpuInfoBytes] = {};
    const int32_t ret = TavoDevmGetGpuInfo(text, sizeof text);
    if (ret != 0) {
      VLOG_ERR("TavoDevmGetGpuInfo failed ret[%d]", ret);
      return;
    }
    text[sizeof text - 1] = '\0';
    info = text;
  });
  return info;
}

uint32_t BackgroundVirtualityNode::SetParam(const BackgroundVirtualityParams& param) {
  BackgroundVirtualityBaseNode::SetParam(param);
  return LoadBackgroundImage();
}

uint8_t BackgroundVirtualityNode::GetModelSize() {
  g_modelSizeCode.store(1, std::memory_order_relaxed);
  return g_modelSizeCode.load(std::memory_order_relaxed);
}

std::string BackgroundVirtualityNode::GetModelFilePath() {
  const BackgroundVirtualityParams param = GetParam();
  const bool portrait = param.height > param.width;
  std::string name;
  int width = 0;
  int height = 0;
  if (GetModelSize() == 1) {
    name = portrait ? "output_ppsegv2_398_224_mask" : "output_ppsegv2_224_398_mask";
    width = portrait ? 224 : 398;
    height = portrait ? 398 : 224;
  } else {
    name = portrait ? "output_ppsegv2_270_160_mask" : "output_ppsegv2_160_270_mask";
    width = portrait ? 160 : 270;
    height = portrait ? 270 : 160;
  }
  // Plain exported ints for the host; nodes choose on their own threads.
  __atomic_store_n(&modelWidth, width, __ATOMIC_RELAXED);
  __atomic_store_n(&modelHeight, height, __ATOMIC_RELAXED);
  const char* cfg = TavoOmCustUtilGetCfgPath(0);
  std::string path = std::string(cfg == nullptr ? "" : cfg) + kModelFolder + name;
  VLOG_INF("modelName [%s]", path.c_str());
  return path;
}

void BackgroundVirtualityNode::FillTaskParams(const std::string& modelPath,
                                              TavoComputingTaskParams* params) {
  std::memset(params, 0, sizeof *params);
  if (strcpy_s(params->taskName, sizeof params->taskName, kTaskName) != 0 ||
      strcpy_s(params->pluginName, sizeof params->pluginName, kPluginName) != 0 ||
      strcpy_s(params->modelPath, sizeof params->modelPath, modelPath.c_str()) != 0) {
    VLOG_ERR("strcpy error");
  }
  params->modelCount = 1;
  params->inputSpec[0] = 12;
  params->inputSpec[1] = 2;
  params->outputSpec[0] = 12;
  params->outputSpec[1] = 2;
  const BackgroundVirtualityParams param = GetParam();
  params->width = static_cast<uint16_t>(param.width & 0xFFFFU);
  params->height = static_cast<uint16_t>(param.height & 0xFFFFU);
  params->modelSizeCode = GetModelSize();
}

TavoComputingTaskConfig BackgroundVirtualityNode::TaskConfig() {
  return TavoComputingTaskConfig{1, 1, GetParam().frameRate};
}

uint32_t BackgroundVirtualityNode::LoadComputing() {
  if (m_clientLib != nullptr) {
    return 0;
  }
  DynamicLoader& loader = Seam<DynamicLoader>::Get();
  void* library = loader.Open(kClientLibrary);
  if (library == nullptr) {
    VLOG_ERR("libtavo_computing_client open failed:%s", loader.Error().c_str());
    return 1;
  }
  ClientApi api;
  bool complete = true;
  auto bind = [&](auto& slot, const char* name) {
    void* symbol = loader.Symbol(library, name);
    complete = complete && symbol != nullptr;
    slot = reinterpret_cast<std::remove_reference_t<decltype(slot)>>(symbol);
  };
  bind(api.init, "TavoComputingClientInit");
  bind(api.createTask, "TavoComputingCreateTask");
  bind(api.destroyTask, "TavoComputingDestroyTask");
  bind(api.startTask, "TavoComputingStartTask");
  bind(api.stopTask, "TavoComputingStopTask");
  bind(api.queryResourceUsage, "TavoComputingQueryResourceUsage");
  bind(api.updateTaskParams, "TavoComputingUpdateTaskParams");
  bind(api.inference, "TavoComputingInference");
  bind(api.getBuffer, "TavoComputingGetBuffer");
  bind(api.returnBuffer, "TavoComputingReturnBuffer");
  if (!complete) {
    const std::string error = loader.Error();
    loader.Close(library);
    VLOG_ERR("OsDLibrarySym failed :%s", error.c_str());
    return 1;
  }
  m_clientLib = library;
  m_api = api;
  return 0;
}

uint32_t BackgroundVirtualityNode::StartComputing(const std::string& modelPath) {
  if (!m_taskCreated) {
    int ret = m_api.init(kClientName, 0);
    if (ret != 0) {
      VLOG_ERR_CH(2, "TavoComputingClientInit error ret :%d", ret);
      return 1;
    }
    TavoComputingTaskParams params;
    FillTaskParams(modelPath, &params);
    uint32_t taskId = 0;
    ret = m_api.createTask(TaskConfig(), params, &taskId);
    if (ret != 0) {
      VLOG_ERR_CH(2, "TavoComputingCreateTask error ret :%d", ret);
      return 1;
    }
    m_taskId = taskId;
    m_taskCreated = true;
    // Nodes are owned by shared pointers; one that is not cannot be found by its answers.
    auto self = std::static_pointer_cast<BackgroundVirtualityNode>(weak_from_this().lock());
    std::lock_guard<std::mutex> lock(callbackMapLock);
    callbackMap[static_cast<int>(m_taskId)] = self;
  }
  const int ret = m_api.startTask(m_taskId);
  if (ret != 0) {
    VLOG_ERR_CH(2, "TavoComputingStartTask error ret :%d", ret);
    return 1;
  }
  VLOG_INF_CH(2, "StartComputing success");
  return 0;
}

uint32_t BackgroundVirtualityNode::Start() {
  std::lock_guard<std::mutex> lock(m_stateMutex);
  if (m_isRunning.load(std::memory_order_acquire)) {
    return 0;
  }
  if (LoadComputing() != 0) {
    return 0;  // no client: frames keep passing through
  }
  std::string missing;
  if (!OpencvWrapperUsable(&missing)) {
    VLOG_ERR_CH(2, "libtavo_video_opencv_wrapper unusable:%s", missing.c_str());
    return 0;  // no image operations: frames keep passing through
  }
  const std::string path = GetModelFilePath();
  VLOG_INF_CH(2, "modelAddr path[%s]", path.c_str());
  const uint32_t started = StartComputing(path);
  if (started != 0) {
    VLOG_ERR_CH(2, "StartComputing failed[%d]", started);
    return 1;
  }
  // Masks a late callback left behind belong to no frame of this run.
  FreeMasks(m_maskQueue);
  m_stopWaiting.store(false, std::memory_order_release);
  m_isRunning.store(true, std::memory_order_release);
  const int32_t created = m_handleThread.Start([this] { HandleBufferThread(); });
  if (created != 0) {
    VLOG_ERR_CH(2, "OsPthreadCreate HandleBufferThread failed[%d]", created);
    m_isRunning.store(false, std::memory_order_release);
    return 1;
  }
  for (uint32_t i = 0; i < kInitialMasks; ++i) {
    if (uint8_t* mask = NewMask()) {
      m_freeMaskQueue.enqueue(mask);
    }
  }
  return 0;
}

uint32_t BackgroundVirtualityNode::StopComputing() {
  const int ret = m_api.stopTask(m_taskId);
  if (ret != 0) {
    VLOG_ERR_CH(2, "TavoComputingStopTask error ret :%d", ret);
    return 1;
  }
  return 0;
}

uint32_t BackgroundVirtualityNode::Stop() {
  // A frame-size change may be waiting for frames in flight under m_stateMutex.
  m_stopWaiting.store(true, std::memory_order_release);
  std::lock_guard<std::mutex> lock(m_stateMutex);
  if (!m_isRunning.load(std::memory_order_acquire)) {
    return 0;
  }
  m_isRunning.store(false, std::memory_order_release);
  m_handleThread.Stop();
  const uint32_t stopped = StopComputing();
  if (stopped != 0) {
    VLOG_ERR_CH(2, "StopComputing failed[%d]", stopped);
    return 1;
  }
  ClearQueue();
  m_argbBuffer.reset();
  VLOG_INF_CH(2, "StopComputing end");
  return 0;
}

uint32_t BackgroundVirtualityNode::DestroyComputing() {
  std::lock_guard<std::mutex> lock(m_stateMutex);
  if (!m_taskCreated) {
    return 0;
  }
  const int ret = m_api.destroyTask(m_taskId);
  if (ret != 0) {
    VLOG_ERR_CH(2, "tavoComputingDestroyTask error ret :%d", ret);
    return 1;
  }
  {
    std::lock_guard<std::mutex> mapLock(callbackMapLock);
    callbackMap.erase(static_cast<int>(m_taskId));
  }
  m_taskCreated = false;
  return 0;
}

uint32_t BackgroundVirtualityNode::OnStop() {
  VLOG_INF_CH(2, "BackgroundVirtualityBaseNode StopProcess");
  const uint32_t stopped = Stop();
  if (stopped != 0) {
    VLOG_ERR_CH(2, "Stop failed[%d]", stopped);
  }
  if (DestroyComputing() != 0) {
    return 1;
  }
  VLINK_LOG(2, 3, ::vlink::kToTrace, "StopProcess node[%u] ok", m_nodeId);
  return 0;
}

void BackgroundVirtualityNode::OnShutdown() {
  // A node switched on without ever being started has a thread and a task all the same.
  Stop();
  DestroyComputing();
}

void BackgroundVirtualityNode::FreeMasks(OsThreadSafeQueue<uint8_t*>& queue) {
  uint8_t* mask = nullptr;
  while (queue.dequeue(&mask, 0)) {
    delete[] mask;
  }
}

void BackgroundVirtualityNode::ClearQueue() {
  OsvGraphicBuffer* buffer = nullptr;
  while (m_inputQueue.dequeue(&buffer, 0)) {
    FrameRef::Adopt(buffer).Reset();
  }
  uint8_t* mask = nullptr;
  while (m_maskQueue.dequeue(&mask, 0)) {
    if (mask != nullptr) {
      m_freeMaskQueue.enqueue(mask);
    }
  }
  FreeMasks(m_freeMaskQueue);
  while (m_rgbQueue.dequeue(&buffer, 0)) {
    delete buffer;
  }
}

uint32_t BackgroundVirtualityNode::HandleBuffer(FrameRef& frame) {
  if (!frame) {
    VLOG_ERR_PACED(kPacedNullFrame, "m_nodeId[%u] buffer is nullptr", m_nodeId);
    return 1;
  }
  std::lock_guard<std::mutex> lock(m_stateMutex);
  if (!m_isRunning.load(std::memory_order_acquire)) {
    SendBuffer(frame.Get());
    ReleaseBuffer(frame);
    return 0;
  }
  if (Overlayer(frame) != 0) {
    frame.Reset();  // the frame is lost, not passed on
  }
  return 0;
}

uint32_t BackgroundVirtualityNode::UpdateComputingParam() {
  // Masks come back in order: retune only when no frame is in flight.
  while (!m_inputQueue.empty()) {
    if (m_stopWaiting.load(std::memory_order_acquire)) {
      return 1;
    }
    Seam<Clock>::Get().SleepMs(kDrainPollMs);
  }
  TavoComputingTaskParams params;
  FillTaskParams(GetModelFilePath(), &params);
  const int ret = m_api.updateTaskParams(TaskConfig(), params, m_taskId);
  if (ret != 0) {
    VLOG_ERR("TavoComputingUpdateTaskParams error ret :%d", ret);
    return 1;
  }
  return 0;
}

uint32_t BackgroundVirtualityNode::Overlayer(FrameRef& frame) {
  const OsvGraphicBufferInfo info = frame->GetImageInfo();
  const BackgroundVirtualityParams param = GetParam();
  if (info.width != param.width || info.height != param.height) {
    {
      std::lock_guard<std::recursive_mutex> lock(m_nodeLock);
      m_param.width = info.width;
      m_param.height = info.height;
    }
    m_argbBuffer.reset();
    if (UpdateComputingParam() != 0) {
      VLOG_ERR_PACED(kPacedRetune, "UpdateComputingParam failed");
      return 1;
    }
  }
  OsvGraphicBuffer* rgbOut = nullptr;
  if (DataConvertBeforeVirtual(frame.Get(), &rgbOut) != 0) {
    VLOG_ERR_PACED(kPacedConvertBefore, "data convert before virtual failed");
    return 1;
  }
  std::unique_ptr<OsvGraphicBuffer> rgb(rgbOut);
  return ProcessForComputing(frame, rgb);  // a failure destroys the copy with `rgb`
}

uint32_t BackgroundVirtualityNode::ProcessForComputing(FrameRef& frame,
                                                       std::unique_ptr<OsvGraphicBuffer>& rgb) {
  TavoComputingBufferParams buffer{};
  if (m_api.getBuffer(m_taskId, &buffer) != 0) {
    return 1;
  }
  const OsvGraphicBufferInfo info = rgb->GetImageInfo();
  const uint64_t bytes = uint64_t{info.width} * info.height * 3;
  if (buffer.data == nullptr || bytes > info.size ||
      memcpy_s(buffer.data, buffer.size, rgb->GetImageAddr(0), static_cast<rsize_t>(bytes)) != 0) {
    VLOG_ERR_PACED(kPacedGetBufferCopy, "TavoComputingGetBuffer memcpy_s failed");
    return 1;
  }
  buffer.size = static_cast<uint32_t>(bytes);
  buffer.filled = 1;
  uint8_t output[16] = {};
  const int ret = m_api.inference(output, &BackgroundVirtualityNode::ComputingCallback, nullptr,
                                  m_taskId, buffer);
  if (ret != 0) {
    VLOG_ERR_PACED(kPacedInference, "TavoComputingInference error ret :%d", ret);
    return 1;
  }
  m_inputQueue.enqueue(frame.Detach());
  m_rgbQueue.enqueue(rgb.release());
  return 0;
}

void BackgroundVirtualityNode::ComputingCallback(unsigned int status, int taskHandle,
                                                 TavoComputingBufferParams result) {
  std::shared_ptr<BackgroundVirtualityNode> node;
  {
    std::lock_guard<std::mutex> lock(callbackMapLock);
    auto it = callbackMap.find(taskHandle);
    if (it != callbackMap.end()) {
      node = it->second.lock();
    }
  }
  if (!node) {
    VLOG_ERR("callbackMap not find handle:%d", taskHandle);
    return;
  }
  node->OnResult(status, result);
}

void BackgroundVirtualityNode::OnResult(unsigned int status,
                                        const TavoComputingBufferParams& result) {
  if (status == 0) {
    uint8_t* mask = nullptr;
    if (!m_freeMaskQueue.dequeue(&mask, kQueueWaitMs)) {
      mask = NewMask();
    }
    if (mask != nullptr && memcpy_s(mask, kMaskBytes, result.data, kMaskBytes) == 0) {
      m_maskQueue.enqueue(mask);
      return;
    }
    VLOG_ERR_PACED(kPacedMaskCopy, "memcpy_s failed buffParams.size:%d",
                   static_cast<int>(result.size));
    if (mask != nullptr) {
      m_freeMaskQueue.enqueue(mask);
    }
  } else {
    VLOG_ERR_PACED(kPacedAnswerFailed, "ComputingCallback failed");
  }
  // The frame of this request is dropped in its turn: masks of earlier requests may still
  // wait for the handle thread, and dropping the oldest frame in flight here would pair
  // them with the wrong frames. A null entry tells the handle thread to drop one frame.
  m_maskQueue.enqueue(nullptr);
}

void BackgroundVirtualityNode::HandleBufferThread() {
  while (m_isRunning.load(std::memory_order_acquire)) {
    uint8_t* mask = nullptr;
    if (!m_maskQueue.dequeue(&mask, kQueueWaitMs)) {
      continue;
    }
    HandleCallbackBuffer(mask);
    if (mask != nullptr) {
      m_freeMaskQueue.enqueue(mask);
    }
  }
}

void BackgroundVirtualityNode::HandleCallbackBuffer(uint8_t* mask) {
  // The answer may come before the submitting worker has queued its frame (it queues right
  // after the request returns): wait for both as long as the effect runs, 50 ms at a time.
  auto take = [this](OsThreadSafeQueue<OsvGraphicBuffer*>& queue) -> OsvGraphicBuffer* {
    OsvGraphicBuffer* item = nullptr;
    while (!queue.dequeue(&item, kQueueWaitMs)) {
      if (!m_isRunning.load(std::memory_order_acquire)) {
        return nullptr;
      }
    }
    return item;
  };
  std::unique_ptr<OsvGraphicBuffer> rgb(take(m_rgbQueue));
  FrameRef frame = FrameRef::Adopt(take(m_inputQueue));
  if (!rgb || !frame || mask == nullptr) {
    return;  // a failed request, or switched off while waiting: what came is dropped here
  }
  if (DataOverlayer(frame.Get(), mask, rgb.get()) != 0) {
    VLOG_ERR_PACED(kPacedOverlayer, "DataOverlayer failed");
    return;
  }
  rgb.reset();
  if (SendBuffer(frame.Get()) != 0) {
    VLOG_ERR_PACED(kPacedSend, "BackgroundVirtualityNode SendBuffer failed");
  }
}
