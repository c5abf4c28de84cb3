// CStaleMountDetector: finds network mounts that no longer answer.
//
// A stale NFS (or CIFS, sshfs, ...) mount makes every call that touches it hang or fail, so a
// scan must leave it out. Refresh reads the mount table and probes every reachable mount whose
// type is a network file system (skipFS::IsNetworkFSType): each probe is a stat of the mount
// point on a helper thread of its own, all probes run at once, and Refresh waits for them up to
// one common time-out (default 5 s). A mount is stale when its probe does not answer in time, or
// answers ESTALE, EIO, ENOTCONN, ETIMEDOUT or EHOSTDOWN. Other answers (EACCES for a squashed
// root, for example) leave the mount usable.
//
// Trade-off of the time-out: a stat that hangs in the kernel cannot be cancelled. The helper
// thread of a probe that timed out is detached and left blocked until the kernel answers (or the
// process exits, which a detached thread never delays). It owns only its own small state, never
// the detector, so destroying the detector is safe. While it is still blocked, later refreshes do
// not start another probe of that mount but count it stale at once, so a dead server costs at
// most one thread per mount point, never one per refresh.
//
// The probe is injectable (SetStatFunction) so that tests can simulate a hanging or failing
// mount. Process() is the detector behind MountPathInfo::IsStaleFSPresent and
// MountPathInfo::CheckInStaleFSList.
//
// Threads: every member may be called from any thread. Refreshes are serialised; readers see the
// list of the last completed refresh.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <vector>

#include "Platform/FXFolder.h"
#include "Platform/QiError.h"

class CStaleMountDetector {
 public:
  // Probes one mount point; returns 0 when it answers, else the errno of the failure.
  using StatFunction = std::function<int(const std::string& mountPoint)>;
  static constexpr std::chrono::milliseconds kDefaultTimeout{5000};

  CStaleMountDetector();
  ~CStaleMountDetector();
  CStaleMountDetector(const CStaleMountDetector&) = delete;
  CStaleMountDetector& operator=(const CStaleMountDetector&) = delete;

  // The detector of the process.
  static CStaleMountDetector& Process();

  // An empty function restores the default probe (stat(2) of the mount point).
  void SetStatFunction(StatFunction fnStat);
  void SetTimeout(std::chrono::milliseconds timeout);
  std::chrono::milliseconds GetTimeout() const;

  // Re-reads the mount table (FXFolder::getLogicalVolumeList) and probes its network mounts.
  CQiError Refresh();
  // Probes the network mounts of the given table.
  CQiError Refresh(const std::vector<SLogicalVolume>& lstVolumes);

  // True when the last refresh found a stale mount; the first call refreshes when no refresh has
  // run yet (a failed refresh then counts as "none stale").
  bool IsStaleFSPresent();
  // True when the path is a stale mount point or lies below one. Never refreshes.
  bool CheckInStaleFSList(const std::string& path) const;
  // The stale mount points of the last refresh, in table order.
  std::vector<std::string> GetStaleFSList() const;
  bool HasRefreshed() const;

  // Number of probes whose stat has not returned yet (hung probes of earlier refreshes).
  size_t GetPendingProbeCount() const;
  // Waits until no probe is pending or the time-out passes; true when none is pending.
  bool WaitForPendingProbes(std::chrono::milliseconds timeout) const;

  // Forgets the stale list (the next IsStaleFSPresent refreshes again). Pending probes go on.
  void Reset();

 private:
  struct SPending;  // mount points whose probe has not returned, shared with the probe threads
  struct SProbe;    // one probe's result, shared between Refresh and its thread

  // Both expect m_mtxRefresh held.
  CQiError RefreshFromMountTable();
  void RefreshLocked(const std::vector<SLogicalVolume>& lstVolumes);

  mutable std::mutex m_mtxRefresh;           // serialises refreshes
  mutable std::shared_mutex m_mtxState;      // guards the members below
  StatFunction m_fnStat;
  std::chrono::milliseconds m_tTimeout = kDefaultTimeout;
  bool m_bRefreshed = false;
  std::vector<std::string> m_lstStale;
  std::shared_ptr<SPending> m_pPending;
};
