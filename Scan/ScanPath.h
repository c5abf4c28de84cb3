// CScanPath: one content path of a work unit, in its local and source forms.
//
// The local scan path is the path through which this machine reads the content (a snapshot or
// proxy mount, or the path itself); the source scan path is the path under which the content
// is reported (the path on the protected host). Either may be a wildcard item (docs/filters.md);
// its scan prefix is then the pattern's fixed leading folders (CFilterTerm::GetFilterPrefix),
// otherwise the prefix is the whole path. Engines start their walk at the prefix and the work
// unit decides, by the prefix, which filter items concern it.
//
// The context is the caller's object given with the content (it may carry a bag of per-content
// settings); the scan path shares it and may be empty.
//
// Ownership: a scan path is held by its work unit through CScanPathPtr. It is filled by the
// work unit manager on the caller's thread and only read afterwards, by any number of threads.
#pragma once

#include <memory>
#include <string>

#include "Platform/FVBase.h"

class CScanPath {
 public:
  CScanPath(const std::string& strLocalScanPath, const std::string& strSourceScanPath,
            FVBasePtr pContext = FVBasePtr());

  // Store the path and compute its prefix. A wildcard item that does not parse keeps the whole
  // path as its prefix (the manager refuses such content before it gets here).
  void SetLocalScanPath(const std::string& strPath);
  void SetSourceScanPath(const std::string& strPath);
  void SetContext(FVBasePtr pContext) { m_pContext = std::move(pContext); }

  const std::string& GetLocalScanPath() const { return m_strLocalScanPath; }
  const std::string& GetLocalScanPrefix() const { return m_strLocalScanPrefix; }
  const std::string& GetSourceScanPrefix() const { return m_strSourceScanPrefix; }
  const std::string& GetSourceScanPath() const { return m_strSourceScanPath; }
  const FVBasePtr& GetContext() const { return m_pContext; }

  // The scan prefix of a path: the filter prefix of a wildcard item, else the path itself.
  static std::string ScanPrefixOf(const std::string& strPath);

 private:
  std::string m_strLocalScanPath;
  std::string m_strLocalScanPrefix;
  std::string m_strSourceScanPrefix;
  std::string m_strSourceScanPath;
  FVBasePtr m_pContext;
};

using CScanPathPtr = std::shared_ptr<CScanPath>;
