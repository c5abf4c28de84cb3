// CBasicScanner: the one object through which a caller runs a scan.
//
// Typical use:
//   auto scanner = std::make_shared<CBasicScanner>(scanId, instance, callback);
//   scanner->SetLogWriter(...); scanner->SetConfigurationBag(...);   // settings first
//   scanner->AddLocalContentItem("/data");                            // content: work units at once
//   scanner->AddFilterItem("*.tmp");                                  // filters: kept until finalized
//   scanner->Start();                                                 // one thread per medium
//   scanner->WaitForScanToComplete();                                 // no time limit
//   scanner->GetWorkUnitManager()->GetFinalStatus();                  // the job's result
// Items reach the output handlers that the callback hands out; unreadable objects reach its
// scan-failure consumer. Each physical medium is scanned by a FindFirst engine on a thread of its
// own; a failed medium is logged and does not fail Start or WaitForScanToComplete.
//
// Finalization happens once (Initialize, or Start): filter and exception items added after it
// are never applied. The mount options apply to content added after them. The excluded-attributes
// mask is stored but the engines are given 0.
//
// A thin handle over CBasicScannerPrivate: every call is forwarded, and an error that comes back
// carries this class's place as well. Threads: call it from one thread; see CBasicScannerPrivate.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "Scan/BasicScannerPrivate.h"

class CBasicScanner {
 public:
  CBasicScanner(int64_t llScanId, const std::string& strInstance, CScannerCallbackPtr pCallback);
  CBasicScanner(const CBasicScanner&) = delete;
  CBasicScanner& operator=(const CBasicScanner&) = delete;

  CQiError SetLogWriter(CLogWriterInterfacePtr pLogWriter);
  CQiError SetDiagnosticWriter(CLineWriterPtr pWriter);
  CQiError SetConfigurationBag(CBagPtr pBag);
  CQiError SetContentMapper(ContentMapperAPIPtr pMapper);
  CQiError SetFollowMountPaths(bool bFollow);
  CQiError SetAutoExcludeMountPoints(bool bExclude);
  CQiError SetExcludedAttributes(uint32_t uExcludedAttributes);

  // Content given by both forms (either may be empty), by its source form, by its local form.
  CQiError AddContentItem(const std::string& strPath, const std::string& strSecondPath);
  CQiError AddSourceContentItem(const std::string& strPath);
  CQiError AddLocalContentItem(const std::string& strPath);
  CQiError AddScanContentExceptionItem(const std::string& strItem);
  CQiError AddFilterItem(const std::string& strItem);
  CQiError AddFilterExceptionItem(const std::string& strItem);
  CQiError AddSystemFilterItem(const std::string& strItem);
  CQiError AddSystemFilterExceptionItem(const std::string& strItem);

  CQiError Initialize();
  CQiError Start();
  CQiError WaitForScanToComplete();
  CQiError DumpDiagnosticData();

  CWorkUnitManagerPtr GetWorkUnitManager();
  bool IsItemValidContent(const std::string& strPath);

  // The object behind the handle (tests and tools that drive single steps).
  const CBasicScannerPrivatePtr& GetPrivate() const { return m_pPrivate; }

 private:
  CBasicScannerPrivatePtr m_pPrivate;
};

using CBasicScannerPtr = std::shared_ptr<CBasicScanner>;
