// Shared by the Lustre suites: a simulated Lustre over a temporary tree (two MDTs), a job
// folder and callback, running the engine's full and incremental jobs with the post-operations
// between them, and the comparison of the scan database with a fresh walk of the tree.
#pragma once

#include <sys/stat.h>

#include <algorithm>
#include <memory>
#include <mutex>
#include <ostream>
#include <string>
#include <vector>

#include "Platform/FXPath.h"
#include "Platform/ZRPlatformInfo.h"
#include "Scan/ScanDB/ScanDbFiles.h"
#include "Scan/ScanDB/ScanDbStore.h"
#include "Scan/Unix/LustreScanEngine.h"
#include "Scan/Unix/SimulatedLustreAPI.h"
#include "Support/TempTree.h"
#include "TraversalTestSupport.h"

namespace LustreTestSupport {

// One object: path relative to the file system's root, FID and the state the enumeration
// compares (mode, owner, size, links, inode, modification and change times).
struct SEntry {
  std::string strPath, strFid, strState;
  bool operator==(const SEntry& other) const = default;
  bool operator<(const SEntry& other) const { return strPath < other.strPath; }
};

inline void PrintTo(const SEntry& entry, std::ostream* pStream) {
  *pStream << entry.strPath << " " << entry.strFid << " " << entry.strState;
}

inline std::string StateOf(const struct stat& st) {
  return std::to_string(st.st_mode) + " " + std::to_string(st.st_uid) + ":" + std::to_string(st.st_gid) + " s" +
         std::to_string(st.st_size) + " n" + std::to_string(st.st_nlink) + " i" + std::to_string(st.st_ino) + " m" +
         std::to_string(st.st_mtim.tv_sec) + "." + std::to_string(st.st_mtim.tv_nsec) + " c" +
         std::to_string(st.st_ctim.tv_sec) + "." + std::to_string(st.st_ctim.tv_nsec);
}

inline std::string Relative(const std::string& strRoot, const std::string& strPath) {
  return strPath.size() <= strRoot.size() ? std::string(".") : strPath.substr(strRoot.size() + 1);
}

inline void Walk(CSimulatedLustreAPI& api, const std::string& strRoot, const std::string& strPath,
                 std::vector<SEntry>& lstEntries) {
  struct stat st {};
  if (lstat(strPath.c_str(), &st) != 0) return;
  LustreAPI::CLustreFID fid;
  (void)api.GetFIDFromPath(strPath, fid);
  lstEntries.push_back({Relative(strRoot, strPath), fid.ToString(), StateOf(st)});
  if (!S_ISDIR(st.st_mode)) return;
  std::vector<std::string> lstNames;
  if (DIR* pDir = opendir(strPath.c_str())) {
    while (const dirent* pEntry = readdir(pDir))
      if (std::string(pEntry->d_name) != "." && std::string(pEntry->d_name) != "..") lstNames.push_back(pEntry->d_name);
    closedir(pDir);
  }
  for (const std::string& strName : lstNames) Walk(api, strRoot, FXPath::Append(strPath, strName), lstEntries);
}

// A fresh walk of the tree, sorted.
inline std::vector<SEntry> FreshWalk(CSimulatedLustreAPI& api, const std::string& strRoot) {
  std::vector<SEntry> lstEntries;
  Walk(api, strRoot, strRoot, lstEntries);
  std::sort(lstEntries.begin(), lstEntries.end());
  return lstEntries;
}

// Everything the store holds at and below the root, sorted.
inline std::vector<SEntry> StoreEntries(CScanDbStore& store, const std::string& strRoot) {
  std::vector<SEntry> lstEntries;
  CScanDbRecord root;
  if (store.Lookup(strRoot, root).IsSuccess())
    lstEntries.push_back({".", root.GetFileId(), StateOf(root.GetStat())});
  std::vector<std::string> lstFolders{strRoot};
  while (!lstFolders.empty()) {
    const std::string strFolder = lstFolders.back();
    lstFolders.pop_back();
    (void)store.ListFolder(strFolder, [&](const CScanDbRecord& record) {
      lstEntries.push_back({Relative(strRoot, record.GetPath()), record.GetFileId(), StateOf(record.GetStat())});
      if (record.IsFolder()) lstFolders.push_back(record.GetPath());
      return CQiError();
    });
  }
  std::sort(lstEntries.begin(), lstEntries.end());
  return lstEntries;
}

// Records the paths of delivered and of deleted items.
class CLustreHandler : public TraversalTestSupport::CRecordingHandler {
 public:
  CQiError OnDeletedItem(CItemPtr pItem) override {
    std::lock_guard<std::mutex> lock(m_mutexDeleted);
    m_lstDeleted.push_back(pItem->GetSourceFullyQualifiedItemName());
    return CQiError();
  }
  std::vector<std::string> Deleted() {
    std::lock_guard<std::mutex> lock(m_mutexDeleted);
    return m_lstDeleted;
  }

 private:
  std::mutex m_mutexDeleted;
  std::vector<std::string> m_lstDeleted;
};

class CLustreFixture {
 public:
  static inline const std::vector<LustreAPI::SMdt> kMdts{{"lustre-MDT0000", "mds0"}, {"lustre-MDT0001", "mds1"}};

  explicit CLustreFixture(std::vector<LustreAPI::SMdt> lstMdt = kMdts)
      : m_strRoot(m_tree.MakeDir("fs")), m_strJob(m_tree.MakeDir("job")),
        m_pApi(std::make_shared<CSimulatedLustreAPI>(m_strRoot, std::move(lstMdt))) {
    LustreAPI::SetCurrent(m_pApi);
    m_pCallback->Set("JR:subclient", m_strJob);
    m_pCallback->Set("ReferenceTime", 1000ULL);
    m_pCallback->Set("MaxWorkers", 2);
  }
  ~CLustreFixture() {
    LustreAPI::SetCurrent(nullptr);
    ZRPlatformInfo::Instance().LoadFromText("", "");
  }
  // The starting tree: files, folders, a hard-linked pair.
  void MakeTree() {
    m_tree.MakeFile("fs/a/f", "x");
    m_tree.MakeDir("fs/b");
    m_tree.MakeFile("fs/d/x", "1");
    m_tree.MakeFile("fs/d/y/z", "2");
    m_tree.MakeDir("fs/e");
    m_tree.MakeFile("fs/h1", "h");
    (void)link(m_tree.Path("fs/h1").c_str(), m_tree.Path("fs/h2").c_str());
    m_tree.MakeFile("fs/top.txt", "t");
  }
  // One job with a new engine and a new handler; bFull asks for a full backup.
  CQiError Run(bool bFull, const std::string& strSettings = "") {
    ZRPlatformInfo::Instance().LoadFromText("[FileSystemAgent]\n" + strSettings, "test");
    m_pHandler = std::make_shared<CLustreHandler>();
    m_pCallback->m_pHandler = m_pHandler;
    m_pCallback->Set("JO:BackupType", std::string(bFull ? "FULL" : "INCREMENTAL"));
    m_pEngine = std::make_shared<CLustreScanEngine>();
    (void)m_pEngine->SetScannerCallback(m_pCallback);
    (void)m_pEngine->SetScannerConfigurationBag(m_pCallback->GetScannerConfigurationBag());
    CWorkUnitPtr pUnit = TraversalTestSupport::MakeUnit({m_strContent.empty() ? m_strRoot : m_strContent}, m_strRoot);
    pUnit->SetLocalVolumeUniqueId("id1");
    return m_pEngine->ProcessWorkUnit(pUnit);
  }
  // The post-operations of a successful job; the next job's last successful job id.
  CQiError PostOps() {
    CQiError error = CLustreScanEngine::RunPostOperations(m_strJob, ++m_ullJobId);
    m_pCallback->Set("JO:LastSuccessfulJobId", m_ullJobId);
    return error;
  }
  CQiError RunAndPostOps(bool bFull) {
    CQiError error = Run(bFull);
    return error.IsError() ? error : PostOps();
  }
  std::string DbFolder(EScanDbKind eKind) const {
    return CScanDbFiles::GetKindFolder(m_strJob + "/" + CSimulatedLustreAPI::kFileSystem, eKind);
  }
  std::vector<SEntry> Stored(EScanDbKind eKind = EScanDbKind::kCurrent) const {
    CScanDbStore store;
    if (store.Open(DbFolder(eKind)).IsError()) return {};
    return StoreEntries(store, m_strContent.empty() ? m_strRoot : m_strContent);
  }
  std::vector<SEntry> Walked() { return FreshWalk(*m_pApi, m_strContent.empty() ? m_strRoot : m_strContent); }
  std::vector<std::string> Sorted(std::vector<std::string> lstPaths) const {
    for (std::string& strPath : lstPaths) strPath = Relative(m_strRoot, strPath);
    std::sort(lstPaths.begin(), lstPaths.end());
    return lstPaths;
  }
  std::vector<std::string> Delivered() const { return Sorted(m_pHandler->Paths()); }
  std::vector<std::string> DeletedItems() const { return Sorted(m_pHandler->Deleted()); }

  CTempTree m_tree;
  std::string m_strRoot, m_strJob;
  std::string m_strContent;  // the content, when not the whole file system
  std::shared_ptr<CSimulatedLustreAPI> m_pApi;
  std::shared_ptr<TraversalTestSupport::CTestCallback> m_pCallback =
      std::make_shared<TraversalTestSupport::CTestCallback>();
  std::shared_ptr<CLustreHandler> m_pHandler;
  CLustreScanEnginePtr m_pEngine;
  unsigned long long m_ullJobId = 0;
};

}  // namespace LustreTestSupport
