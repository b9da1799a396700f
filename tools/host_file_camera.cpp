#include "host_file_camera.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
#include <linux/videodev2.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <system_error>

namespace {

constexpr int kDevices = 64;
constexpr const char* kShim = "libvlink_fake_camera.so";
// Set in the program run again, so that a file camera that failed to load is not retried
// for ever.
constexpr const char* kRerunMark = "VLINK_HOST_FILE_CAMERA";

// A sanitizer runtime this program was linked with must come first in LD_PRELOAD.
int FindSanitizer(dl_phdr_info* info, size_t /*size*/, void* data) {
  const char* name = info->dlpi_name;
  if (name != nullptr &&
      (std::strstr(name, "libasan") != nullptr || std::strstr(name, "libtsan") != nullptr)) {
    *static_cast<std::string*>(data) = name;
    return 1;
  }
  return 0;
}

}  // namespace

std::string BuiltFile(const std::string& name, bool inTools) {
  std::error_code error;
  const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", error);
  if (error) {
    return "";
  }
  const std::filesystem::path dir = inTools ? self.parent_path() : self.parent_path().parent_path();
  // In an installed tree (bin/vlink_host) libraries lie in lib/, data in share/tavo_video/.
  const std::filesystem::path installed = self.parent_path().parent_path();
  for (const std::filesystem::path& file :
       {dir / name, installed / "lib" / name, installed / "share" / "tavo_video" / name}) {
    if (std::filesystem::is_regular_file(file, error)) {
      return file.string();
    }
  }
  return "";
}

bool RealCameraPresent(const std::string& busId) {
  for (int i = 0; i < kDevices; ++i) {
    const std::string path = "/dev/video" + std::to_string(i);
    const int fd = open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
      continue;
    }
    v4l2_capability caps{};
    const bool match = ioctl(fd, VIDIOC_QUERYCAP, &caps) == 0 &&
                       std::strncmp(reinterpret_cast<const char*>(caps.bus_info), busId.c_str(),
                                    sizeof(caps.bus_info)) == 0;
    close(fd);
    if (match) {
      return true;
    }
  }
  return false;
}

bool FileCameraLoaded() { return dlsym(RTLD_DEFAULT, "VlinkFakeCameraFramesDelivered") != nullptr; }

uint32_t FileCameraFrames() {
  using Frames = uint32_t (*)();
  auto frames = reinterpret_cast<Frames>(dlsym(RTLD_DEFAULT, "VlinkFakeCameraFramesDelivered"));
  return frames != nullptr ? frames() : 0;
}

uint64_t FileCameraCapturedAtUs(uint32_t number) {
  using CapturedAt = uint64_t (*)(uint32_t);
  static const auto capturedAt =
      reinterpret_cast<CapturedAt>(dlsym(RTLD_DEFAULT, "VlinkFakeCameraCapturedAtUs"));
  return capturedAt != nullptr ? capturedAt(number) : 0;
}

bool EnsureCamera(char** argv, const std::string& busId, const std::string& clip) {
  if (FileCameraLoaded()) {
    std::printf("camera: the file camera plays %s as \"%s\"\n",
                std::getenv("VLINK_FAKE_CAMERA_CLIP"), busId.c_str());
    return true;
  }
  if (RealCameraPresent(busId)) {
    std::printf("camera: the camera \"%s\" is present\n", busId.c_str());
    return true;
  }
  const std::string shim = BuiltFile(kShim, true);
  if (std::getenv(kRerunMark) != nullptr || shim.empty() || clip.empty()) {
    std::fprintf(stderr, "no camera \"%s\" and no file camera (%s, clip %s)\n", busId.c_str(),
                 shim.empty() ? "not built" : "did not load", clip.empty() ? "missing" : "ok");
    return false;
  }
  std::string preload;
  dl_iterate_phdr(FindSanitizer, &preload);
  preload += (preload.empty() ? "" : ":") + shim;
  if (const char* before = std::getenv("LD_PRELOAD"); before != nullptr && *before != '\0') {
    preload += std::string(":") + before;
  }
  setenv("LD_PRELOAD", preload.c_str(), 1);
  setenv("VLINK_FAKE_CAMERA_CLIP", clip.c_str(), 1);
  setenv("VLINK_FAKE_CAMERA_ID", busId.c_str(), 1);
  setenv(kRerunMark, "1", 1);
  std::fflush(stdout);
  execv("/proc/self/exe", argv);
  std::perror("execv");
  return false;
}
