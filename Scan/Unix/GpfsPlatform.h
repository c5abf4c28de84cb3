// CGpfsPlatform: what the GPFS engine asks of the kernel and the agent, behind one seam.
//
// The engine never calls statfs, reads the mount table or asks whether a file system is
// mounted from a remote cluster itself: it asks the process-wide CGpfsPlatform (Current()).
// The real one answers from the kernel; tests install a subclass that declares a temporary
// folder to be a GPFS volume (SetCurrent), so that the engine's real code runs on this machine.
//
// The same object carries the engine's waiting times (STimings): the one-second slices of the
// write suspension, the five-second polls of the policy run and the ten-second pause before a
// retry. The engine's settings cannot change them; only a test that installs its own platform
// shortens them. A suspend time-out given here (non-zero) replaces the engine's 120 seconds for
// the same reason.
//
// Threads: Current() and SetCurrent() may be called from any thread; an engine takes the
// current platform once per work unit and keeps it (shared pointer) until the unit is done.
// Implementations must be safe to call from several engines at once.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "Platform/QiError.h"

class CGpfsPlatform;
using CGpfsPlatformPtr = std::shared_ptr<CGpfsPlatform>;

class CGpfsPlatform {
 public:
  // The file-system magic of GPFS (statfs f_type).
  static constexpr uint64_t kGpfsMagic = 0x47504653;

  struct STimings {
    uint32_t uSuspendSliceMs = 1000;     // wait slice of the write suspension
    uint32_t uPolicyPollMs = 5000;       // poll interval of the policy run
    uint32_t uRetryPauseMs = 10000;      // pause before the policy run is retried
    uint64_t ullSuspendTimeoutSec = 0;   // non-zero: replaces the engine's suspend time-out
  };

  CGpfsPlatform() = default;
  virtual ~CGpfsPlatform() = default;

  // The file-system magic of the file system holding the path (statfs); errno on failure.
  virtual CQiError GetFileSystemMagic(const std::string& strPath, uint64_t& ullMagic);
  // The mount source (GPFS device name) of the mount that holds the path: the entry of the
  // mount table with the longest mount point above the path. An empty name when none does.
  virtual CQiError GetMountDevice(const std::string& strPath, std::string& strDevice);
  // True when the device is mounted from a remote cluster: the real test asks `mmremotefs show
  // all` in the GPFS binary folder whether the device is one of its local names.
  virtual bool IsRemoteDevice(const std::string& strDevice, const std::string& strBinDir);
  // The agent's temporary folder: $TMPDIR when set and not empty, else "/tmp".
  virtual std::string getOrreryTempDirectory();

  const STimings& GetTimings() const { return m_timings; }
  void SetTimings(const STimings& timings) { m_timings = timings; }

  // The process-wide platform (the real one until a test installs another).
  static CGpfsPlatformPtr Current();
  // Installs a platform; an empty pointer restores the real one.
  static void SetCurrent(CGpfsPlatformPtr pPlatform);

 private:
  STimings m_timings;
};
