// ZRDebugBreak: a pause point for debugging a running job from outside.
//
// Engines call Hook(file) at fixed points (for example when a policy scan is done). When the
// named file exists, the calling thread logs at level 0 "Debug hook %s present, waiting until it
// is removed" and waits, checking once a second, until the file is removed or the optional
// abort check says to stop; so an engineer can inspect the job's files at that point and let it
// go on by removing the file. Without the file the call returns at once (one stat).
//
// Stateless; safe from any thread.
#pragma once

#include <functional>
#include <string>

class ZRDebugBreak {
 public:
  static void Hook(const std::string& strFile, const std::function<bool()>& abortCheck = {});
};
