#include "Platform/StaleMountDetector.h"

#include <sys/stat.h>

#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <set>
#include <system_error>
#include <thread>

#include "Platform/FXErrorUtil.h"
#include "Platform/FXPath.h"
#include "Platform/FXString.h"
#include "Platform/LogWriterInterface.h"
#include "Platform/SkipFS.h"
#include "Platform/ZRDebugFunction.h"

struct CStaleMountDetector::SPending {
  mutable std::mutex mtx;
  mutable std::condition_variable cv;
  std::multiset<std::string> setMountPoints;
};

struct CStaleMountDetector::SProbe {
  std::mutex mtx;
  std::condition_variable cv;
  bool bDone = false;
  int iError = 0;
};

namespace {
int DefaultStat(const std::string& mountPoint) {
  struct stat st;
  return ::stat(mountPoint.c_str(), &st) == 0 ? 0 : errno;
}

bool IsStaleErrno(int err) {
  return err == ESTALE || err == EIO || err == ENOTCONN || err == ETIMEDOUT || err == EHOSTDOWN;
}
}  // namespace

CStaleMountDetector::CStaleMountDetector() : m_pPending(std::make_shared<SPending>()) {}

CStaleMountDetector::~CStaleMountDetector() = default;

CStaleMountDetector& CStaleMountDetector::Process() {
  // Never destroyed: probe threads and late callers may outlive static destruction.
  static CStaleMountDetector* detector = new CStaleMountDetector();
  return *detector;
}

void CStaleMountDetector::SetStatFunction(StatFunction fnStat) {
  std::unique_lock<std::shared_mutex> lock(m_mtxState);
  m_fnStat = std::move(fnStat);
}

void CStaleMountDetector::SetTimeout(std::chrono::milliseconds timeout) {
  std::unique_lock<std::shared_mutex> lock(m_mtxState);
  m_tTimeout = timeout.count() < 0 ? std::chrono::milliseconds(0) : timeout;
}

std::chrono::milliseconds CStaleMountDetector::GetTimeout() const {
  std::shared_lock<std::shared_mutex> lock(m_mtxState);
  return m_tTimeout;
}

CQiError CStaleMountDetector::Refresh() {
  std::lock_guard<std::mutex> refreshLock(m_mtxRefresh);
  QI_RETURN_IF_ERROR(RefreshFromMountTable());
  return CQiError();
}

CQiError CStaleMountDetector::Refresh(const std::vector<SLogicalVolume>& lstVolumes) {
  std::lock_guard<std::mutex> refreshLock(m_mtxRefresh);
  RefreshLocked(lstVolumes);
  return CQiError();
}

CQiError CStaleMountDetector::RefreshFromMountTable() {
  std::vector<SLogicalVolume> volumes;
  QI_RETURN_IF_ERROR(FXFolder::getLogicalVolumeList(volumes), "getLogicalVolumeList failed");
  RefreshLocked(volumes);
  return CQiError();
}

void CStaleMountDetector::RefreshLocked(const std::vector<SLogicalVolume>& lstVolumes) {
  ZRDebugFunction trace(2, __PRETTY_FUNCTION__, __LINE__);

  StatFunction fnStat;
  std::chrono::milliseconds timeout;
  {
    std::shared_lock<std::shared_mutex> lock(m_mtxState);
    fnStat = m_fnStat ? m_fnStat : StatFunction(DefaultStat);
    timeout = m_tTimeout;
  }

  struct SEntry {
    std::string strMountPoint;
    std::string strFSType;
    std::shared_ptr<SProbe> pProbe;  // empty: not probed (still hung from before, or no thread)
    bool bStillHung = false;
  };
  std::vector<SEntry> entries;
  std::set<std::string> seen;
  for (const SLogicalVolume& volume : FXFolder::FilterVisibleVolumes(lstVolumes)) {
    if (!skipFS::IsNetworkFSType(volume.m_strFSType)) continue;
    if (!seen.insert(volume.m_strMountPoint).second) continue;
    entries.push_back({volume.m_strMountPoint, volume.m_strFSType, nullptr, false});
  }

  // Start every probe before waiting for any, so that the whole refresh waits one time-out.
  std::shared_ptr<SPending> pending = m_pPending;
  for (SEntry& entry : entries) {
    {
      std::lock_guard<std::mutex> lock(pending->mtx);
      if (pending->setMountPoints.count(entry.strMountPoint) != 0) {
        entry.bStillHung = true;
        continue;
      }
      pending->setMountPoints.insert(entry.strMountPoint);
    }
    auto probe = std::make_shared<SProbe>();
    try {
      std::thread([probe, pending, fnStat, mountPoint = entry.strMountPoint]() {
        int err = fnStat(mountPoint);
        {
          std::lock_guard<std::mutex> lock(pending->mtx);
          auto it = pending->setMountPoints.find(mountPoint);
          if (it != pending->setMountPoints.end()) pending->setMountPoints.erase(it);
        }
        pending->cv.notify_all();
        {
          std::lock_guard<std::mutex> lock(probe->mtx);
          probe->iError = err;
          probe->bDone = true;
        }
        probe->cv.notify_all();
      }).detach();
      entry.pProbe = probe;
    } catch (const std::system_error& e) {
      {
        std::lock_guard<std::mutex> lock(pending->mtx);
        auto it = pending->setMountPoints.find(entry.strMountPoint);
        if (it != pending->setMountPoints.end()) pending->setMountPoints.erase(it);
      }
      ZRLOG(-1, "Cannot start the probe thread for mount point [%s], not checked, error=%s",
            entry.strMountPoint.c_str(), e.what());
    }
  }

  auto deadline = std::chrono::steady_clock::now() + timeout;
  std::vector<std::string> stale;
  for (SEntry& entry : entries) {
    if (entry.bStillHung) {
      ZRLOG(-1, "Mount point [%s] (%s) has not answered an earlier probe; treated as stale",
            entry.strMountPoint.c_str(), entry.strFSType.c_str());
      stale.push_back(entry.strMountPoint);
      continue;
    }
    if (!entry.pProbe) continue;
    std::unique_lock<std::mutex> lock(entry.pProbe->mtx);
    bool done = entry.pProbe->cv.wait_until(lock, deadline, [&] { return entry.pProbe->bDone; });
    if (!done) {
      ZRLOG(-1, "Mount point [%s] (%s) did not answer within %lld ms; treated as stale",
            entry.strMountPoint.c_str(), entry.strFSType.c_str(),
            static_cast<long long>(timeout.count()));
      stale.push_back(entry.strMountPoint);
    } else if (IsStaleErrno(entry.pProbe->iError)) {
      ZRLOG(-1, "Mount point [%s] (%s) is stale, errno=%d (%s)", entry.strMountPoint.c_str(),
            entry.strFSType.c_str(), entry.pProbe->iError, strerror(entry.pProbe->iError));
      stale.push_back(entry.strMountPoint);
    } else {
      ZRLOG(3, "Mount point [%s] (%s) answered, errno=%d", entry.strMountPoint.c_str(),
            entry.strFSType.c_str(), entry.pProbe->iError);
    }
  }
  ZRLOG(2, "Stale file systems: %zu of %zu network mounts", stale.size(), entries.size());

  std::unique_lock<std::shared_mutex> lock(m_mtxState);
  m_lstStale = std::move(stale);
  m_bRefreshed = true;
}

bool CStaleMountDetector::IsStaleFSPresent() {
  if (!HasRefreshed()) {
    std::lock_guard<std::mutex> refreshLock(m_mtxRefresh);
    CQiError error = HasRefreshed() ? CQiError() : RefreshFromMountTable();
    if (error.IsError()) {
      ZRLOG(-1, "Stale file system check failed, error=%s", error.AsString().c_str());
      std::unique_lock<std::shared_mutex> lock(m_mtxState);
      m_bRefreshed = true;
    }
  }
  std::shared_lock<std::shared_mutex> lock(m_mtxState);
  return !m_lstStale.empty();
}

bool CStaleMountDetector::CheckInStaleFSList(const std::string& path) const {
  if (path.empty()) return false;
  std::shared_lock<std::shared_mutex> lock(m_mtxState);
  for (const std::string& mountPoint : m_lstStale)
    if (FXPath::IsAncestorOf(mountPoint, path, true)) return true;
  return false;
}

std::vector<std::string> CStaleMountDetector::GetStaleFSList() const {
  std::shared_lock<std::shared_mutex> lock(m_mtxState);
  return m_lstStale;
}

bool CStaleMountDetector::HasRefreshed() const {
  std::shared_lock<std::shared_mutex> lock(m_mtxState);
  return m_bRefreshed;
}

size_t CStaleMountDetector::GetPendingProbeCount() const {
  std::lock_guard<std::mutex> lock(m_pPending->mtx);
  return m_pPending->setMountPoints.size();
}

bool CStaleMountDetector::WaitForPendingProbes(std::chrono::milliseconds timeout) const {
  std::unique_lock<std::mutex> lock(m_pPending->mtx);
  return m_pPending->cv.wait_for(lock, timeout,
                                 [&] { return m_pPending->setMountPoints.empty(); });
}

void CStaleMountDetector::Reset() {
  std::lock_guard<std::mutex> refreshLock(m_mtxRefresh);
  std::unique_lock<std::shared_mutex> lock(m_mtxState);
  m_lstStale.clear();
  m_bRefreshed = false;
}
