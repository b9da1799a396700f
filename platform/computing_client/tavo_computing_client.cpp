// The inference client: tasks, their input buffers, and one inference thread per task so
// that results come back in submission order.
#include "platform/computing_client/tavo_computing_client.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "platform/computing_client/tavo_computing_segmenter.h"

namespace {

// Requests a task holds at once; beyond that TavoComputingGetBuffer answers "busy", which
// bounds the frames a caller has in flight. One is inferred while the next waits: the single
// inference thread gains nothing from more, and each more would add one inference time of
// delay to every frame whenever the service is slower than the camera.
constexpr size_t kInputBuffers = 2;
// An idle inference thread looks at its queue at least this often (it is also woken).
constexpr uint32_t kIdleWaitMs = 1000;

// The inference thread: a name, one owner that joins it, a stop that wakes it. This client is
// a platform library of its own and shares no code (nor seams) with the node core.
class TaskThread {
 public:
  explicit TaskThread(const char* name) : m_name(name) {}
  ~TaskThread() { Stop(); }
  TaskThread(const TaskThread&) = delete;
  TaskThread& operator=(const TaskThread&) = delete;

  // 0, or EBUSY while a started thread is not joined, EAGAIN when none could be made.
  int Start(std::function<void()> body) {
    std::lock_guard<std::mutex> join(m_joinLock);
    if (m_thread.joinable()) {
      return EBUSY;
    }
    m_stopRequested.store(false);
    try {
      m_thread = std::thread([this, body = std::move(body)] {
        pthread_setname_np(pthread_self(), m_name);
        body();
      });
    } catch (const std::system_error&) {
      return EAGAIN;
    }
    return 0;
  }
  // Asks the body to end, wakes it and joins. Never from the body itself.
  void Stop() {
    m_stopRequested.store(true);
    Wake();
    std::lock_guard<std::mutex> join(m_joinLock);
    if (m_thread.joinable()) {
      m_thread.join();
    }
  }
  bool StopRequested() const { return m_stopRequested.load(); }
  // Waits until stop, a Wake, done() or `milliseconds`; true when the body should go on.
  bool WaitFor(uint32_t milliseconds, const std::function<bool()>& done) {
    std::unique_lock<std::mutex> lock(m_waitLock);
    const uint64_t seen = m_wakeups;
    m_wake.wait_for(lock, std::chrono::milliseconds(milliseconds),
                    [&] { return m_stopRequested.load() || m_wakeups != seen || done(); });
    return !m_stopRequested.load();
  }
  void Wake() {
    {
      std::lock_guard<std::mutex> lock(m_waitLock);
      ++m_wakeups;
    }
    m_wake.notify_all();
  }

 private:
  const char* const m_name;
  std::mutex m_waitLock;  // guards m_wakeups; no callback runs under it
  std::condition_variable m_wake;
  uint64_t m_wakeups = 0;
  std::atomic<bool> m_stopRequested{false};
  std::mutex m_joinLock;  // one joiner at a time
  std::thread m_thread;
};

struct Request {
  uint8_t* data;
  int width;
  int height;
  TavoComputingCallback callback;
};

// A copy of a NUL-terminated field, or false when it has no terminator.
bool FieldText(const char* field, size_t capacity, std::string* out) {
  const void* end = std::memchr(field, '\0', capacity);
  if (end == nullptr) {
    return false;
  }
  out->assign(field, static_cast<const char*>(end));
  return true;
}

class Task {
 public:
  Task(uint32_t id, const TavoComputingTaskConfig& config)
      : m_id(id), m_config(config), m_thread("COMPUTING_TASK") {}
  ~Task() { Shutdown(); }
  Task(const Task&) = delete;
  Task& operator=(const Task&) = delete;

  // Model and frame size from the record; only while nothing is in flight.
  int Configure(const TavoComputingTaskConfig& config, const TavoComputingTaskParams& params) {
    std::string path;
    if (!FieldText(params.modelPath, sizeof params.modelPath, &path) || path.empty()) {
      return TAVO_COMPUTING_ERR_ARGUMENT;
    }
    const int width = params.width;
    const int height = params.height;
    if (width <= 0 || height <= 0 ||
        static_cast<uint64_t>(width) * static_cast<uint64_t>(height) >
            TAVO_COMPUTING_RESULT_BYTES) {
      return TAVO_COMPUTING_ERR_ARGUMENT;
    }
    std::unique_lock<std::mutex> lock(m_lock);
    m_changed.wait(lock, [this] { return m_inFlight == 0; });
    if (!m_lent.empty()) {
      return TAVO_COMPUTING_ERR_BUSY;
    }
    if (path != m_modelPath) {
      auto segmenter = std::make_unique<Segmenter>();
      const int loaded = segmenter->Load(path);
      if (loaded != TAVO_COMPUTING_OK) {
        return loaded;
      }
      m_segmenter = std::move(segmenter);
      m_modelPath = path;
    }
    m_segmenter->ResetHistory();
    m_config = config;
    m_width = width;
    m_height = height;
    const size_t frameBytes = size_t{static_cast<uint32_t>(width)} * height * 3;
    if (frameBytes > m_bufferBytes) {
      m_buffers.clear();
      m_free.clear();
      for (size_t i = 0; i < kInputBuffers; ++i) {
        m_buffers.push_back(std::make_unique<uint8_t[]>(frameBytes));
        m_free.push_back(m_buffers.back().get());
      }
      m_bufferBytes = frameBytes;
    }
    if (m_result.empty()) {
      m_result.assign(TAVO_COMPUTING_RESULT_BYTES, 0);
    }
    return TAVO_COMPUTING_OK;
  }

  int Launch() {
    if (m_thread.Start([this] { Body(); }) != 0) {
      return TAVO_COMPUTING_ERR_STATE;
    }
    std::lock_guard<std::mutex> lock(m_lock);
    m_launched = true;
    return TAVO_COMPUTING_OK;
  }

  int Start() {
    std::lock_guard<std::mutex> lock(m_lock);
    if (!m_started && m_segmenter) {
      m_segmenter->ResetHistory();  // only touched by the worker while a request runs
    }
    m_started = true;
    return TAVO_COMPUTING_OK;
  }

  // Cancels what waits and returns once no callback is running or due.
  int Stop() {
    {
      std::lock_guard<std::mutex> lock(m_lock);
      m_started = false;
    }
    m_thread.Wake();
    std::unique_lock<std::mutex> lock(m_lock);
    m_changed.wait(lock, [this] { return m_inFlight == 0 || !m_launched; });
    return TAVO_COMPUTING_OK;
  }

  void Shutdown() {
    Stop();
    m_thread.Stop();
  }

  int GetBuffer(TavoComputingBufferParams* buffer) {
    std::lock_guard<std::mutex> lock(m_lock);
    if (!m_started) {
      return TAVO_COMPUTING_ERR_STATE;
    }
    if (m_free.empty()) {
      return TAVO_COMPUTING_ERR_BUSY;
    }
    *buffer = TavoComputingBufferParams{};
    buffer->data = m_free.back();
    buffer->size = static_cast<uint32_t>(size_t{static_cast<uint32_t>(m_width)} * m_height * 3);
    m_lent.push_back(m_free.back());
    m_free.pop_back();
    return TAVO_COMPUTING_OK;
  }

  int ReturnBuffer(const TavoComputingBufferParams& buffer) {
    std::lock_guard<std::mutex> lock(m_lock);
    return Reclaim(buffer.data) ? TAVO_COMPUTING_OK : TAVO_COMPUTING_ERR_ARGUMENT;
  }

  int Submit(TavoComputingCallback callback, const TavoComputingBufferParams& input,
             uint64_t* number) {
    {
      std::lock_guard<std::mutex> lock(m_lock);
      const size_t frameBytes = size_t{static_cast<uint32_t>(m_width)} * m_height * 3;
      const bool lent = IsLent(input.data);
      int refusal = TAVO_COMPUTING_OK;
      if (!lent || callback == nullptr || input.filled != 1 || input.size != frameBytes) {
        refusal = TAVO_COMPUTING_ERR_ARGUMENT;
      } else if (!m_started) {
        refusal = TAVO_COMPUTING_ERR_STATE;
      }
      if (refusal != TAVO_COMPUTING_OK) {
        if (lent) {
          Reclaim(input.data);  // a refused request gives its buffer back
        }
        return refusal;
      }
      m_lent.erase(std::find(m_lent.begin(), m_lent.end(), input.data));
      ++m_inFlight;
      m_requests.push_back(Request{static_cast<uint8_t*>(input.data), m_width, m_height, callback});
      *number = ++m_submitted;
    }
    m_thread.Wake();
    return TAVO_COMPUTING_OK;
  }

  void Usage(TavoComputingResourceUsage* usage) {
    std::lock_guard<std::mutex> lock(m_lock);
    usage->requestsInFlight += static_cast<uint32_t>(m_inFlight);
    usage->framesDone += m_done;
    usage->framesFailed += m_failed;
  }

 private:
  bool IsLent(const void* data) const {  // m_lock held
    return std::find(m_lent.begin(), m_lent.end(), data) != m_lent.end();
  }
  // Takes a lent buffer back into the free list; false when it was not lent.
  bool Reclaim(void* data) {  // m_lock held
    auto it = std::find(m_lent.begin(), m_lent.end(), data);
    if (it == m_lent.end()) {
      return false;
    }
    m_lent.erase(it);
    m_free.push_back(static_cast<uint8_t*>(data));
    return true;
  }

  void Body() {
    while (m_thread.WaitFor(kIdleWaitMs, [this] {
      std::lock_guard<std::mutex> lock(m_lock);
      return !m_requests.empty();
    })) {
      RunQueued();
    }
    RunQueued();  // cancels what is left: every request is called back once
  }

  void RunQueued() {
    for (;;) {
      Request request{};
      bool run = false;
      {
        std::lock_guard<std::mutex> lock(m_lock);
        if (m_requests.empty()) {
          return;
        }
        request = m_requests.front();
        m_requests.pop_front();
        run = m_started && !m_thread.StopRequested();
      }
      int status = TAVO_COMPUTING_ERR_CANCELLED;
      if (run) {
        status =
            m_segmenter->Run(request.data, request.width, request.height,
                             size_t{static_cast<uint32_t>(request.width)} * 3, m_result.data());
      }
      TavoComputingBufferParams result{};
      if (status == TAVO_COMPUTING_OK) {
        result.data = m_result.data();
        result.size = static_cast<uint32_t>(request.width) * static_cast<uint32_t>(request.height);
        result.filled = 1;
      }
      request.callback(static_cast<unsigned int>(status), static_cast<int>(m_id), result);
      {
        std::lock_guard<std::mutex> lock(m_lock);
        m_free.push_back(request.data);
        --m_inFlight;
        ++(status == TAVO_COMPUTING_OK ? m_done : m_failed);
      }
      m_changed.notify_all();
    }
  }

  const uint32_t m_id;
  // Lock order: m_lock is taken alone or inside the inference thread's wait lock (its wait
  // condition); never wake the thread while holding it. No callback runs under it.
  std::mutex m_lock;  // guards every member below except m_result and the segmenter's state
  std::condition_variable m_changed;  // m_inFlight went down
  TavoComputingTaskConfig m_config;
  std::string m_modelPath;
  std::unique_ptr<Segmenter> m_segmenter;  // replaced only while nothing is in flight
  int m_width = 0;
  int m_height = 0;
  bool m_started = false;
  bool m_launched = false;  // the inference thread runs and will answer what is queued
  std::vector<std::unique_ptr<uint8_t[]>> m_buffers;
  std::vector<uint8_t*> m_free;
  size_t m_bufferBytes = 0;
  std::vector<uint8_t*> m_lent;  // handed out, not yet submitted or given back
  size_t m_inFlight = 0;         // submitted, not yet called back
  std::deque<Request> m_requests;
  uint64_t m_submitted = 0;
  uint64_t m_done = 0;
  uint64_t m_failed = 0;
  std::vector<uint8_t> m_result;  // written and read only on the inference thread
  TaskThread m_thread;
};

std::mutex g_clientLock;  // guards g_initialised, g_nextTaskId, g_tasks; nothing runs under it
bool g_initialised = false;
uint32_t g_nextTaskId = 1;
std::map<uint32_t, std::shared_ptr<Task>>& Tasks() {
  static auto* tasks = new std::map<uint32_t, std::shared_ptr<Task>>();  // lives to exit
  return *tasks;
}

std::shared_ptr<Task> FindTask(uint32_t taskId) {
  std::lock_guard<std::mutex> lock(g_clientLock);
  auto it = Tasks().find(taskId);
  return it == Tasks().end() ? nullptr : it->second;
}

// Nothing thrown inside (allocation, OpenCV) leaves the library.
template <class F>
int Guarded(F&& body) noexcept {
  try {
    return body();
  } catch (...) {
    return TAVO_COMPUTING_ERR_STATE;
  }
}

}  // namespace

extern "C" {

int TavoComputingClientInit(const char* clientName, uint32_t /*flags*/) {
  if (clientName == nullptr) {
    return TAVO_COMPUTING_ERR_ARGUMENT;
  }
  std::lock_guard<std::mutex> lock(g_clientLock);
  g_initialised = true;
  return TAVO_COMPUTING_OK;
}

int TavoComputingCreateTask(TavoComputingTaskConfig config, TavoComputingTaskParams params,
                            uint32_t* taskId) {
  return Guarded([&] {
    if (taskId == nullptr) {
      return static_cast<int>(TAVO_COMPUTING_ERR_ARGUMENT);
    }
    uint32_t id = 0;
    {
      std::lock_guard<std::mutex> lock(g_clientLock);
      if (!g_initialised) {
        return static_cast<int>(TAVO_COMPUTING_ERR_STATE);
      }
      id = g_nextTaskId++;
    }
    auto task = std::make_shared<Task>(id, config);
    const int configured = task->Configure(config, params);
    if (configured != TAVO_COMPUTING_OK) {
      return configured;
    }
    if (task->Launch() != TAVO_COMPUTING_OK) {
      return static_cast<int>(TAVO_COMPUTING_ERR_STATE);
    }
    std::lock_guard<std::mutex> lock(g_clientLock);
    Tasks().emplace(id, std::move(task));
    *taskId = id;
    return static_cast<int>(TAVO_COMPUTING_OK);
  });
}

int TavoComputingDestroyTask(uint32_t taskId) {
  std::shared_ptr<Task> task;
  {
    std::lock_guard<std::mutex> lock(g_clientLock);
    auto it = Tasks().find(taskId);
    if (it == Tasks().end()) {
      return TAVO_COMPUTING_ERR_ARGUMENT;
    }
    task = std::move(it->second);
    Tasks().erase(it);
  }
  task->Shutdown();
  return TAVO_COMPUTING_OK;
}

int TavoComputingStartTask(uint32_t taskId) {
  std::shared_ptr<Task> task = FindTask(taskId);
  return task ? task->Start() : TAVO_COMPUTING_ERR_ARGUMENT;
}

int TavoComputingStopTask(uint32_t taskId) {
  std::shared_ptr<Task> task = FindTask(taskId);
  return task ? task->Stop() : TAVO_COMPUTING_ERR_ARGUMENT;
}

int TavoComputingQueryResourceUsage(uint32_t taskId, TavoComputingResourceUsage* usage) {
  if (usage == nullptr) {
    return TAVO_COMPUTING_ERR_ARGUMENT;
  }
  *usage = TavoComputingResourceUsage{};
  std::vector<std::shared_ptr<Task>> tasks;
  {
    std::lock_guard<std::mutex> lock(g_clientLock);
    for (const auto& [id, task] : Tasks()) {
      if (taskId == 0 || taskId == id) {
        tasks.push_back(task);
      }
    }
    usage->tasks = static_cast<uint32_t>(Tasks().size());
  }
  if (taskId != 0 && tasks.empty()) {
    return TAVO_COMPUTING_ERR_ARGUMENT;
  }
  for (const auto& task : tasks) {
    task->Usage(usage);
  }
  return TAVO_COMPUTING_OK;
}

int TavoComputingUpdateTaskParams(TavoComputingTaskConfig config, TavoComputingTaskParams params,
                                  uint32_t taskId) {
  std::shared_ptr<Task> task = FindTask(taskId);
  if (!task) {
    return TAVO_COMPUTING_ERR_ARGUMENT;
  }
  return Guarded([&] { return task->Configure(config, params); });
}

int TavoComputingInference(void* output, TavoComputingCallback callback, void* /*userData*/,
                           uint32_t taskId, TavoComputingBufferParams input) {
  std::shared_ptr<Task> task = FindTask(taskId);
  if (!task) {
    return TAVO_COMPUTING_ERR_ARGUMENT;
  }
  return Guarded([&] {
    uint64_t number = 0;
    const int submitted = task->Submit(callback, input, &number);
    if (submitted == TAVO_COMPUTING_OK && output != nullptr) {
      std::memset(output, 0, 16);
      std::memcpy(output, &number, sizeof number);
    }
    return submitted;
  });
}

int TavoComputingGetBuffer(uint32_t taskId, TavoComputingBufferParams* buffer) {
  if (buffer == nullptr) {
    return TAVO_COMPUTING_ERR_ARGUMENT;
  }
  std::shared_ptr<Task> task = FindTask(taskId);
  return task ? task->GetBuffer(buffer) : TAVO_COMPUTING_ERR_ARGUMENT;
}

int TavoComputingReturnBuffer(uint32_t taskId, TavoComputingBufferParams buffer) {
  std::shared_ptr<Task> task = FindTask(taskId);
  return task ? task->ReturnBuffer(buffer) : TAVO_COMPUTING_ERR_ARGUMENT;
}

}  // extern "C"
