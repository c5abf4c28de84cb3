// Small helpers shared by the platform suites: errors and listings in short text form, so that a
// test asserts a whole expected result at once.
#pragma once
#include <dirent.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "Platform/QiError.h"

// An error's code space and code in short: "ok", "W87" (Win32), "E2" (errno), "V17" (event).
inline std::string ErrorCode(const CQiError& error) {
  if (error.IsSuccess()) return "ok";
  return (error.IsWin32() ? "W" : error.IsErrNo() ? "E" : "V") + std::to_string(error.GetCode());
}

// The text with every '@' replaced by `value` (a path, usually).
inline std::string Expand(std::string text, const std::string& value) {
  for (size_t at = text.find('@'); at != std::string::npos; at = text.find('@', at + value.size()))
    text.replace(at, 1, value);
  return text;
}

// The names in a folder, "." and ".." left out, in byte order; empty when it cannot be read.
inline std::vector<std::string> FolderNames(const std::string& path) {
  std::vector<std::string> names;
  if (DIR* dir = opendir(path.c_str())) {
    while (dirent* entry = readdir(dir)) {
      std::string name = entry->d_name;
      if (name != "." && name != "..") names.push_back(name);
    }
    closedir(dir);
  }
  std::sort(names.begin(), names.end());
  return names;
}

// Runs body(i) for i = 0..count-1, each on a thread of its own, all at once; returns when all
// have ended.
inline void RunOnThreads(int count, const std::function<void(int)>& body) {
  std::vector<std::thread> threads;
  for (int i = 0; i < count; ++i) threads.emplace_back(body, i);
  for (std::thread& thread : threads) thread.join();
}

// Runs reader(i) over and over on `count` threads while `work` runs on the calling thread;
// returns when work has ended and the readers have stopped.
inline void WhileReading(int count, const std::function<void(int)>& reader,
                         const std::function<void()>& work) {
  std::atomic<bool> stop{false};
  std::vector<std::thread> threads;
  for (int i = 0; i < count; ++i)
    threads.emplace_back([&, i] {
      while (!stop.load()) reader(i);
    });
  work();
  stop = true;
  for (std::thread& thread : threads) thread.join();
}
