// CScanArbiter: runs a fixed number of CScanner threads over all the volume work units of a scan
// and lets only one scanner at a time hold a physical medium, so that the volumes of one medium
// are scanned one after another and different media in parallel.
//
// Usage: build the work units with a CWorkUnitManager, give the arbiter the scan's configuration
// bag (SetScannerConfigurationBag; scanners hand it to every engine), then Run(manager). Run
// returns when every scanner has ended: success, or Win32 995 when the callback was aborted
// (by the caller, or by a scanner that met an error that ends the scan).
//
// Scanners call GetNextVolumeWorkUnit to take the first volume of a free medium (the medium is
// then theirs) and ReturnVolumeWorkUnit to free it again. A scanner ends when no free medium with
// volumes is left; held media are finished by their holders.
//
// Ownership: the arbiter owns its medium records and its scanner threads; it shares the callback
// and the bag, and the volume work units with the manager. Scanners point back at the arbiter
// without owning it: the arbiter outlives them (Run joins them all).
// Threads: Run/RunForLogMonitoring are for one controlling thread. GetNextVolumeWorkUnit,
// ReturnVolumeWorkUnit and the bag accessors may be called from any thread. Lock order: the
// arbiter's lock, then a medium's lock; never the other way.
#pragma once

#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <mutex>

#include "Platform/Bag.h"
#include "Platform/QiError.h"
#include "Platform/ZrThread.h"
#include "Scan/ArbiterVolumeWorkUnits.h"
#include "Scan/ScannerCallback.h"
#include "Scan/Unix/WorkUnitManager.h"
#include "Scan/VolumeWorkUnit.h"

class CScanner;
using CScannerPtr = std::shared_ptr<CScanner>;

class CScanArbiter {
 public:
  CScanArbiter(int64_t llScanId, int iMaxWorkerThreads, CScannerCallbackPtr pCallback);
  virtual ~CScanArbiter();
  CScanArbiter(const CScanArbiter&) = delete;
  CScanArbiter& operator=(const CScanArbiter&) = delete;

  // Runs the whole scan over the manager's physical media; returns when every scanner has ended.
  CQiError Run(CWorkUnitManager& manager);
  // The same scan for a caller that follows a log instead of the file system: the scanners and
  // the arbitration are those of Run.
  CQiError RunForLogMonitoring(CWorkUnitManager& manager);

  // The first volume of the first free medium that still has volumes; the medium is then held
  // by the scanner until ReturnVolumeWorkUnit. Empty when nothing is left for this scanner.
  CVolumeWorkUnitPtr GetNextVolumeWorkUnit(const void* pScanner);
  // Frees the medium that the scanner holds; nothing when it holds none. The volume is not put
  // back.
  void ReturnVolumeWorkUnit(const CVolumeWorkUnitPtr& pVolume, const void* pScanner);

  CBagPtr GetScannerConfigurationBag() const;
  void SetScannerConfigurationBag(CBagPtr pBag);

  int64_t GetScanId() const { return m_llScanId; }
  int GetMaxWorkerThreads() const { return m_iMaxWorkerThreads; }
  const CScannerCallbackPtr& GetScannerCallback() const { return m_pCallback; }

 protected:
  // Starts one scanner on its thread. Overridable so that a failure to create a thread can be
  // met (the scanner then runs on the calling thread).
  virtual CQiError StartScannerThread(ZrThread& thread, const CScannerPtr& pScanner);

 private:
  CQiError RunScanners(CWorkUnitManager& manager);

  const int64_t m_llScanId;
  const int m_iMaxWorkerThreads;
  const CScannerCallbackPtr m_pCallback;
  std::list<CArbiterVolumeWorkUnitsPtr> m_lstArbiterVolumeWorkUnits;

  mutable std::mutex m_mutex;  // guards the in-use map and the bag pointer
  std::map<const void*, CArbiterVolumeWorkUnitsPtr> m_mapInUse;
  CBagPtr m_pConfigurationBag;
};

using CScanArbiterPtr = std::shared_ptr<CScanArbiter>;
