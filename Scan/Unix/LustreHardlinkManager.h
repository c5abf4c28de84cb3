// CLustreHardlinkManager: the hard-link table of the Lustre engine: the FIDs of the files that
// have more than one link. A changelog names one link at a time, and a modification names only
// the FID, so after the changelogs are applied every path of each FID of the table is resolved
// again (LustreAPI::GetPathFromFID) and its database record refreshed (ProcessHardLinks).
//
// File ("%s_HardlinkFID", SaveData/LoadData): one FID per line in canonical text form, sorted.
// SaveData writes "<file>.tmp", flushes it and renames it over the file, so the table on disk is
// always a whole one. A missing file loads as an empty table; a line that is not a FID is Win32 13.
// A FID whose last extra link went away is dropped when ProcessHardLinks finds one path left.
//
// Threads: the full walk adds from its traversal workers (Add takes a lock); everything else is
// called by the engine's thread.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "Platform/QiError.h"
#include "Scan/ScanDB/ScanDbStore.h"
#include "Scan/Unix/LustreAPI.h"

class CLustreHardlinkManager {
 public:
  void Add(const std::string& strFid);
  void Clear();
  size_t GetCount() const;
  CQiError SaveData(const std::string& strFile) const;
  CQiError LoadData(const std::string& strFile);
  // Resolves every FID of the table to its paths and updates their records; paths outside the
  // content roots are left out. Errors of one FID are logged and returned after the others.
  CQiError ProcessHardLinks(CScanDbStore& store, LustreAPI& api, const std::string& strMount,
                            const std::vector<std::string>& lstRoots);

 private:
  mutable std::mutex m_mutex;
  std::set<std::string> m_setFids;
};

using CLustreHardlinkManagerPtr = std::shared_ptr<CLustreHardlinkManager>;
