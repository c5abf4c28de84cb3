// CLustreRecursiveEnumerateFiles: the full walk of the Lustre engine (parallel folder
// traversal with CLustreRecursivePathEnumerator, which lists each folder with the FIDs of its
// entries asked in batches). Every folder, file and link met is added to the scan database as
// a ZrScanDBLustreRecord keyed by its FID (the one the listing attached to the item; the
// content roots, listed by nobody, ask LustreAPI::GetFIDFromPath), files
// with more than one link also to the hard-link table; then the entries that the work unit's
// selection keeps go to the engine's ScanQueryCallback. Every folder is walked, kept or not, so
// that the database holds the whole tree below the content (changelog records name parents by
// FID, whatever the filters say). An entry whose FID or record cannot be had is logged
// ("Error in Adding Folder %s" / "Error in Adding File %s due to %s") and reported as a scan
// failure, so that the next job scans it again.
//
// Threads: the listing hooks run on several workers at once; the store and the hard-link table
// take their own locks. The engine, store, API and table outlive the traversal.
#pragma once

#include <atomic>

#include "Scan/EnumerateFiles.h"
#include "Scan/ScanDB/ScanDbStore.h"
#include "Scan/Unix/LustreAPI.h"
#include "Scan/Unix/LustreHardlinkManager.h"

class CLustreRecursiveEnumerateFiles : public CEnumerateFiles {
 public:
  CLustreRecursiveEnumerateFiles(CScanEngine* pEngine, CScanDbStore& store, LustreAPI& api,
                                 CLustreHardlinkManager& hardlinks);

  CQiError OnFolder(const std::string& strInput, const std::string& strOutput, CItemPtr& pItem) override;
  CQiError OnFile(const std::string& strInput, const std::string& strOutput, CItemPtr& pItem) override;
  CQiError OnReparsePointFile(const std::string& strInput, const std::string& strOutput, CItemPtr& pItem) override;

  // Adds the record of one path (used for the content roots too), asking its FID.
  CQiError AddRecord(const std::string& strPath, const struct stat& st);
  // Adds the record of one path whose FID is known.
  CQiError AddRecord(const std::string& strPath, const struct stat& st, const LustreAPI::CLustreFID& fid);
  uint64_t GetAddedCount() const { return m_ullAdded; }

 private:
  CQiError AddItem(const std::string& strOutput, const CItemPtr& pItem);

  CScanEngine* m_pLustreEngine;
  CScanDbStore& m_store;
  LustreAPI& m_api;
  CLustreHardlinkManager& m_hardlinks;
  std::atomic<uint64_t> m_ullAdded{0};
};
