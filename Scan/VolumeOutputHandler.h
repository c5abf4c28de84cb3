// CVolumeOutputHandler: the output handler of one volume while it is open. Open asks the scanner
// callback for the volume's handler and initializes it; Close completes it. Between the two,
// every item of the volume goes to Get(), whichever traversal finds it, so a handler that starts
// afresh in Initialize or finalizes the volume in Complete sees the volume whole.
//
// Exactly once: a handler whose Initialize succeeded is completed by the first Close (failed or
// not) and never again; one still open at destruction is completed there, a failure logged. A
// handler whose Initialize failed was never opened and is not completed. Without a callback, or
// when the callback has no handler for the volume ("Output handler is unconfigured"), nothing is
// open, Get() is empty and the items are dropped.
//
// Used by one thread (the owner of the traversals); the handler itself is shared with workers.
#pragma once

#include <string>

#include "Platform/QiError.h"
#include "Scan/OutputHandler.h"
#include "Scan/ScannerCallback.h"

class CVolumeOutputHandler {
 public:
  CVolumeOutputHandler() = default;
  ~CVolumeOutputHandler();
  CVolumeOutputHandler(const CVolumeOutputHandler&) = delete;
  CVolumeOutputHandler& operator=(const CVolumeOutputHandler&) = delete;

  CQiError Open(const CScannerCallbackPtr& pCallback, const std::string& strVolume);
  CQiError Close();
  // The open handler; empty before Open, after Close, or when none is configured.
  const COutputHandlerPtr& Get() const { return m_pHandler; }

 private:
  COutputHandlerPtr m_pHandler;
  std::string m_strVolume;
};
