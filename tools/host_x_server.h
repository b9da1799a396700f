// The screen the screen mode captures when there is no display of the user's: a private
// Xvfb (1280x720x24, display number chosen by the server), with a scene a host thread
// animates on its root window (shapes moving, a clock, the pointer circling), so that the
// capture shows real motion. The server is stopped and the thread joined when it goes.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

class XvfbServer;

// True when the display $DISPLAY names opens.
bool DisplayOpens();

class HostXServer {
 public:
  HostXServer();
  ~HostXServer();
  HostXServer(const HostXServer&) = delete;
  HostXServer& operator=(const HostXServer&) = delete;

  // Starts Xvfb and the scene; false (and why in Error()) when either could not.
  bool Start(uint32_t width = 1280, uint32_t height = 720);
  // ":N".
  const std::string& Name() const { return m_name; }
  const std::string& Error() const { return m_error; }
  // Frames of the scene drawn so far.
  uint32_t SceneFrames() const { return m_sceneFrames.load(); }
  // Stops the scene and the server.
  void Stop();

 private:
  void Animate();

  std::unique_ptr<XvfbServer> m_server;  // the private Xvfb (tools/common)
  std::string m_name;
  std::string m_error;
  uint32_t m_width = 0;
  uint32_t m_height = 0;
  std::atomic<uint32_t> m_sceneFrames{0};
  std::mutex m_lock;  // guards m_stop
  std::condition_variable m_wake;
  bool m_stop = false;
  std::thread m_scene;
};
