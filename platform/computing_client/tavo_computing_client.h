// The inference client "libtavo_computing_client.so": person segmentation as a service
// with tasks. A caller creates a task for a model and a frame size, starts it, and for every
// frame takes an input buffer (TavoComputingGetBuffer), fills it with the frame and submits
// it (TavoComputingInference); the client runs the model on threads of its own and calls the
// given callback exactly once per accepted request: status 0 with the mask, or non-zero.
//
// The mask is one byte per pixel at the frame size, row after row, 0 background and 255
// person, in a result buffer of TAVO_COMPUTING_RESULT_BYTES bytes that is valid only for the
// length of the callback. Input frames are packed 24-bit, B, G, R in memory.
//
// Every function returns 0 on success and a negative code on failure. Callbacks run on the
// client's threads and must not call TavoComputingStopTask, TavoComputingDestroyTask or
// TavoComputingUpdateTaskParams (those wait for callbacks in progress).
#pragma once

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define TAVO_COMPUTING_RESULT_BYTES 3686400U  // 2560 x 1440 mask bytes

enum TavoComputingError {
  TAVO_COMPUTING_OK = 0,
  TAVO_COMPUTING_ERR_ARGUMENT = -1,   // null pointer, bad size, unknown task
  TAVO_COMPUTING_ERR_STATE = -2,      // not initialised, task not started
  TAVO_COMPUTING_ERR_MODEL = -3,      // model missing, unreadable or not a segmentation model
  TAVO_COMPUTING_ERR_BUSY = -4,       // every input buffer is in use: try again later
  TAVO_COMPUTING_ERR_INFERENCE = -5,  // the model failed on this frame (callback status)
  TAVO_COMPUTING_ERR_CANCELLED = -6,  // the task stopped before the request ran (callback status)
};

// How a task runs: how many threads and input buffers it uses, and the expected frame rate.
typedef struct TavoComputingTaskConfig {
  uint32_t threadCount;  // inference threads; 1 keeps results in submission order
  uint32_t priority;     // 1 = normal; others are treated the same
  uint32_t frameRate;    // frames per second the caller expects to submit
} TavoComputingTaskConfig;

// What a task computes: 3,172 bytes, zeroed by the caller before filling.
typedef struct TavoComputingTaskParams {
  char taskName[100];    // NUL-terminated
  char pluginName[100];  // NUL-terminated; the plug-in that would post-process (unused)
  uint32_t modelCount;   // 1
  char modelPath[200];   // NUL-terminated ONNX segmentation model
  uint8_t reserved0[1840];
  uint32_t inputSpec[2];   // element type 12 (8-bit packed colour), 2 = host memory
  uint32_t outputSpec[2];  // element type 12 (8-bit mask), 2 = host memory
  uint8_t reserved1[812];
  uint16_t width;         // frame width, little-endian
  uint16_t height;        // frame height, little-endian
  uint8_t modelSizeCode;  // 1
  uint8_t reserved2[95];
} TavoComputingTaskParams;

// A buffer lent between caller and client: 24 bytes.
typedef struct TavoComputingBufferParams {
  void* data;
  uint32_t size;  // bytes valid (input: filled; result: mask bytes)
  uint8_t reserved0[4];
  uint8_t filled;  // 1 when the holder filled it
  uint8_t reserved1[7];
} TavoComputingBufferParams;

typedef struct TavoComputingResourceUsage {
  uint32_t tasks;             // tasks created
  uint32_t requestsInFlight;  // accepted, not yet called back
  uint64_t framesDone;        // callbacks with status 0
  uint64_t framesFailed;      // callbacks with a non-zero status
} TavoComputingResourceUsage;

typedef void (*TavoComputingCallback)(unsigned int status, int taskHandle,
                                      TavoComputingBufferParams result);

#define TAVO_COMPUTING_API __attribute__((visibility("default")))

TAVO_COMPUTING_API int TavoComputingClientInit(const char* clientName, uint32_t flags);
// Loads the model and makes a task for the frame size in params; *taskId receives its handle
// (never reused within the process).
TAVO_COMPUTING_API int TavoComputingCreateTask(TavoComputingTaskConfig config,
                                               TavoComputingTaskParams params, uint32_t* taskId);
TAVO_COMPUTING_API int TavoComputingDestroyTask(uint32_t taskId);
TAVO_COMPUTING_API int TavoComputingStartTask(uint32_t taskId);
// Requests still waiting are called back with TAVO_COMPUTING_ERR_CANCELLED; returns once no
// callback of the task is running or due.
TAVO_COMPUTING_API int TavoComputingStopTask(uint32_t taskId);
// taskId 0: the whole client.
TAVO_COMPUTING_API int TavoComputingQueryResourceUsage(uint32_t taskId,
                                                       TavoComputingResourceUsage* usage);
// New frame size or model; waits until the task has no request in flight.
TAVO_COMPUTING_API int TavoComputingUpdateTaskParams(TavoComputingTaskConfig config,
                                                     TavoComputingTaskParams params,
                                                     uint32_t taskId);
// Submits a buffer from TavoComputingGetBuffer, filled with width x height x 3 bytes.
// `output` (16 bytes) receives the request number in its first 8 bytes; may be null.
TAVO_COMPUTING_API int TavoComputingInference(void* output, TavoComputingCallback callback,
                                              void* userData, uint32_t taskId,
                                              TavoComputingBufferParams input);
// Lends an input buffer of width x height x 3 bytes; TAVO_COMPUTING_ERR_BUSY when all are lent.
TAVO_COMPUTING_API int TavoComputingGetBuffer(uint32_t taskId, TavoComputingBufferParams* buffer);
// Gives back a lent buffer that will not be submitted.
TAVO_COMPUTING_API int TavoComputingReturnBuffer(uint32_t taskId, TavoComputingBufferParams buffer);

#ifdef __cplusplus
}

static_assert(sizeof(TavoComputingTaskParams) == 3172, "task record is 3,172 bytes");
static_assert(offsetof(TavoComputingTaskParams, modelCount) == 200, "");
static_assert(offsetof(TavoComputingTaskParams, modelPath) == 204, "");
static_assert(offsetof(TavoComputingTaskParams, inputSpec) == 2244, "");
static_assert(offsetof(TavoComputingTaskParams, outputSpec) == 2252, "");
static_assert(offsetof(TavoComputingTaskParams, width) == 3072, "");
static_assert(offsetof(TavoComputingTaskParams, height) == 3074, "");
static_assert(offsetof(TavoComputingTaskParams, modelSizeCode) == 3076, "");
static_assert(sizeof(TavoComputingBufferParams) == 24, "buffer descriptor is 24 bytes");
static_assert(offsetof(TavoComputingBufferParams, filled) == 16, "");
#endif
