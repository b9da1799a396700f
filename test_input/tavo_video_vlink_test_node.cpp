#include "test_input/tavo_video_vlink_test_node.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <set>

#include "core/tavo_video_scope_guard.h"
#include "platform/adapt_common/os_thread.h"
#include "platform/adapt_common/tavo_video_image_convert.h"
#include "tavo_video_image_util.h"

namespace {

constexpr uint32_t kPathCapacity = 4096;
constexpr uint32_t kReleasePolls = 20;
constexpr uint32_t kReleasePollMs = 5;
constexpr uint32_t kReleaseAttempts = 3;

}  // namespace

class TestImageKeeper : public OsvReleaseBase<OsvGraphicBuffer> {
 public:
  TestImageKeeper() = default;
  TestImageKeeper(const TestImageKeeper&) = delete;
  TestImageKeeper& operator=(const TestImageKeeper&) = delete;
  ~TestImageKeeper() override { FreeImage(); }

  // While the input lives its buffers are a pool: a buffer nobody holds is simply free.
  void ReleaseBufferDeal(OsvGraphicBuffer* buffer) override {
    bool last = false;
    {
      std::lock_guard<std::mutex> lock(m_lock);
      // Only the pointer is looked at: the buffer may already be gone.
      if (!m_orphaned || m_held.erase(buffer) == 0) {
        return;
      }
      last = m_held.empty();
    }
    delete buffer;
    if (last) {
      FreeImage();
    }
  }

  // The input is going: buffers nobody holds go now, the rest (and the images under them)
  // when their last holder lets go.
  void Orphan(const std::vector<OsvGraphicBuffer*>& cache, uint8_t* image) {
    std::vector<OsvGraphicBuffer*> freeNow;
    bool noneHeld = false;
    {
      std::lock_guard<std::mutex> lock(m_lock);
      m_image = image;
      for (OsvGraphicBuffer* buffer : cache) {
        // A buffer whose last holder is letting go right now finds the keeper not yet
        // orphaned, or itself not held, and is left to this loop.
        if (buffer == nullptr) {
          continue;
        }
        if (buffer->IsAvailable()) {
          freeNow.push_back(buffer);
        } else {
          m_held.insert(buffer);
        }
      }
      m_orphaned = true;
      noneHeld = m_held.empty();
    }
    for (OsvGraphicBuffer* buffer : freeNow) {
      delete buffer;
    }
    if (noneHeld) {
      FreeImage();
    }
  }

 private:
  void FreeImage() {
    uint8_t* image = nullptr;
    {
      std::lock_guard<std::mutex> lock(m_lock);
      std::swap(image, m_image);
    }
    delete[] image;
  }

  std::mutex m_lock;  // guards everything below; no host callback runs under it
  bool m_orphaned = false;
  std::set<OsvGraphicBuffer*> m_held;
  uint8_t* m_image = nullptr;  // new[] memory under the buffers, once orphaned
};

TestInputInputNode::TestInputInputNode(uint32_t id)
    : VideoVlinkNode(id, OS_E_MPP_DEV_TEST), m_keeper(std::make_shared<TestImageKeeper>()) {
  m_nodeName = "TEST_" + std::to_string(id);
  VLOG_INF_CH(1, "create m_nodeId[%u] success", m_nodeId);
}

TestInputInputNode::~TestInputInputNode() {
  VLOG_INF_CH(2, "[%s] TestInputInputNode destory m_nodeId[%u] enter.", m_nodeName.c_str(),
              m_nodeId);
  for (uint32_t attempt = 0; attempt < kReleaseAttempts; ++attempt) {
    if (ReleaseCache() == 0) {
      delete[] m_imageData;
      VLOG_INF_CH(2, "[%s] TestInputInputNode destory index = [%u] m_nodeId[%u] done.",
                  m_nodeName.c_str(), attempt, m_nodeId);
      return;
    }
  }
  // Frames still held downstream point into the image: the keeper frees each buffer as its
  // last holder lets go, and the image with the last one.
  m_keeper->Orphan(m_cache, m_imageData);
  m_cache.clear();
  m_imageData = nullptr;
  VLOG_ERR_CH(2, "The cache release is fail");
  VLOG_INF_CH(2, "[%s] TestInputInputNode destory m_nodeId[%u] Ok.", m_nodeName.c_str(), m_nodeId);
}

uint32_t TestInputInputNode::CheckParam(const TestDevInfo& info) {
  if (info.frameRate == 0) {
    VLOG_ERR_CH(2, "invalid frameRate[%d]!", static_cast<int>(info.frameRate));
    return 1;
  }
  return 0;
}

uint32_t TestInputInputNode::SetParam(const TestDevInfo& info) {
  if (CheckParam(info) != 0) {
    VLOG_ERR_CH(2, "ret[0x%x] failed!", 1U);
    return 1;
  }
  std::lock_guard<std::recursive_mutex> lock(m_nodeLock);
  m_param = info;
  m_param.fileName.back() = '\0';
  VLOG_INF_CH(2, "SetDeviceParam[%u] ok", m_nodeId);
  return 0;
}

TestDevInfo TestInputInputNode::GetParam() {
  std::lock_guard<std::recursive_mutex> lock(m_nodeLock);
  return m_param;
}

uint32_t TestInputInputNode::OnStartWhileStarted() {
  VLOG_INF_CH(2, "StartProcess");
  VLOG_ERR_CH(2, "m_nodeId[%u] is already opened", m_nodeId);
  return 0;
}

uint32_t TestInputInputNode::OnStart() {
  VLOG_INF_CH(2, "StartProcess");
  const TestDevInfo param = GetParam();
  if (ReadImage(param.fileName.data()) != 0) {
    VLOG_ERR_CH(2, "failed to read test Img!");
    return 1;
  }
  if (m_sendThread.Start([this] { SendTestImgFunc(); }) != 0) {
    return 1;
  }
  VLOG_INF_CH(2, "StartProcess testNode[%u] portID[%u] ok", m_nodeId, param.portId);
  return 0;
}

uint32_t TestInputInputNode::OnStop() {
  VLOG_INF_CH(2, "[%s] TestInputInputNode StopProcess m_nodeId[%u] enter.", m_nodeName.c_str(),
              m_nodeId);
  // Joined without the node lock: the sender takes it inside SendBuffer.
  m_sendThread.Stop();
  VLOG_INF_CH(2, "[%s] TestInputInputNode StopProcess m_nodeId[%u] Ok.", m_nodeName.c_str(),
              m_nodeId);
  return 0;
}

uint32_t TestInputInputNode::ReadImage(const char* path) {
  if (path == nullptr) {
    VLOG_ERR_CH(2, "path is nullptr");
    return 1;
  }
  VLOG_INF_CH(2, "path = [%s]", path);
  std::vector<char> canonical(kPathCapacity, '\0');
  if (OsRelPath(path, canonical.data(), kPathCapacity) != 0) {
    VLOG_ERR_CH(2, "get realpath fail,erron:%d!", errno);
    return 1;
  }
  uint8_t* data = nullptr;
  uint32_t width = 0;
  uint32_t height = 0;
  const uint32_t result = ReadImageFile(canonical.data(), &data, &width, &height);
  if (result != 0) {
    VLOG_ERR_CH(2, "ReadImageFile error! ret[%d]", static_cast<int>(result));
    delete[] data;
    return 1;
  }
  // A restart retires the earlier image and its cache: buffers still held downstream go,
  // with the image under them, when their last holder lets go.
  if (m_imageData != nullptr) {
    m_keeper->Orphan(m_cache, m_imageData);
    m_cache.clear();
    m_keeper = std::make_shared<TestImageKeeper>();
  }
  m_imageData = data;
  {
    std::lock_guard<std::recursive_mutex> lock(m_nodeLock);
    m_param.width = width;
    m_param.height = height;
  }
  InitCache();
  VLOG_INF_CH(2, "Read img success, width[%u], height[%u]", width, height);
  return 0;
}

uint32_t TestInputInputNode::ReadImageFile(const char* path, uint8_t** data, uint32_t* width,
                                           uint32_t* height) {
  if (path == nullptr) {
    VLOG_ERR_CH(2, "filePath is null!");
    return CreateBlackPicture(data, width, height);
  }
  // Only a regular file is an image: a FIFO or device would block the bind in the reads
  // below. Checked before opening, and again on what was opened in case the path changed.
  struct stat named {};
  const int fd = stat(path, &named) == 0 && S_ISREG(named.st_mode)
                     ? open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC)
                     : -1;
  struct stat opened {};
  if (fd < 0 || fstat(fd, &opened) != 0 || !S_ISREG(opened.st_mode)) {
    if (fd >= 0) {
      close(fd);
    }
    VLOG_ERR_CH(2, "Failed to open file!");
    return CreateBlackPicture(data, width, height);
  }
  const ScopeGuard closeFile = ScopeGuard::Create([fd] { close(fd); });
  uint8_t header[8] = {};
  const ssize_t got = pread(fd, header, sizeof(header), 0);
  (void)got;  // a short file leaves the rest zero
  // The conversions read the file that was checked, not whatever the path names by then.
  const std::string checked = "/proc/self/fd/" + std::to_string(fd);

  int32_t result = 0;
  if (ImageUtils::isBmpFormat(header, sizeof(header))) {
    result = Transbmp2Yuv(checked.c_str(), width, height, data);
    VLOG_INF_CH(2, "BMP, width[%u], height[%u]", *width, *height);
  } else if (std::strpbrk(path, "dat") != nullptr) {
    // Any of the letters d, a, t marks a raw I420 file of the configured size.
    const TestDevInfo param = GetParam();  // a create on another host thread may change it
    *width = param.width;
    *height = param.height;
    result = TransDat2Yuv(checked.c_str(), data, *width, *height);
    VLOG_INF_CH(2, "YUV, width[%u], height[%u]", *width, *height);
  } else {
    VLOG_ERR_CH(2, "File format is invalid!");
    result = static_cast<int32_t>(CreateBlackPicture(data, width, height));
  }
  if (result != 0) {
    VLOG_ERR_CH(2, "Transfer image fail!");
    return 1;
  }
  return 0;
}

uint32_t TestInputInputNode::CreateBlackPicture(uint8_t** data, uint32_t* width, uint32_t* height) {
  const size_t size = size_t{kBlackWidth} * kBlackHeight * 3;
  std::unique_ptr<uint8_t[]> rgb(new (std::nothrow) uint8_t[size]());
  if (!rgb) {
    VLOG_ERR_CH(2, "convert to yuv420 fail. ret = %d", -1);
    return 1;
  }
  rgb[0] = 255;
  uint8_t* out = nullptr;
  const int32_t result = Trans2Yuv(rgb.get(), kBlackWidth, kBlackHeight, true, &out);
  if (result != 0) {
    VLOG_ERR_CH(2, "convert to yuv420 fail. ret = %d", result);
    return 1;
  }
  *data = out;
  *width = kBlackWidth;
  *height = kBlackHeight;
  return 0;
}

uint32_t TestInputInputNode::InitCache() {
  if (m_imageData == nullptr) {
    return 1;
  }
  const TestDevInfo param = GetParam();
  const uint32_t width = param.width;
  const uint32_t height = param.height;
  const uint32_t lumaSize = width * height;
  OsvGraphicBufferInfo info{};
  info.width = width;
  info.height = height;
  info.stride[0] = width;
  info.stride[1] = width >> 1;
  info.stride[2] = width >> 1;
  info.size = (lumaSize * 3) >> 1;
  info.format = TAVO_VIDEO_VLINK_FORMAT_I420;
  for (uint32_t i = 0; i < kCacheSize; ++i) {
    auto buffer = std::make_unique<OsvGraphicBuffer>(m_imageData);
    buffer->SetImageInfo(info);
    buffer->SetSrcImgNo(param.imgNo);
    buffer->SetReleaseTarget(m_keeper);
    uint8_t* y = m_imageData;
    uint8_t* u = y + lumaSize;
    uint8_t* v = u + lumaSize / 4;
    if (buffer->SetImageAddr(y, u, v) != 0) {
      VLOG_ERR_CH(2, "Capturer[%u] SetImageAddr failed!", m_nodeId);
      return 1;
    }
    m_cache.push_back(buffer.release());
  }
  m_cacheIndex = 0;
  return 0;
}

OsvGraphicBuffer* TestInputInputNode::GetFreeCache() {
  const auto count = static_cast<uint32_t>(m_cache.size());
  if (count != 0) {
    // The slot handed out last is looked at only when it is the only one.
    uint32_t slot = (m_cacheIndex + 1) % count;
    do {
      OsvGraphicBuffer* buffer = m_cache[slot];
      if (buffer != nullptr && buffer->IsAvailable()) {
        m_cacheIndex = slot;
        return buffer;
      }
      slot = (slot + 1) % count;
    } while (slot != (m_cacheIndex + 1) % count && slot != m_cacheIndex);
  }
  VLOG_INF_CH(2, "get cache fail");
  return nullptr;
}

void TestInputInputNode::SendTestImgFunc() {
  VLOG_INF_CH(2, "[%s] TestInputInputNode SendTestImgFunc m_nodeId[%u] m_isStart %u.",
              m_nodeName.c_str(), m_nodeId, static_cast<unsigned>(!m_sendThread.StopRequested()));
  while (!m_sendThread.StopRequested()) {
    OsvGraphicBuffer* buffer = GetFreeCache();
    if (buffer == nullptr) {
      VLOG_ERR_CH(2, "[%s] GetFreeCache failed!", m_nodeName.c_str());
      break;
    }
    SendBuffer(buffer);
    if (!m_sendThread.WaitFor(kSendPeriodMs)) {
      break;
    }
  }
  VLOG_INF_CH(2, "[%s] TestInputInputNode SendTestImgFunc m_nodeId[%u] end.", m_nodeName.c_str(),
              m_nodeId);
}

uint32_t TestInputInputNode::ReleaseCache() {
  for (uint32_t slot = 0; slot < m_cache.size(); ++slot) {
    OsvGraphicBuffer* buffer = m_cache[slot];
    if (buffer == nullptr) {
      continue;
    }
    bool available = buffer->IsAvailable();
    for (uint32_t poll = 1; !available && poll < kReleasePolls; ++poll) {
      OsSleepMs(kReleasePollMs);
      available = buffer->IsAvailable();
    }
    if (!available) {
      VLOG_INF_CH(2, "Memory has not been released. index = %u, node = %u", slot, m_nodeId);
      return 1;
    }
    delete buffer;
    m_cache[slot] = nullptr;
  }
  m_cache.clear();
  return 0;
}
