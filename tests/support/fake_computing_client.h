// A test double of the inference client "libtavo_computing_client.so": the ten entry points
// as plain functions over one current fake (the client's callbacks carry no user data, so
// there is one per process at a time). Put its Symbols() into a FakeDynamicLoader.
//
// Requests are answered in submission order on the fake's own thread with an all-person
// mask. Knobs inject each misbehaviour a real client can show: refused calls, held (delayed)
// answers, failing statuses, answers given twice, and answers after stop (or never, when no
// Release comes).
#pragma once

#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "core/tavo_video_named_thread.h"
#include "platform/computing_client/tavo_computing_client.h"
#include "tests/support/wait.h"

class FakeComputingClient {
 public:
  FakeComputingClient() {
    s_current = this;
    m_thread.Start([this] { Body(); });
  }
  ~FakeComputingClient() {
    m_thread.Stop();
    std::lock_guard<std::mutex> lock(m_lock);
    for (void* buffer : m_lent) {
      std::free(buffer);
    }
    for (Pending& p : m_pending) {
      std::free(p.data);
    }
    s_current = nullptr;
  }

  // The ten entry points by name, less `omit`.
  static std::map<std::string, void*> Symbols(const std::string& omit = "") {
    std::map<std::string, void*> symbols = {
        {"TavoComputingClientInit", reinterpret_cast<void*>(&Init)},
        {"TavoComputingCreateTask", reinterpret_cast<void*>(&CreateTask)},
        {"TavoComputingDestroyTask", reinterpret_cast<void*>(&DestroyTask)},
        {"TavoComputingStartTask", reinterpret_cast<void*>(&StartTask)},
        {"TavoComputingStopTask", reinterpret_cast<void*>(&StopTask)},
        {"TavoComputingQueryResourceUsage", reinterpret_cast<void*>(&QueryResourceUsage)},
        {"TavoComputingUpdateTaskParams", reinterpret_cast<void*>(&UpdateTaskParams)},
        {"TavoComputingInference", reinterpret_cast<void*>(&Inference)},
        {"TavoComputingGetBuffer", reinterpret_cast<void*>(&GetBuffer)},
        {"TavoComputingReturnBuffer", reinterpret_cast<void*>(&ReturnBuffer)},
    };
    symbols.erase(omit);
    return symbols;
  }

  // Knobs, set before frames flow (guarded by m_lock like everything else).
  struct Knobs {
    int startResult = 0;
    int stopResult = 0;
    int inferenceResult = 0;
    int getBufferResult = 0;
    bool hold = false;             // answers wait for Release()
    bool twice = false;            // every answer is given twice
    bool answerAfterStop = false;  // StopTask leaves pending answers for later
    uint64_t failRequest = 0;      // the request number (from 1) answered with status 7
    bool alternate = false;        // odd requests get an all-background mask, others all person
    bool inline_ = false;          // answers inside TavoComputingInference, on the caller's thread
  };
  template <class F>
  void Change(F&& change) {
    std::lock_guard<std::mutex> lock(m_lock);
    change(m_knobs);
  }
  // Lets the held answers go: holding ends.
  void Release() {
    Change([](Knobs& k) { k.hold = false; });
    m_thread.Wake();
  }

  struct Record {
    int destroys = 0, starts = 0;
    std::vector<std::vector<uint8_t>> createParams;  // the task record bytes, per create
    std::vector<std::vector<uint8_t>> updateParams;  // per update
    std::vector<TavoComputingTaskConfig> configs;
    std::vector<int> answersAtUpdate;  // answers begun when each update came
    std::string clientName;
  };
  Record Get() {
    std::lock_guard<std::mutex> lock(m_lock);
    return m_record;
  }
  CountLatch requests;  // bumped per accepted inference
  CountLatch answers;   // bumped per callback given

 private:
  struct Pending {
    uint64_t number;
    uint32_t taskId;
    void* data;
    TavoComputingCallback callback;
  };

  // Books a task record into `into` (m_lock held); answers from now on have its frame size.
  void Book(std::vector<std::vector<uint8_t>>& into, const TavoComputingTaskConfig& config,
            const TavoComputingTaskParams& params) {
    const auto* p = reinterpret_cast<const uint8_t*>(&params);
    into.emplace_back(p, p + sizeof params);
    m_record.configs.push_back(config);
    m_frameBytes = size_t{params.width} * params.height * 3;
  }

  static int Init(const char* name, uint32_t) {
    std::lock_guard<std::mutex> lock(s_current->m_lock);
    s_current->m_record.clientName = name == nullptr ? "" : name;
    return 0;
  }
  static int CreateTask(TavoComputingTaskConfig config, TavoComputingTaskParams params,
                        uint32_t* taskId) {
    std::lock_guard<std::mutex> lock(s_current->m_lock);
    s_current->Book(s_current->m_record.createParams, config, params);
    *taskId = ++s_current->m_nextId + 100;
    return 0;
  }
  static int UpdateTaskParams(TavoComputingTaskConfig config, TavoComputingTaskParams params,
                              uint32_t) {
    std::lock_guard<std::mutex> lock(s_current->m_lock);
    s_current->Book(s_current->m_record.updateParams, config, params);
    s_current->m_record.answersAtUpdate.push_back(s_current->m_answersBegun);
    return 0;
  }
  static int DestroyTask(uint32_t) {
    std::lock_guard<std::mutex> lock(s_current->m_lock);
    ++s_current->m_record.destroys;
    return 0;
  }
  static int StartTask(uint32_t) {
    std::lock_guard<std::mutex> lock(s_current->m_lock);
    ++s_current->m_record.starts;
    s_current->m_started = s_current->m_knobs.startResult == 0;
    return s_current->m_knobs.startResult;
  }
  static int StopTask(uint32_t) {
    FakeComputingClient* self = s_current;
    std::unique_lock<std::mutex> lock(self->m_lock);
    if (self->m_knobs.stopResult != 0) {
      return self->m_knobs.stopResult;
    }
    self->m_started = false;
    // Unless answers come after the stop, the thread answers what is pending with a failure.
    self->m_cancel = !self->m_knobs.answerAfterStop;
    lock.unlock();  // the thread's wait takes m_lock under its own lock
    self->m_thread.Wake();
    lock.lock();
    self->m_idle.wait(lock, [self] {
      return !self->m_cancel || (self->m_pending.empty() && !self->m_answering);
    });
    self->m_cancel = false;
    return 0;
  }
  static int QueryResourceUsage(uint32_t, TavoComputingResourceUsage* usage) {
    *usage = TavoComputingResourceUsage{};
    return 0;
  }
  static int GetBuffer(uint32_t, TavoComputingBufferParams* buffer) {
    std::lock_guard<std::mutex> lock(s_current->m_lock);
    if (s_current->m_knobs.getBufferResult != 0) {
      return s_current->m_knobs.getBufferResult;
    }
    *buffer = TavoComputingBufferParams{};
    buffer->data = std::malloc(s_current->m_frameBytes);
    buffer->size = static_cast<uint32_t>(s_current->m_frameBytes);
    s_current->m_lent.insert(buffer->data);
    return 0;
  }
  static int ReturnBuffer(uint32_t, TavoComputingBufferParams buffer) {
    std::lock_guard<std::mutex> lock(s_current->m_lock);
    if (s_current->m_lent.erase(buffer.data) != 0) {
      std::free(buffer.data);
    }
    return 0;
  }
  static int Inference(void*, TavoComputingCallback callback, void*, uint32_t taskId,
                       TavoComputingBufferParams input) {
    FakeComputingClient* self = s_current;
    std::unique_lock<std::mutex> lock(self->m_lock);
    if (self->m_lent.erase(input.data) == 0) {
      return TAVO_COMPUTING_ERR_ARGUMENT;
    }
    if (self->m_knobs.inferenceResult != 0 || !self->m_started || input.filled != 1) {
      std::free(input.data);  // a refused request gives its buffer back
      return self->m_knobs.inferenceResult != 0 ? self->m_knobs.inferenceResult
                                                : TAVO_COMPUTING_ERR_STATE;
    }
    self->m_pending.push_back(Pending{++self->m_submitted, taskId, input.data, callback});
    self->requests.Add();
    if (self->m_knobs.inline_) {  // the caller's thread is the one that changes the frame size
      self->AnswerFront(lock);
      return 0;
    }
    lock.unlock();
    self->m_thread.Wake();
    return 0;
  }

  void Body() {
    while (m_thread.WaitFor(1000, [this] {
      std::lock_guard<std::mutex> lock(m_lock);
      return Ready();
    })) {
      std::unique_lock<std::mutex> lock(m_lock);
      while (Ready()) {
        AnswerFront(lock);
      }
    }
  }
  bool Ready() {  // m_lock held; inline answers are the caller's
    return !m_pending.empty() && !m_knobs.inline_ && (m_cancel || !m_knobs.hold);
  }
  // Gives the oldest request its answer, outside `lock` (held on entry and on return), and
  // its buffer back.
  void AnswerFront(std::unique_lock<std::mutex>& lock) {
    const Pending p = m_pending.front();
    m_pending.pop_front();
    const unsigned int status = m_cancel ? static_cast<unsigned int>(TAVO_COMPUTING_ERR_CANCELLED)
                                : p.number == m_knobs.failRequest ? 7U
                                                                  : 0U;
    const int times = m_knobs.twice && !m_cancel ? 2 : 1;
    std::vector<uint8_t> mask(TAVO_COMPUTING_RESULT_BYTES,
                              m_knobs.alternate && p.number % 2 == 1 ? 0 : 255);
    TavoComputingBufferParams result{};
    result.data = status == 0 ? mask.data() : nullptr;
    result.size = status == 0 ? static_cast<uint32_t>(m_frameBytes / 3) : 0;
    result.filled = status == 0 ? 1 : 0;
    m_answersBegun += times;
    m_answering = true;
    lock.unlock();
    std::free(p.data);
    for (int i = 0; i < times; ++i) {
      p.callback(status, static_cast<int>(p.taskId), result);
      answers.Add();
    }
    lock.lock();
    m_answering = false;
    m_idle.notify_all();
  }

  static inline FakeComputingClient* s_current = nullptr;
  std::mutex m_lock;  // guards everything below
  std::condition_variable m_idle;
  Knobs m_knobs;
  Record m_record;
  std::set<void*> m_lent;
  std::deque<Pending> m_pending;
  size_t m_frameBytes = 0;
  uint32_t m_nextId = 0;
  uint64_t m_submitted = 0;
  bool m_started = false;
  bool m_cancel = false;
  bool m_answering = false;
  int m_answersBegun = 0;  // callbacks about to be made or made (answers counts them after)
  NamedThread m_thread{"FAKE_COMPUTING"};
};
