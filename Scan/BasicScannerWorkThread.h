// CBasicScannerWorkThread: the job that scans one physical medium for the scanner facade.
//
// CBasicScannerPrivate makes one per physical-media work unit, configures it on the caller's
// thread (SetLogWriter, InitializeObject, SetScannerConfigurationBag, SetPhysicalMediaWorkUnit)
// and hands it to its thread pool, whose thread calls Run once. Run builds a FindFirst engine
// (CFindFirstScanEngine, excluded attributes always 0) and lets it process every volume of the
// medium; all parallelism inside the medium is the engine's.
//
// Run never fails because the medium failed: an abort (Win32 995) is a quiet end, any other
// engine failure is logged at level -1 as "TryScanner(FindFirst) failed, error=%s" and Run
// still succeeds. The failure stays visible in the log and in the work units' dispositions.
// Run fails only when the thread cannot be prepared or the engine cannot be allocated.
//
// Engine factory: the engine is made by a factory that defaults to a plain CFindFirstScanEngine.
// SetScanEngineFactory replaces it (a FindFirst-derived engine, for example one that fails on
// purpose in a test); the facade itself never sets it.
//
// Ownership: shares the log writer, callback and bag with the other work threads, owns its engine
// and shares its physical-media work unit with the work unit manager. Threads: configured on the
// caller's thread, run on one pool thread; no lock is taken here.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "Platform/Bag.h"
#include "Platform/LogWriterInterface.h"
#include "Platform/QiError.h"
#include "Scan/FindFirstScanEngine.h"
#include "Scan/PhysicalMediaWorkUnit.h"
#include "Scan/ScannerCallback.h"

class CBasicScannerWorkThread {
 public:
  // Makes the engine of Run; an empty result means it could not be allocated (Win32 14).
  using ScanEngineFactory = std::function<CFindFirstScanEnginePtr()>;

  CBasicScannerWorkThread() = default;
  CBasicScannerWorkThread(const CBasicScannerWorkThread&) = delete;
  CBasicScannerWorkThread& operator=(const CBasicScannerWorkThread&) = delete;

  CQiError SetLogWriter(CLogWriterInterfacePtr pLogWriter);
  CQiError InitializeObject(int64_t llScanId, const std::string& strInstance, int iThreadIndex,
                            CScannerCallbackPtr pCallback);
  CQiError SetScannerConfigurationBag(CBagPtr pBag);
  CQiError SetPhysicalMediaWorkUnit(CPhysicalMediaWorkUnitPtr pUnit);
  void SetScanEngineFactory(ScanEngineFactory fnFactory) { m_fnEngineFactory = std::move(fnFactory); }

  // Per-thread preparation; nothing to prepare on this platform.
  CQiError InitializeThread();
  // Scans the physical medium (on the pool thread).
  CQiError Run();
  // Configures the engine and runs Process.
  CQiError TryScanner();

  const CLogWriterInterfacePtr& GetLogWriter() const { return m_pLogWriter; }
  int64_t GetScanId() const { return m_llScanId; }
  const std::string& GetInstance() const { return m_strInstance; }
  int GetThreadIndex() const { return m_iThreadIndex; }
  const CPhysicalMediaWorkUnitPtr& GetPhysicalMediaWorkUnit() const { return m_pPhysicalMediaWorkUnit; }
  const CFindFirstScanEnginePtr& GetScanEngine() const { return m_pScanEngine; }

 private:
  CLogWriterInterfacePtr m_pLogWriter;
  int64_t m_llScanId = 0;
  std::string m_strInstance;
  int m_iThreadIndex = 0;
  CScannerCallbackPtr m_pCallback;
  CBagPtr m_pConfigurationBag;
  CPhysicalMediaWorkUnitPtr m_pPhysicalMediaWorkUnit;
  CFindFirstScanEnginePtr m_pScanEngine;
  ScanEngineFactory m_fnEngineFactory;
};

using CBasicScannerWorkThreadPtr = std::shared_ptr<CBasicScannerWorkThread>;
