// CFsscanCallback: fsscan's part in a scan. Hands the same output handler to every volume, the
// failure consumer to every engine, new engines of the names given at construction (see
// CEngineFactory) to every scanner of the scan arbiter that asks, and answers IsAborted with the
// base flag or an interrupt (SIGINT/SIGTERM, recorded by RequestInterrupt from the signal
// handler).
//
// Threads: called from every engine thread at once; it holds only shared pointers and names set
// at construction (or by SetOnDemandBlackList before the scan) and atomic flags.
#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "Platform/HadoopFS.h"
#include "Scan/ItemConsumer.h"
#include "Scan/OutputHandler.h"
#include "Scan/ScannerCallback.h"

class CFsscanCallback : public CScannerCallback {
 public:
  // lstEngineNames: the engines of GetScanEngineList, in order (names of CEngineFactory).
  CFsscanCallback(COutputHandlerPtr pOutputHandler, CItemConsumerPtr pFailureConsumer,
                  std::vector<std::string> lstEngineNames = {}, std::string strInstance = std::string());
  ~CFsscanCallback() override;

  bool IsAborted() const override;
  std::string AsString() const override;
  CQiError GetOutputHandler(const std::string& strName, COutputHandlerPtr& pHandler) override;
  CQiError GetScanFailureConsumer(CItemConsumerPtr& pConsumer) override;
  // New engine objects on every call: each scanner drives engines of its own.
  CQiError GetScanEngineList(CScanEngineList& lstEngines) override;

  // Content that every on-demand engine made by GetScanEngineList leaves out (with everything
  // below it). Set before the scan.
  void SetOnDemandBlackList(std::vector<std::string> lstBlackList);
  // The handle of the hadoop engines made by GetScanEngineList. Set before the scan.
  void SetHadoopFS(CHadoopFSPtr pFS) { m_pHadoopFS = std::move(pFS); }

  // Async-signal-safe: marks every callback of the process as aborted.
  static void RequestInterrupt();
  static bool IsInterrupted();

 private:
  COutputHandlerPtr m_pOutputHandler;
  CItemConsumerPtr m_pFailureConsumer;
  const std::vector<std::string> m_lstEngineNames;
  const std::string m_strInstance;
  std::vector<std::string> m_lstOnDemandBlackList;
  CHadoopFSPtr m_pHadoopFS;
  static std::atomic<bool> s_bInterrupted;
};

using CFsscanCallbackPtr = std::shared_ptr<CFsscanCallback>;
