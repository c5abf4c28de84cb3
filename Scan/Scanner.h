// CScanner: one scanner thread of a CScanArbiter. It repeatedly takes a volume work unit from the
// arbiter, offers each of the volume's work units to the callback's scan engines in list order,
// records each unit's disposition, and hands the volume back.
//
// The engine trial for one work unit:
//   - a unit whose processor is "NC" needs no scan and is given to no engine;
//   - the first engine that succeeds wins; an aborted engine (Win32 995) ends the trial;
//   - missing content (errno 2, Win32 232) is skipped with a level -1 message;
//   - errno 12 (out of memory), 24 (too many open files) and 28 (no space left) raise an event
//     and end the whole scan;
//   - any other failure (Win32 50 "not supported" included) is put to the callback's
//     OnScannerError: abort ends the scan, skip marks the unit handled (no failure message, no
//     further engines), try-next false stops the trial, otherwise the next engine is tried.
// Ending the scan hands the volume back, calls the callback's Abort and ends this scanner with
// success; the other scanners see IsAborted and stop taking volumes.
// A unit that no engine can be tried on (the callback lists no engines) is a misconfiguration
// that the process does not survive: it is logged at level -1 and the process is aborted.
//
// Ownership: the arbiter makes the scanner and runs it through RunStub on a thread of its own; the
// scanner shares the callback and the engines, and points at the arbiter without owning it.
// Threads: one scanner is driven by one thread; scanners share only the arbiter and the callback.
// Each scanner asks GetScanEngineList once and sets the callback and the bag on the engines it
// gets before every work unit, so the callback must give each scanner engine objects of its own
// (an engine is driven by one scanner thread at a time).
#pragma once

#include <cstdint>
#include <memory>

#include "Platform/Bag.h"
#include "Platform/QiError.h"
#include "Scan/ScanEngine.h"
#include "Scan/ScannerCallback.h"
#include "Scan/VolumeWorkUnit.h"
#include "Scan/WorkUnit.h"

class CScanArbiter;

class CScanner : public std::enable_shared_from_this<CScanner> {
 public:
  // The processor tag of a work unit that needs no scan.
  static constexpr const char* kNoScanProcessor = "NC";

  CScanner(int64_t llScanId, CScannerCallbackPtr pCallback, CScanArbiter* pArbiter);
  virtual ~CScanner();
  CScanner(const CScanner&) = delete;
  CScanner& operator=(const CScanner&) = delete;

  // Thread entry: runs StartScan and logs its failure ("Run failed, error=%s"). Returns 0, or the
  // failure's code.
  static unsigned RunStub(const std::shared_ptr<CScanner>& pScanner);

  // Scans volumes until the arbiter has none left for this scanner or the scan is ended.
  CQiError StartScan();

 private:
  enum class EUnitResult { Next, EndScan };

  // Runs the engine trial on one work unit of a volume.
  EUnitResult ProcessWorkUnit(const CVolumeWorkUnitPtr& pVolume, const CWorkUnitPtr& pUnit,
                              const CBagPtr& pBag);
  // Raises the event of an error that ends the scan (errno 12, 24, 28).
  static void RaiseEndOfScanEvent(const CQiError& error);

  const int64_t m_llScanId;
  const CScannerCallbackPtr m_pCallback;
  CScanArbiter* const m_pArbiter;
  CScanEngineList m_lstEngines;
};

using CScannerPtr = std::shared_ptr<CScanner>;
