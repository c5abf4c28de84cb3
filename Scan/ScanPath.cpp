#include "Scan/ScanPath.h"

#include "Platform/FilterTerm.h"

CScanPath::CScanPath(const std::string& strLocalScanPath, const std::string& strSourceScanPath,
                     FVBasePtr pContext)
    : m_pContext(std::move(pContext)) {
  SetLocalScanPath(strLocalScanPath);
  SetSourceScanPath(strSourceScanPath);
}

std::string CScanPath::ScanPrefixOf(const std::string& strPath) {
  if (!CFilterTerm::IsWildcardItem(strPath)) return strPath;
  CFilterTerm term;
  if (term.LoadRaw(strPath).IsError()) return strPath;
  return term.GetFilterPrefix();
}

void CScanPath::SetLocalScanPath(const std::string& strPath) {
  m_strLocalScanPath = strPath;
  m_strLocalScanPrefix = ScanPrefixOf(strPath);
}

void CScanPath::SetSourceScanPath(const std::string& strPath) {
  m_strSourceScanPath = strPath;
  m_strSourceScanPrefix = ScanPrefixOf(strPath);
}
