// Test doubles shared by the traversal and FindFirst engine suites: an output
// handler that records what it is given, a scanner callback that hands out that handler and a
// failures file, and helpers for trees with awkward names.
#pragma once

#include <sys/stat.h>

#include <atomic>
#include <cstdio>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "Platform/FXErrorUtil.h"
#include "Platform/LogWriterInterface.h"
#include "Scan/OutputHandler.h"
#include "Scan/ScanFailureConsumer.h"
#include "Scan/ScannerCallback.h"
#include "Support/LogCapture.h"

namespace TraversalTestSupport {

// The shared log capture (tests/Support/LogCapture.h).
using ::CLogCapture;

// What an output handler was given: source path, size and mode of every item.
struct SRecord {
  std::string strPath;
  uint64_t ullSize = 0;
  uint32_t uMode = 0;
  bool operator<(const SRecord& other) const { return strPath < other.strPath; }
  bool operator==(const SRecord& other) const {
    return strPath == other.strPath && ullSize == other.ullSize && uMode == other.uMode;
  }
};

// Records every item; guards itself, since unlocked engines deliver from several workers.
class CRecordingHandler : public COutputHandler {
 public:
  CQiError Initialize() override {
    ++m_iInitialized;
    return CQiError();
  }
  CQiError Complete() override {
    ++m_iCompleted;
    return CQiError();
  }
  CQiError OnItem(CItemPtr pItem) override {
    size_t nCount;
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_vRecords.push_back({pItem->GetSourceFullyQualifiedItemName(), pItem->GetFileSize(),
                            pItem->GetAttributes()});
      nCount = m_vRecords.size();
    }
    if (m_fnOnItem) m_fnOnItem(nCount);
    if (m_uFailCode != 0) return QI_ERROR_WIN32(m_uFailCode, "handler refused");
    return CQiError();
  }
  std::vector<SRecord> Records() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_vRecords;
  }
  std::vector<std::string> Paths() const {
    std::vector<std::string> paths;
    for (const SRecord& record : Records()) paths.push_back(record.strPath);
    return paths;
  }

  std::atomic<int> m_iInitialized{0};
  std::atomic<int> m_iCompleted{0};
  // Called after each item with the number of items so far (on the delivering thread).
  std::function<void(size_t)> m_fnOnItem;
  // Non-zero: every item is recorded, then refused with this code.
  uint32_t m_uFailCode = 0;

 private:
  mutable std::mutex m_mutex;
  std::vector<SRecord> m_vRecords;
};

// Hands out the recording handler and, when a file name is set, a failures file.
class CTestCallback : public CScannerCallback {
 public:
  CTestCallback() : m_pHandler(std::make_shared<CRecordingHandler>()) {
    (void)SetScannerConfigurationBag(std::make_shared<CBag>());
  }
  CQiError GetOutputHandler(const std::string&, COutputHandlerPtr& pHandler) override {
    ++m_iHandlerRequests;
    pHandler = m_pHandler;
    return CQiError();
  }
  CQiError GetScanFailureConsumer(CItemConsumerPtr& pConsumer) override {
    if (!m_pFailures) return CScannerCallback::GetScanFailureConsumer(pConsumer);
    pConsumer = m_pFailures;
    return CQiError();
  }
  CQiError LogVolumeScanComplete(const std::string& a, const std::string& b,
                                 const std::string& c) override {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_vCompleted.push_back(a + "|" + b + "|" + c);
    return CQiError();
  }
  void UseFailuresFile(const std::string& strPath) {
    m_pFailures = std::make_shared<CScanFailureConsumer>(1, strPath, "w");
  }
  // The failures file's lines (after closing it).
  std::vector<std::string> FailureLines() {
    std::vector<std::string> lines;
    if (!m_pFailures) return lines;
    (void)m_pFailures->Close();
    FILE* pFile = fopen(m_pFailures->GetFileName().c_str(), "r");
    if (pFile == nullptr) return lines;
    char* pLine = nullptr;
    size_t nSize = 0;
    ssize_t nRead;
    while ((nRead = getline(&pLine, &nSize, pFile)) > 0) lines.emplace_back(pLine, nRead - 1);
    free(pLine);
    fclose(pFile);
    return lines;
  }
  template <typename T>
  void Set(const std::string& strKey, T value) {
    (void)GetScannerConfigurationBag()->Write(strKey, value);
  }

  std::shared_ptr<CRecordingHandler> m_pHandler;
  std::shared_ptr<CScanFailureConsumer> m_pFailures;
  std::atomic<int> m_iHandlerRequests{0};
  std::mutex m_mutex;
  std::vector<std::string> m_vCompleted;
};

// A name that exercises every byte class the scan must carry unchanged.
inline std::vector<std::string> AwkwardNames() {
  return {"with blank", "new\nline", "tab\there", std::string("bad\xff\xfeutf8"), "back\\slash",
          "colon:name", "*", "-dash"};
}

}  // namespace TraversalTestSupport
