// Where the camera mode's frames come from: a real camera with the asked bus identity when
// one is present, otherwise the file camera (libvlink_fake_camera.so, preloaded: the host
// runs itself again with LD_PRELOAD set, before it loads the library or starts a thread).
#pragma once

#include <cstdint>
#include <string>

// True when a /dev/videoN reports `busId` as its bus information.
bool RealCameraPresent(const std::string& busId);

// Makes sure a camera with `busId` will be there: returns when a real one is present or the
// file camera is already loaded; otherwise runs this program again (argv) with the file
// camera preloaded, playing `clip`, and does not return. False when neither can be had.
bool EnsureCamera(char** argv, const std::string& busId, const std::string& clip);

// True when the file camera serves this process.
bool FileCameraLoaded();
// Frames the file camera has delivered so far (0 without it).
uint32_t FileCameraFrames();
// When the file camera last gave frame `number` of its clip (NowUs time); 0 when never or
// without it.
uint64_t FileCameraCapturedAtUs(uint32_t number);

// Files the build writes beside the tools folder: the file camera, its clip, the background
// picture shown with it. "" when missing.
std::string BuiltFile(const std::string& name, bool inTools = false);
