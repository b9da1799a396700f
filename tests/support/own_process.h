// What this process holds, read from /proc: its threads and its open descriptors.
#pragma once

#include <cstddef>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>

inline size_t CountOwnDescriptors() {
  return static_cast<size_t>(std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                                           std::filesystem::directory_iterator{}));
}

// Threads of this process for which match(name, /proc folder of the thread) holds; all of
// them without a match.
inline size_t CountOwnThreads(
    const std::function<bool(const std::string&, const std::filesystem::path&)>& match = nullptr) {
  size_t count = 0;
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    std::string name;
    std::getline(std::ifstream(task.path() / "comm"), name);
    count += !match || match(name, task.path()) ? 1 : 0;
  }
  return count;
}

inline size_t CountOwnThreadsNamed(const std::string& name) {
  return CountOwnThreads([&name](const std::string& own, const auto&) { return own == name; });
}
