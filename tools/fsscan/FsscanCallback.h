// CFsscanCallback: fsscan's part in a scan. Hands the same output handler to every volume, the
// failure consumer to every engine, and answers IsAborted with the base flag or an interrupt
// (SIGINT/SIGTERM, recorded by RequestInterrupt from the signal handler).
//
// Threads: called from every engine thread at once; it holds only shared pointers set at
// construction and atomic flags.
#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "Scan/ItemConsumer.h"
#include "Scan/OutputHandler.h"
#include "Scan/ScannerCallback.h"

class CFsscanCallback : public CScannerCallback {
 public:
  CFsscanCallback(COutputHandlerPtr pOutputHandler, CItemConsumerPtr pFailureConsumer);
  ~CFsscanCallback() override;

  bool IsAborted() const override;
  std::string AsString() const override;
  CQiError GetOutputHandler(const std::string& strName, COutputHandlerPtr& pHandler) override;
  CQiError GetScanFailureConsumer(CItemConsumerPtr& pConsumer) override;

  // Async-signal-safe: marks every callback of the process as aborted.
  static void RequestInterrupt();
  static bool IsInterrupted();

 private:
  COutputHandlerPtr m_pOutputHandler;
  CItemConsumerPtr m_pFailureConsumer;
  static std::atomic<bool> s_bInterrupted;
};

using CFsscanCallbackPtr = std::shared_ptr<CFsscanCallback>;
