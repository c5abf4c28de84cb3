#include "EngineFactory.h"

#include <functional>
#include <map>

#include "Platform/FXErrorUtil.h"
#include "Platform/FXString.h"
#include "Scan/FastFindFirstScanEngine.h"
#include "Scan/FindFirstScanEngine.h"
#include "Scan/OnDemandScanEngine.h"
#include "Scan/TraverseScanEngine.h"
#include "Scan/Unix/GpfsScanEngine.h"
#include "Scan/Unix/HadoopScanEngine.h"
#include "Scan/Unix/RawDeviceScanEngine.h"
#include "Scan/Unix/LustreScanEngine.h"

namespace {

struct SEngineEntry {
  const char* szName;
  bool bListed;  // a name the user may give; fsscan chooses the others itself
  std::function<CScanEnginePtr(const CHadoopFSPtr&)> fnMake;
};

const std::vector<SEngineEntry>& Entries() {
  static const std::vector<SEngineEntry> s_lstEntries{
      {"findfirst", true, [](const CHadoopFSPtr&) { return std::make_shared<CFindFirstScanEngine>(); }},
      {"fast", true, [](const CHadoopFSPtr&) { return std::make_shared<CFastFindFirstScanEngine>(); }},
      {"traverse", true, [](const CHadoopFSPtr&) { return std::make_shared<CTraverseScanEngine>(); }},
      {"ondemand", true, [](const CHadoopFSPtr&) { return std::make_shared<COnDemandScanEngine>(); }},
      {"gpfs", true, [](const CHadoopFSPtr&) { return std::make_shared<CGpfsScanEngine>(); }},
      {"lustre", true, [](const CHadoopFSPtr&) { return std::make_shared<CLustreScanEngine>(); }},
      {"rawdevice", false, [](const CHadoopFSPtr&) { return std::make_shared<CRawDeviceScanEngine>(); }},
      {"hadoop", false, [](const CHadoopFSPtr& pFS) { return std::make_shared<CHadoopScanEngine>(pFS); }},
  };
  return s_lstEntries;
}

const SEngineEntry* Find(const std::string& strName) {
  for (const SEngineEntry& entry : Entries())
    if (strName == entry.szName) return &entry;
  return nullptr;
}

}  // namespace

const std::vector<std::string>& CEngineFactory::GetNames() {
  static const std::vector<std::string> s_lstNames = [] {
    std::vector<std::string> lstNames;
    for (const SEngineEntry& entry : Entries())
      if (entry.bListed) lstNames.emplace_back(entry.szName);
    return lstNames;
  }();
  return s_lstNames;
}

std::string CEngineFactory::GetNamesText() {
  std::string strText;
  for (const std::string& strName : GetNames()) strText.append(strText.empty() ? "" : ", ").append(strName);
  return strText;
}

CQiError CEngineFactory::ParseList(const std::string& strList, std::vector<std::string>& lstNames) {
  lstNames.clear();
  if (strList.empty())
    return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "the engine list is empty (engines: %s)",
                          GetNamesText().c_str());
  for (size_t start = 0;;) {
    const size_t end = strList.find(',', start);
    const std::string strName = strList.substr(start, end == std::string::npos ? std::string::npos : end - start);
    if (strName.empty())
      return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "the engine list '%s' has an empty name (engines: %s)",
                            FXString::EscapeControl(strList).c_str(), GetNamesText().c_str());
    if (Find(strName) == nullptr || !Find(strName)->bListed)
      return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "unknown engine '%s' (engines: %s)",
                            FXString::EscapeControl(strName).c_str(), GetNamesText().c_str());
    lstNames.push_back(strName);
    if (end == std::string::npos) break;
    start = end + 1;
  }
  return CQiError();
}

CQiError CEngineFactory::MakeEngines(const std::vector<std::string>& lstNames, const std::string& strInstance,
                                     CScanEngineList& lstEngines, const CHadoopFSPtr& pHadoopFS) {
  lstEngines.clear();
  for (const std::string& strName : lstNames) {
    const SEngineEntry* pEntry = Find(strName);
    if (pEntry == nullptr)
      return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "unknown engine '%s'",
                            FXString::EscapeControl(strName).c_str());
    if (strName == "hadoop" && !pHadoopFS)
      return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "the hadoop engine scans webhdfs:// content only");
    CScanEnginePtr pEngine = pEntry->fnMake(pHadoopFS);
    if (!strInstance.empty()) QI_RETURN_IF_ERROR(pEngine->SetInstance(strInstance));
    lstEngines.push_back(std::move(pEngine));
  }
  return CQiError();
}
