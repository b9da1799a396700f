#include "screen/tavo_video_vlink_x11_seams.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <set>
#include <string>

namespace {

std::mutex g_lostLock;  // guards g_lostDisplays; no callback runs under it
// On the heap so that capture threads still running at process exit never find it
// destroyed; freed when the library is unloaded (or at exit, after which it reads as empty).
std::set<Display*>* g_lostDisplays = new std::set<Display*>;

__attribute__((destructor)) void FreeLostDisplays() {
  std::lock_guard<std::mutex> lock(g_lostLock);
  delete g_lostDisplays;
  g_lostDisplays = nullptr;
}

enum class Answer { kAnswered, kRefused, kSilent, kNotLocal };

int RemainingMs(std::chrono::steady_clock::time_point until) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
      until - std::chrono::steady_clock::now());
  return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

// Connects to a unix socket (abstract when `abstract`) and asks for the X connection
// set-up; any byte back within the time means the server answers.
Answer AskUnixSocket(const std::string& path, bool abstract,
                     std::chrono::steady_clock::time_point until) {
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    return Answer::kRefused;
  }
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const size_t offset = abstract ? 1 : 0;
  if (path.size() + offset >= sizeof(address.sun_path)) {
    close(fd);
    return Answer::kRefused;
  }
  std::memcpy(address.sun_path + offset, path.data(), path.size());
  const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + offset +
                                             path.size() + (abstract ? 0 : 1));
  Answer answer = Answer::kRefused;
  pollfd wait{fd, POLLOUT, 0};
  if (connect(fd, reinterpret_cast<sockaddr*>(&address), length) == 0 ||
      ((errno == EINPROGRESS || errno == EAGAIN) && poll(&wait, 1, RemainingMs(until)) == 1)) {
    // Little-endian client, protocol 11.0, no authorisation: the server answers with
    // success, failure or a request to authenticate, whichever it is.
    const uint8_t prefix[12] = {'l', 0, 11, 0, 0, 0, 0, 0, 0, 0, 0, 0};
    if (send(fd, prefix, sizeof(prefix), MSG_NOSIGNAL) == static_cast<ssize_t>(sizeof(prefix))) {
      wait.events = POLLIN;
      uint8_t first = 0;
      answer = Answer::kSilent;
      if (poll(&wait, 1, RemainingMs(until)) == 1) {
        answer = recv(fd, &first, 1, 0) == 1 ? Answer::kAnswered : Answer::kRefused;
      }
    }
  } else if (errno == EAGAIN) {
    answer = Answer::kSilent;  // its backlog is full: nobody takes connections
  }
  close(fd);
  return answer;
}

// Whether the server of display `name` answers within the time.
Answer AskServer(const std::string& name, uint32_t timeoutMs) {
  const size_t colon = name.rfind(':');
  if (colon == std::string::npos) {
    return Answer::kNotLocal;
  }
  const std::string host = name.substr(0, colon);
  if (!host.empty() && host != "unix") {
    return Answer::kNotLocal;
  }
  const std::string number = name.substr(colon + 1, name.find('.', colon) - colon - 1);
  if (number.empty() || number.find_first_not_of("0123456789") != std::string::npos) {
    return Answer::kNotLocal;
  }
  const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  const std::string path = "/tmp/.X11-unix/X" + number;
  const Answer abstract = AskUnixSocket(path, true, until);
  if (abstract != Answer::kRefused) {
    return abstract;
  }
  return AskUnixSocket(path, false, until);
}

class XlibDisplaySystem final : public X11DisplaySystem {
 public:
  int32_t InitThreads() override { return XInitThreads(); }
  Display* Open(bool* tryAgain) override {
    return OpenX11Display(nullptr, kX11AnswerTimeoutMs, tryAgain);
  }
  void Close(Display* display) override { XCloseDisplay(display); }
};

class SysVSharedMemory final : public SharedMemorySystem {
 public:
  int Get(size_t size, int flags) override { return shmget(IPC_PRIVATE, size, flags); }
  void* Attach(int id) override { return shmat(id, nullptr, 0); }
  int Detach(const void* address) override { return shmdt(address); }
  int Remove(int id) override { return shmctl(id, IPC_RMID, nullptr); }
};

class PlatformShmQueue final : public HostShmQueue {
 public:
  OsShmAdvancedBuffer* Alloc(uint32_t queueId, uint32_t size) override {
    return OsShmAdvancedMemAllocBuffer(queueId, 0, size);
  }
  int32_t Write(uint32_t queueId, OsShmAdvancedBuffer** buffers, uint32_t count) override {
    return OsShmAdvancedWriteBulkQueue(queueId, buffers, count);
  }
  void Free(OsShmAdvancedBuffer* buffer) override { OsShmAdvancedMemFreeBuffer(buffer); }
};

}  // namespace

X11DisplaySystem& X11DisplaySystem::Real() {
  static XlibDisplaySystem display;
  return display;
}

SharedMemorySystem& SharedMemorySystem::Real() {
  static SysVSharedMemory memory;
  return memory;
}

HostShmQueue& HostShmQueue::Real() {
  static PlatformShmQueue queue;
  return queue;
}

Display* OpenX11Display(const char* name, uint32_t answerTimeoutMs, bool* tryAgain) {
  *tryAgain = false;
  const char* chosen = name != nullptr ? name : std::getenv("DISPLAY");
  if (chosen == nullptr || *chosen == '\0') {
    return nullptr;
  }
  const Answer answer = AskServer(chosen, answerTimeoutMs);
  if (answer == Answer::kSilent) {
    return nullptr;
  }
  Display* display = XOpenDisplay(chosen);
  *tryAgain = display == nullptr && answer != Answer::kNotLocal;
  return display;
}

bool X11ServerAnswers(const char* name, uint32_t timeoutMs) {
  return name == nullptr || AskServer(name, timeoutMs) != Answer::kSilent;
}

void ForgetX11DisplayLost(Display* display) {
  std::lock_guard<std::mutex> lock(g_lostLock);
  if (g_lostDisplays != nullptr) {
    g_lostDisplays->erase(display);
  }
}

void MarkX11DisplayLost(Display* display) {
  std::lock_guard<std::mutex> lock(g_lostLock);
  if (g_lostDisplays != nullptr) {
    g_lostDisplays->insert(display);
  }
}

bool IsX11DisplayLost(Display* display) {
  std::lock_guard<std::mutex> lock(g_lostLock);
  return g_lostDisplays != nullptr && g_lostDisplays->count(display) != 0;
}
