// CBasicScannerPrivate: the state and the work of the scanner facade (CBasicScanner is a thin
// handle over it).
//
// It keeps the scan's settings, hands content paths to its CWorkUnitManager at once, and keeps
// the caller's filter and exception strings (five ordered sets, one copy of each string) until
// the work units are finalized, once, by Initialize or Start. Start then makes one
// CBasicScannerWorkThread per physical-media work unit, in the order of the manager's
// physical-media map, and hands them all to a thread pool sized to run them at once
// (Initialize("BasicScannerPrivate", 200, N, N + 1, N)); it returns without waiting.
// WaitForScanToComplete waits without a time limit for every work thread. A failed medium never
// fails the scan: its thread logs the failure ("Run failed, error=%s" at the latest).
//
// Lifecycle: created -> finalized (Initialize) -> running (Start) -> completed (Wait). There is
// no restart: Start must be called once, and the object must not be released before
// WaitForScanToComplete returned (the destructor neither stops nor waits for threads; it joins
// the pool, which lets every job finish first).
//
// Logging: while a public operation runs, the scan's log writer (SetLogWriter) is the calling
// thread's current writer, so everything the manager logs goes to it too; without one the
// process-wide writer is used.
//
// Threads: every public operation runs on the caller's thread and takes no lock; the caller must
// not call two at once and must finish configuring before Start. After Start the pool's threads
// share the callback, the bag, the log writer and the manager; each owns its work thread.
#pragma once

#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "Platform/Bag.h"
#include "Platform/ContentMapperAPI.h"
#include "Platform/LineWriter.h"
#include "Platform/LogWriterInterface.h"
#include "Platform/QiError.h"
#include "Platform/StringCompare.h"
#include "Platform/ZrThreadPool.h"
#include "Scan/BasicScannerWorkThread.h"
#include "Scan/ScannerCallback.h"
#include "Scan/Unix/WorkUnitManager.h"

class CBasicScannerPrivate {
 public:
  using ItemSet = std::set<std::string, __less_fscase_cmp>;

  // The pool's name and how many jobs may wait in it.
  static constexpr const char* kThreadPoolName = "BasicScannerPrivate";
  static constexpr int kThreadPoolQueueLimit = 200;

  CBasicScannerPrivate(int64_t llScanId, const std::string& strInstance, CScannerCallbackPtr pCallback);
  ~CBasicScannerPrivate();
  CBasicScannerPrivate(const CBasicScannerPrivate&) = delete;
  CBasicScannerPrivate& operator=(const CBasicScannerPrivate&) = delete;

  CQiError SetLogWriter(CLogWriterInterfacePtr pLogWriter);
  CQiError SetDiagnosticWriter(CLineWriterPtr pWriter);
  // Also given to the work unit manager.
  CQiError SetConfigurationBag(CBagPtr pBag);
  CQiError SetContentMapper(ContentMapperAPIPtr pMapper);
  CQiError SetFollowMountPaths(bool bFollow);
  CQiError SetAutoExcludeMountPoints(bool bExclude);
  // Stored only: the work threads give their engines a mask of 0.
  CQiError SetExcludedAttributes(uint32_t uExcludedAttributes);

  // Content: turned into work units at once by the manager.
  CQiError AddContentItem(const std::string& strPath, const std::string& strSecondPath);
  CQiError AddSourceContentItem(const std::string& strPath);
  CQiError AddLocalContentItem(const std::string& strPath);
  // Filter and exception strings: kept until the work units are finalized.
  CQiError AddScanContentExceptionItem(const std::string& strItem);
  CQiError AddFilterItem(const std::string& strItem);
  CQiError AddFilterExceptionItem(const std::string& strItem);
  CQiError AddSystemFilterItem(const std::string& strItem);
  CQiError AddSystemFilterExceptionItem(const std::string& strItem);

  CQiError Initialize();
  CQiError Start();
  CQiError WaitForScanToComplete();
  CQiError DumpDiagnosticData();

  const CWorkUnitManagerPtr& GetWorkUnitManager() const { return m_pWorkUnitManager; }
  // Whether the path is scan content, asked of the first work unit only (see the .cpp).
  bool IsItemValidContent(const std::string& strPath);

  // The steps of Start, public so that they can be driven one at a time.
  CQiError InitializeWorkUnits();
  CQiError CreateWorkerThreads();
  CQiError StartWorkThreads();
  // The pool job of one work thread; pArg is the thread's entry in the vector.
  static unsigned RunStub(void* pArg);

  // Makes the engines of the work threads created from now on (see CBasicScannerWorkThread).
  void SetScanEngineFactory(CBasicScannerWorkThread::ScanEngineFactory fnFactory) {
    m_fnEngineFactory = std::move(fnFactory);
  }

  bool IsInitialized() const { return m_bInitialized; }
  uint32_t GetExcludedAttributes() const { return m_uExcludedAttributes; }
  const ItemSet& GetScanContentExceptionItems() const { return m_setScanContentExceptions; }
  const ItemSet& GetFilterItems() const { return m_setFilters; }
  const ItemSet& GetFilterExceptionItems() const { return m_setFilterExceptions; }
  const ItemSet& GetSystemFilterItems() const { return m_setSystemFilters; }
  const ItemSet& GetSystemFilterExceptionItems() const { return m_setSystemFilterExceptions; }
  const std::vector<CBasicScannerWorkThreadPtr>& GetWorkThreads() const { return m_lstWorkThreads; }
  const ZrThreadPoolPtr& GetThreadPool() const { return m_pThreadPool; }

 private:
  // Makes the scan's log writer the calling thread's current one for a scope.
  std::shared_ptr<CLogWriterInterfaceThreadWrapper> UseLogWriter() const;

  CLogWriterInterfacePtr m_pLogWriter;
  CLineWriterPtr m_pDiagnosticWriter;
  CBagPtr m_pConfigurationBag;
  int64_t m_llScanId;
  std::string m_strInstance;
  CScannerCallbackPtr m_pCallback;
  uint32_t m_uExcludedAttributes = 0;
  CWorkUnitManagerPtr m_pWorkUnitManager;
  bool m_bInitialized = false;
  ItemSet m_setScanContentExceptions;
  ItemSet m_setFilters;
  ItemSet m_setFilterExceptions;
  ItemSet m_setSystemFilters;
  ItemSet m_setSystemFilterExceptions;
  ZrThreadPoolPtr m_pThreadPool;
  uint64_t m_ullThreadCount = 0;
  std::vector<CBasicScannerWorkThreadPtr> m_lstWorkThreads;
  // One slot per work thread: the index of its job in the pool.
  std::unique_ptr<intptr_t[]> m_pThreadSlots;
  CBasicScannerWorkThread::ScanEngineFactory m_fnEngineFactory;
};

using CBasicScannerPrivatePtr = std::shared_ptr<CBasicScannerPrivate>;
