// CArbiterVolumeWorkUnits: the arbiter's record of one physical medium during a scan: the volume
// work units still to scan (in the medium's order), whether a scanner holds the medium, and which.
//
// A medium is free (not busy), held (busy, owned by one scanner) or exhausted (no volumes left).
// TryTake moves a free, non-empty medium to held; Release moves it back to free. Only the holder
// takes volumes off the list (TakeFirstVolume), so the volumes of one medium are scanned one after
// another and never by two scanners at once.
//
// Ownership: created and owned by CScanArbiter (shared so that its in-use map can point at it);
// it shares the volume work units with the work unit manager.
// Threads: every operation may be called from any scanner thread. The medium's own lock guards
// the busy flag, the owner and the volume list. The arbiter may hold its own lock while calling
// in here (arbiter lock, then medium lock); nothing in here calls back into the arbiter.
#pragma once

#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Scan/VolumeWorkUnit.h"

class CArbiterVolumeWorkUnits {
 public:
  CArbiterVolumeWorkUnits(std::string strPhysicalMediaId,
                          const std::vector<CVolumeWorkUnitPtr>& lstVolumeWorkUnits);
  CArbiterVolumeWorkUnits(const CArbiterVolumeWorkUnits&) = delete;
  CArbiterVolumeWorkUnits& operator=(const CArbiterVolumeWorkUnits&) = delete;

  const std::string& GetPhysicalMediaId() const { return m_strPhysicalMediaId; }

  // Marks the medium busy when it is free and still has volumes; true when the caller now
  // holds it.
  bool TryTake();
  // Records the holder and removes the first volume; empty when none is left. Meant for the
  // holder only.
  CVolumeWorkUnitPtr TakeFirstVolume(const void* pOwner);
  // Clears the owner and the busy flag: the medium is free again for any scanner.
  void Release();

  bool IsBusy() const;
  const void* GetOwner() const;
  size_t GetRemainingVolumes() const;

 private:
  const std::string m_strPhysicalMediaId;
  mutable std::mutex m_mutex;  // guards everything below
  std::deque<CVolumeWorkUnitPtr> m_lstVolumeWorkUnits;
  const void* m_pOwner = nullptr;
  bool m_bBusy = false;
};

using CArbiterVolumeWorkUnitsPtr = std::shared_ptr<CArbiterVolumeWorkUnits>;
