// CFailureReportConsumer: the scan-failure consumer of fsscan. Counts every object that could
// not be scanned and records it either in a failures file (CScanFailureConsumer, the library's
// format "%s %s:%d") or, without one, as a message line
//   fsscan: cannot scan '<path>' (error <code>)
// with the path's control bytes escaped.
//
// Threads: the engines' traversal workers call Process at once; one mutex serialises every
// record (the file consumer takes no lock of its own).
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "Scan/ItemConsumer.h"
#include "Scan/ScanFailureConsumer.h"

class CFailureReportConsumer : public CItemConsumer {
 public:
  using Reporter = std::function<void(const std::string&)>;

  // pFile may be empty: records then go to fnReport.
  CFailureReportConsumer(CScanFailureConsumerPtr pFile, Reporter fnReport);
  ~CFailureReportConsumer() override;

  CQiError Process(CItemPtr pItem) override;
  uint64_t getProcessedItemsCount() const override;

  // Records content that failed before any engine saw it (its assignment to a work unit).
  CQiError RecordContentFailure(const std::string& strPath, const CQiError& error);

 private:
  std::mutex m_mutex;
  CScanFailureConsumerPtr m_pFile;
  Reporter m_fnReport;
  std::atomic<uint64_t> m_ullFailures{0};
};

using CFailureReportConsumerPtr = std::shared_ptr<CFailureReportConsumer>;
