// CFailureReportConsumer: the scan-failure consumer of fsscan. Records every object that could
// not be scanned either in a failures file (CScanFailureConsumer, the library's format
// "%s %s:%d") or, without one, as a message line
//   fsscan: cannot scan '<path>' (error <code>)
// with the path's control bytes escaped.
//
// A record that the failures file cannot take is not lost: its message line is reported
// instead, and so is, at the first such record, "fsscan: cannot write the failures file
// '<name>': <error>". The scan goes on (every readable object is still listed); fsscan ends
// with a set-up error. The count covers only records that reached the failures file (or, without
// one, the message lines); the records that did not are counted apart (GetLostCount).
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

  // Records the item; a record that the failures file refused is reported through fnReport and
  // counted as lost, and the call succeeds (the scan goes on).
  CQiError Process(CItemPtr pItem) override;
  // The records written.
  uint64_t getProcessedItemsCount() const override;
  // The records that the failures file refused.
  uint64_t GetLostCount() const;

  // Records content that failed before any engine saw it (its assignment to a work unit).
  CQiError RecordContentFailure(const std::string& strPath, const CQiError& error);
  // Closes the failures file; a close that fails is reported as a write failure and returned.
  CQiError Close();

 private:
  void ReportWriteFailure(const CQiError& error);

  std::mutex m_mutex;
  CScanFailureConsumerPtr m_pFile;
  Reporter m_fnReport;
  bool m_bWriteFailureReported = false;
  std::atomic<uint64_t> m_ullFailures{0};
  std::atomic<uint64_t> m_ullLost{0};
};

using CFailureReportConsumerPtr = std::shared_ptr<CFailureReportConsumer>;
