// Test doubles shared by the traversal and engine suites: an output handler that records what it
// is given, a scanner callback that hands out that handler and a failures file, work units of
// the root volume, and small helpers for expected listings written with tokens.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "Platform/FXErrorUtil.h"
#include "Scan/EnumerateFiles.h"
#include "Scan/OutputHandler.h"
#include "Scan/ScanEngine.h"
#include "Scan/ScanFailureConsumer.h"
#include "Scan/ScanPath.h"
#include "Scan/ScannerCallback.h"
#include "Scan/TraverseFolder2.h"
#include "Scan/WorkUnit.h"
#include "Support/FileText.h"
#include "Support/LogCapture.h"
#include "Support/TempTree.h"

namespace TraversalTestSupport {

// What an output handler was given: source path, size and mode of every item.
struct SRecord {
  std::string strPath;
  uint64_t ullSize = 0;
  uint32_t uMode = 0;
  auto Tie() const { return std::tie(strPath, ullSize, uMode); }
  bool operator<(const SRecord& other) const { return Tie() < other.Tie(); }
  bool operator==(const SRecord& other) const { return Tie() == other.Tie(); }
};

// Records every item, and when the handler was opened and closed; guards itself, since unlocked
// engines deliver from several workers.
class CRecordingHandler : public COutputHandler {
 public:
  CQiError Initialize() override { return ++m_iInitialized, Event("Initialize", m_uInitializeFails); }
  CQiError Complete() override { return ++m_iCompleted, Event("Complete", m_uCompleteFails); }
  CQiError OnItem(CItemPtr pItem) override {
    if (m_fnHook) m_fnHook(pItem);
    size_t nCount;
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_vRecords.push_back({pItem->GetSourceFullyQualifiedItemName(), pItem->GetFileSize(), pItem->GetAttributes()});
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

  std::atomic<int> m_iInitialized{0}, m_iCompleted{0};
  std::vector<std::string> m_vEvents;  // "Initialize@<items so far>", "Complete@<items so far>"
  std::function<void(const CItemPtr&)> m_fnHook;  // sees each item before it is recorded
  std::function<void(size_t)> m_fnOnItem;  // after each item, with the count so far
  uint32_t m_uFailCode = 0;  // non-zero: every item is recorded, then refused with this code
  uint32_t m_uInitializeFails = 0, m_uCompleteFails = 0;  // non-zero: refused with this code

 private:
  CQiError Event(const std::string& strEvent, uint32_t uFails) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_vEvents.push_back(strEvent + "@" + std::to_string(m_vRecords.size()));
    return uFails ? QI_ERROR_WIN32(uFails, "handler refused to %s", strEvent.c_str()) : CQiError();
  }
  mutable std::mutex m_mutex;
  std::vector<SRecord> m_vRecords;
};

// Hands out the recording handler and, when a file name is set, a failures file.
class CTestCallback : public CScannerCallback {
 public:
  CTestCallback() { (void)SetScannerConfigurationBag(std::make_shared<CBag>()); }
  CQiError GetOutputHandler(const std::string& strName, COutputHandlerPtr& pHandler) override {
    ++m_iHandlerRequests;
    if (strName == m_strRefusedHandler) return QI_ERROR_WIN32(5, "handler refused");
    m_vHandlerNames.push_back(strName);
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
    if (!m_pFailures) return {};
    (void)m_pFailures->Close();
    return ReadFileLines(m_pFailures->GetFileName());
  }
  template <typename T>
  void Set(const std::string& strKey, T value) {
    (void)GetScannerConfigurationBag()->Write(strKey, value);
  }

  std::shared_ptr<CRecordingHandler> m_pHandler = std::make_shared<CRecordingHandler>();
  std::shared_ptr<CScanFailureConsumer> m_pFailures;
  std::atomic<int> m_iHandlerRequests{0};
  std::vector<std::string> m_vHandlerNames;  // every handler handed out (one thread asks)
  std::string m_strRefusedHandler = "\n";     // the name of a handler refused with 5
  std::mutex m_mutex;
  std::vector<std::string> m_vCompleted;
};

// Names that exercise every byte class the scan must carry unchanged.
inline std::vector<std::string> AwkwardNames() {
  return {"with blank", "new\nline", "tab\there", std::string("bad\xff\xfeutf8"), "back\\slash",
          "colon:name", "*", "-dash"};
}

// Replaces tokens ("%R" and the like) by their values, in a text or in each text of a list.
struct STokens {
  std::vector<std::pair<std::string, std::string>> lstPairs;
  std::string operator()(std::string strText) const {
    for (const auto& [strKey, strValue] : lstPairs)
      for (size_t pos = 0; (pos = strText.find(strKey, pos)) != std::string::npos; pos += strValue.size())
        strText.replace(pos, strKey.size(), strValue);
    return strText;
  }
  std::vector<std::string> operator()(const std::vector<std::string>& lstTexts) const {
    std::vector<std::string> lstOut;
    for (const std::string& strText : lstTexts) lstOut.push_back((*this)(strText));
    return lstOut;
  }
};

template <class TList>
std::multiset<typename TList::value_type> Bag(const TList& list) {
  return {list.begin(), list.end()};
}

// A work unit of a volume (the root volume by default) whose scan paths and content are lstPaths.
inline CWorkUnitPtr MakeUnit(const std::vector<std::string>& lstPaths,
                             const std::string& strVolume = "/") {
  auto pUnit = std::make_shared<CWorkUnit>();
  pUnit->SetLocalVolumeName(strVolume);
  pUnit->SetSourceVolumeName(strVolume);
  for (const std::string& strPath : lstPaths) {
    pUnit->AddScanPath(std::make_shared<CScanPath>(strPath, strPath));
    if (pUnit->AddScanContentItem(strPath).IsError()) return nullptr;
  }
  return pUnit;
}

// A folder traversal: the first generation (CEnumerateFiles under a plain engine) or the second
// (CTraverseFolder2), with a number of workers.
struct SKind {
  const char* szName;
  bool bSecondGeneration;
  int iWorkers;
};
inline void PrintTo(const SKind& kind, std::ostream* pStream) { *pStream << kind.szName; }
inline const SKind kKinds[] = {{"FirstGen1", false, 1}, {"FirstGen3", false, 3},
                               {"SecondGen1", true, 1}, {"SecondGen2", true, 2}};

struct STraverseOptions {
  bool bTopLevel = false;
  std::chrono::milliseconds stall{0};
  CWorkUnitPtr pUnit = nullptr;  // the second generation's work unit (a plain one of "/" when null)
};

// One traversal of the roots, each reported under itself, by the given kind.
inline CQiError Traverse(const SKind& kind, const std::shared_ptr<CTestCallback>& pCallback,
                         const std::vector<std::string>& lstRoots, const STraverseOptions& options = {}) {
  if (kind.bSecondGeneration) {
    CTraverseFolder2 traversal(options.pUnit ? options.pUnit : MakeUnit({}), pCallback);
    traversal.SetMaxWorkers(kind.iWorkers);
    traversal.SetStallTimeout(options.stall);
    traversal.SetProcessTopLevelContentItem(options.bTopLevel);
    for (const std::string& strRoot : lstRoots) traversal.AddFolderToList(strRoot);
    return traversal.Traverse();
  }
  CScanEngine engine;
  (void)engine.SetScannerCallback(pCallback);
  if (CQiError error = engine.OpenOutputHandler("vol"); error.IsError()) return error;
  CEnumerateFiles traversal(&engine);
  traversal.SetMaxWorkers(kind.iWorkers);
  traversal.SetStallTimeout(options.stall);
  traversal.SetProcessTopLevelContentItem(options.bTopLevel);
  for (const std::string& strRoot : lstRoots) traversal.AddFolderToList(strRoot, strRoot);
  CQiError error = traversal.Traverse();
  (void)engine.CloseOutputHandler();
  return error;
}

}  // namespace TraversalTestSupport
