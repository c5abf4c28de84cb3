// CLustreChangelogApplier: applies changelog records to the Lustre engine's scan database, one
// record at a time (Apply, then Flush before each commit: the engine's merge of every MDT's
// records, CLustreChangelogMerger) or a whole file of one MDT (ProcessChangelogs).
//
// Each record names its objects by FID: the parent folder's path is looked up by the parent
// FID in the database (a small cache of recent parents saves most look-ups; it is emptied when
// a folder is renamed or removed) and joined with the record's name. Then, by change type:
//   1 file created / 7 hard link added: add the path's record (lstat now) with the target FID;
//   2 folder created (02MKDIR, and 05MKNOD on purpose): the same, logged as a folder;
//   3 file removed: remove the path's record; 4 folder removed: remove it with its subtree;
//   5 rename: move the record (and a folder's subtree) from source parent + old name to parent
//     + new name, dropping a target it replaced; moved in from outside the content, the
//     object is walked and added; moved out, it is removed;
//   6 modified: refresh the record of the target FID when the database has it (level 5 when not).
//     Modifications are gathered per file and applied after its namespace records, once per FID
//     and in FID order (the FID index is then read in order, and a file opened, written and
//     closed a thousand times is looked at once); the object's state is read from the file
//     system then, so it is the newest either way; a FID whose record an earlier record of the
//     same file already read from the tree (created, renamed) is not read again. Memory: one
//     entry per FID named in the file, bounded by the batch size;
//   0 nothing (00MARK, 09RNMTO, 19ATIME, 20MIGRT and types this engine does not know).
// A namespace record changes its parent folders too (entries, link count, modification and
// change time) although the changelog has no record of its own for that: the parents named by
// applied namespace records are refreshed with the modifications, so that a folder whose
// entries changed is reported and the database keeps its state.
// Records whose parent FID the database does not have are outside the content when the file
// system places the parent outside every content root or no longer knows it (level 5); a
// parent it places inside a content root means the database lost track: an error.
//
// Exactness: a line that is not a record, a record out of index order or outside the fetched
// range (checked by CLustreChangelogReader), a namespace record without parent and name, and any
// failed database operation make Apply and ProcessChangelogs fail (the latter once the file is
// read, the failures logged one by one with the engine's messages), so that the job turns into a
// full scan instead of leaving the database with a hole. A remove of a path the database does not have is logged and changes nothing (the
// end state is the same).
//
// Ownership: works on the store, API and hard-link table it is given (all outlive it).
// Threads: one thread.
#pragma once

#include <cstdint>
#include <cstdio>
#include <map>
#include <set>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "Platform/QiError.h"
#include "Scan/ScanDB/ScanDbStore.h"
#include "Scan/Unix/LustreAPI.h"
#include "Scan/Unix/LustreChangelogRecord.h"
#include "Scan/Unix/LustreHardlinkManager.h"

class CLustreChangelogApplier {
 public:
  struct SCounts {
    uint64_t ullRecords = 0;   // records read
    uint64_t ullApplied = 0;   // records that changed the database
    uint64_t ullIgnored = 0;   // records that change nothing or lie outside the content
    uint64_t ullFailed = 0;    // records that could not be applied
    int64_t llLastIndex = -1;  // index of the last record read
  };

  CLustreChangelogApplier(CScanDbStore& store, LustreAPI& api, std::string strMount,
                          std::vector<std::string> lstRoots, CLustreHardlinkManager* pHardlinks);

  // Applies the records of the file in order; their indexes must rise and lie in
  // [llFirst, llLast]. Flushes at the end.
  CQiError ProcessChangelogs(const std::string& strFile, int64_t llFirst, int64_t llLast, SCounts& counts);
  // Applies one record (its place in its MDT's order checked by the caller); modifications are
  // gathered until Flush. The failure is logged at level -1.
  CQiError Apply(const CLustreChangelogRecord& record, SCounts& counts);
  // Refreshes the records of the gathered modifications (counted) and of the parents named by
  // applied namespace records: before every commit.
  CQiError Flush(SCounts& counts);
  // Adds (or refreshes) the object at the path and, for a folder, everything below it (FIDs
  // from the API): objects moved in from outside the content, and previous scan failures.
  CQiError AddSubtree(const std::string& strPath);
  // Every rename applied inside the content is written to the file as one line
  // "Old:<path>\tNew:<path>\tFID:<fid>" (paths with control characters escaped, so that a name
  // cannot break the line); the file stays the caller's. Null: no list.
  void SetRenameList(FILE* pRenameList) { m_pRenameList = pRenameList; }

 private:
  enum class EWhere { kInside, kOutside };
  // Applies one parsed record. bApplied false when it changes nothing (or is gathered).
  CQiError ApplyRecord(const CLustreChangelogRecord& record, bool& bApplied);
  // Refreshes the record of the FID from the object at its recorded path; bFound false when the
  // database does not have the FID or the object is gone.
  CQiError RefreshByFid(const std::string& strFid, bool& bFound);
  // The path of a folder FID: from the database, else placed by the file system.
  CQiError ResolveParent(const std::string& strFid, std::string& strPath, EWhere& eWhere);
  bool IsInsideContent(const std::string& strPath) const;
  CQiError AddPath(const std::string& strPath, const std::string& strFid, bool bFolder);
  CQiError RemovePath(const std::string& strPath, bool bFolder);
  CQiError Rename(const CLustreChangelogRecord& record, bool& bApplied);
  void ForgetParents() { m_mapParents.clear(); }

  CScanDbStore& m_store;
  LustreAPI& m_api;
  std::string m_strMount;
  std::vector<std::string> m_lstRoots;
  CLustreHardlinkManager* m_pHardlinks;
  FILE* m_pRenameList = nullptr;
  std::unordered_map<std::string, std::string> m_mapParents;  // folder FID -> path
  std::map<std::string, uint64_t> m_mapModified;               // FID -> records naming it
  std::set<std::string> m_setParents;                          // parents of applied namespace records
  std::unordered_set<std::string> m_setFresh;                  // FIDs whose record was just read from the tree
};
