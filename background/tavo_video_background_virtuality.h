// The virtual-background node: while the effect is off it passes frames through; while it is
// on it sends an RGB24 copy of each frame to the inference client, and when the client's
// mask comes back the "VIRTAL_BG_HANDLE" thread blends the frame over the background image
// and sends it on, in submission order. Without the inference client or the image-operations
// wrapper (or one of their functions) the node stays in pass-through.
//
// Threads: HandleBuffer and submission on pool workers (serialised by m_stateMutex);
// ComputingCallback on the client's threads; blending and sending on the handle thread.
// The four queues are the only hand-over between them.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "background/tavo_video_background_log.h"
#include "background/tavo_video_background_virtuality_base_node.h"
#include "background/tavo_video_thread_safe_queue.h"
#include "core/tavo_video_named_thread.h"
#include "platform/computing_client/tavo_computing_client.h"
#include "platform/opencv_wrapper/tavo_video_opencv_wrapper.h"

// The chosen model's input size, set each time a model path is chosen.
extern "C" {
__attribute__((visibility("default"))) extern int modelWidth;
__attribute__((visibility("default"))) extern int modelHeight;
}

class BackgroundVirtualityNode : public BackgroundVirtualityBaseNode {
 public:
  static constexpr const char* kClientLibrary = "libtavo_computing_client.so";
  static constexpr uint32_t kMaskBytes = TAVO_COMPUTING_RESULT_BYTES;
  static constexpr uint32_t kInitialMasks = 4;
  static constexpr uint32_t kQueueWaitMs = 50;
  static constexpr uint32_t kDrainPollMs = 10;
  // The blend of Compose32 covers exactly one 1280x720 frame.
  static constexpr uint32_t kComposePixels = 921600;

  explicit BackgroundVirtualityNode(unsigned int nodeId);
  ~BackgroundVirtualityNode() override;

  uint32_t SetParam(const BackgroundVirtualityParams& param) override;
  uint32_t Start() override;
  uint32_t Stop() override;
  uint32_t HandleBuffer(FrameRef& frame) override;
  uint32_t Overlayer(FrameRef& frame) override;

  // Accepts a host function object and does nothing with it.
  void InitModeResource(std::function<void()> resource);
  // The platform's GPU description, asked once per process; empty on failure.
  static std::string GetGPUInfo();
  // The service's answer to one request, on the service's thread.
  static void ComputingCallback(unsigned int status, int taskHandle,
                                TavoComputingBufferParams result);

  // Image stages.
  uint32_t LoadBackgroundImage();
  void UpdateBgImageSize(unsigned int width, unsigned int height);
  uint32_t DataConvertBeforeVirtual(OsvGraphicBuffer* frame, OsvGraphicBuffer** rgbOut);
  uint32_t DataOverlayer(OsvGraphicBuffer* frame, uint8_t* mask, OsvGraphicBuffer* rgb);
  uint32_t Compose32(unsigned char* out, unsigned char* bg, unsigned char* alpha,
                     unsigned char* fg);
  // The blend of Compose32 over `pixels` pixels: frames of other sizes stay in their buffers.
  uint32_t ComposePixels(unsigned char* out, const unsigned char* bg, const unsigned char* alpha,
                         const unsigned char* fg, uint32_t pixels);

  // The full model path for the current frame orientation; sets modelWidth/modelHeight.
  std::string GetModelFilePath();
  static uint8_t GetModelSize();
  // Fills the 3,172-byte task record for this path and the current frame size.
  void FillTaskParams(const std::string& modelPath, TavoComputingTaskParams* params);

  bool HasTask() const { return m_taskCreated; }
  uint32_t GetTaskId() const { return m_taskId; }

 protected:
  uint32_t OnStop() override;
  void OnShutdown() override;

 private:
  struct ClientApi {
    decltype(&::TavoComputingClientInit) init = nullptr;
    decltype(&::TavoComputingCreateTask) createTask = nullptr;
    decltype(&::TavoComputingDestroyTask) destroyTask = nullptr;
    decltype(&::TavoComputingStartTask) startTask = nullptr;
    decltype(&::TavoComputingStopTask) stopTask = nullptr;
    decltype(&::TavoComputingQueryResourceUsage) queryResourceUsage = nullptr;
    decltype(&::TavoComputingUpdateTaskParams) updateTaskParams = nullptr;
    decltype(&::TavoComputingInference) inference = nullptr;
    decltype(&::TavoComputingGetBuffer) getBuffer = nullptr;
    decltype(&::TavoComputingReturnBuffer) returnBuffer = nullptr;
  };

  uint32_t LoadComputing();  // m_stateMutex held
  uint32_t StartComputing(const std::string& modelPath);
  uint32_t StopComputing();
  uint32_t DestroyComputing();
  uint32_t UpdateComputingParam();
  uint32_t ProcessForComputing(FrameRef& frame, std::unique_ptr<OsvGraphicBuffer>& rgb);
  void HandleBufferThread();
  void HandleCallbackBuffer(uint8_t* mask);
  void OnResult(unsigned int status, const TavoComputingBufferParams& result);
  void ClearQueue();
  void FreeMasks(OsThreadSafeQueue<uint8_t*>& queue);
  TavoComputingTaskConfig TaskConfig();

  void* m_clientLib = nullptr;  // guarded by m_stateMutex; stays loaded for the process
  ClientApi m_api;              // guarded by m_stateMutex, read by the frame path under it
  CMat* m_bgImage = nullptr;    // guarded by m_imageMutex
  bool m_taskCreated = false;   // guarded by m_stateMutex
  OsThreadSafeQueue<OsvGraphicBuffer*> m_inputQueue;  // frames in flight, one reference each
  OsThreadSafeQueue<OsvGraphicBuffer*> m_rgbQueue;    // their RGB24 copies, owned
  OsThreadSafeQueue<uint8_t*> m_maskQueue;            // masks delivered, same order
  OsThreadSafeQueue<uint8_t*> m_freeMaskQueue;        // spare masks of kMaskBytes
  std::unique_ptr<OsvGraphicBuffer> m_argbBuffer;     // guarded by m_stateMutex
  NamedThread m_handleThread{"VIRTAL_BG_HANDLE"};
  std::atomic<bool> m_stopWaiting{false};  // a stop asks a size-change wait to give up
  std::array<vlink::LogPacer, kPacedMessageCount> m_pacedLog{};

  // Task handle -> node, for the service callback.
  static std::mutex callbackMapLock;  // guards callbackMap; taken alone
  static std::map<int, std::weak_ptr<BackgroundVirtualityNode>> callbackMap;
};
