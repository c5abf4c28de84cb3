// CSimulatedLustreAPI: a Lustre file system simulated over a real folder tree, for tests and
// for fsscan's test option: the engine's real code runs against it unchanged.
//
// - The tree is a real folder (the "mount"); every object's FID follows from its inode number:
//   [0x200000400 + (ino >> 32) : ino & 0xffffffff : 0x0], so hard links share a FID, as on
//   Lustre. GetPathFromFID finds every path of the inode below the mount (a walk: fine for
//   test trees).
// - MDTs: the names and hosts given; each keeps a changelog of records in the text format of
//   `lfs changelog` (index, type padded to five characters, time, date, flags, t=, ef=, u=,
//   nid=, p= and name, s= sp= and old name for renames) and its readers ("cl1", ...) with the
//   index each has cleared. ClearChangelog purges what every reader has cleared.
// - The mutators (Create, Mkdir, Link, ...) change the tree and append the record the MDT of
//   the object's top-level folder would write (one MDT per top-level folder, chosen by a hash
//   of its name), so that a test changes the file system exactly as a user would and the
//   changelog says so. RecordOn makes a chosen MDT log the changes that follow, as for remote
//   and striped folders, whose entries live on other MDTs than their parent. Records carry the
//   time of the change (UTC, strictly rising over all MDTs), so that the records of several MDTs
//   merge in the order the changes were made (unless SkewClock sets an MDT's clock off).
//   AppendRawRecord adds any text as a record (garbled lines, unknown types).
// - Faults: RefuseHost makes every operation on that MDT host fail as ssh does when the host
//   refuses the login; DropReader makes an MDT forget a reader, as after a long idle time.
// - State: with a state folder, the changelogs and readers are loaded from it at construction
//   and written back after every change, so that separate processes (fsscan runs) share one
//   simulated file system; files "<MDT>.changelog" (the records) and "<MDT>.readers" (first
//   line the MDT's last index, then "ID INDEX" per reader). Records a test appends to the
//   changelog file count: the last index is at least the last record's.
//
// Threads: every operation takes one lock.
#pragma once

#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "Scan/Unix/LustreAPI.h"

class CSimulatedLustreAPI : public LustreAPI {
 public:
  static constexpr const char* kFileSystem = "lustre";

  CSimulatedLustreAPI(std::string strMount, std::vector<SMdt> lstMdt, std::string strStateFolder = std::string());

  CQiError LoadFunctions() override;
  bool IsLustre(const std::string& strPath, std::string& strFileSystem, std::string& strMount) override;
  CQiError GetMDTList(const std::string& strMount, std::vector<SMdt>& lstMdt) override;
  CQiError RegisterChangelog(const SMdt& mdt, const std::string& strUser, std::string& strChangelogId) override;
  CQiError DeRegisterChangelog(const SMdt& mdt, const std::string& strUser, const std::string& strChangelogId) override;
  CQiError GetChangelogCurrentIndex(const SMdt& mdt, const std::string& strUser, int64_t& llIndex) override;
  CQiError GetStartAndEndChangelogRecordNumbers(const SMdt& mdt, const std::string& strUser,
                                                const std::string& strChangelogId, int64_t& llStart,
                                                int64_t& llEnd) override;
  CQiError GetChangelogs(const std::string& strMount, const std::string& strMDT, int64_t llStart, int64_t llEnd,
                         const std::string& strFile) override;
  CQiError ClearChangelog(const std::string& strMount, const std::string& strMDT, const std::string& strChangelogId,
                          int64_t llEnd) override;
  CQiError GetPathFromFID(const std::string& strMount, const CLustreFID& fid,
                          std::vector<std::string>& lstPaths) override;
  CQiError GetFIDFromPath(const std::string& strPath, CLustreFID& fid) override;

  // Changes of the tree (paths relative to the mount), each with its changelog record.
  CQiError Create(const std::string& strPath, const std::string& strContent = std::string());
  CQiError Mkdir(const std::string& strPath);
  CQiError Link(const std::string& strExisting, const std::string& strNew);
  CQiError Symlink(const std::string& strTarget, const std::string& strNew);
  CQiError Mknod(const std::string& strPath);  // a FIFO
  CQiError Unlink(const std::string& strPath);
  CQiError Rmdir(const std::string& strPath);
  CQiError Rename(const std::string& strOld, const std::string& strNew);
  CQiError Chmod(const std::string& strPath, mode_t mode);      // 14SATTR
  CQiError Write(const std::string& strPath, const std::string& strContent);  // 11CLOSE
  CQiError Touch(const std::string& strPath);                   // 19ATIME (reads)
  // The MDT that logs the changes that follow; empty: the MDT of the top-level folder.
  void RecordOn(const std::string& strMDT) { std::lock_guard<std::mutex> lock(m_mutex); m_strRecordOn = strMDT; }
  // The MDT's clock runs off by this much from now on (its host's clock differs).
  void SkewClock(const std::string& strMDT, int64_t llNanoseconds) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_mapSkew[strMDT] = llNanoseconds;
  }
  // Appends a record line after "INDEX " on the MDT; the index is the MDT's next one.
  void AppendRawRecord(const std::string& strMDT, const std::string& strTail);

  void RefuseHost(const std::string& strHost) { std::lock_guard<std::mutex> lock(m_mutex); m_setRefused.insert(strHost); }
  void DropReader(const std::string& strMDT, const std::string& strChangelogId);
  std::string FidOf(const std::string& strPath);  // relative to the mount; empty when gone
  int64_t GetLastIndex(const std::string& strMDT);

 private:
  struct SChangelog {
    int64_t llLastIndex = 0;
    std::map<int64_t, std::string> mapRecords;      // index -> line without index and '\n'
    std::map<std::string, int64_t> mapReaders;      // reader id -> index cleared
    int iNextReader = 1;
  };
  CQiError CheckHost(const SMdt& mdt) const;
  SChangelog* Find(const std::string& strMDT);
  std::string Absolute(const std::string& strRelative) const;
  // The MDT that records changes below the relative path's top-level folder.
  std::string MdtOf(const std::string& strRelative) const;
  // Appends "TYPE TIME DATE FLAGS t=[..] ef=0xf u=0:0 nid=0@lo[ p=[..] NAME...]".
  void Record(const std::string& strRelative, int iType, const char* szName, const std::string& strTarget,
              const std::string& strTail);
  std::string ParentFid(const std::string& strRelative);
  void Load();
  void Save(const std::string& strMDT);

  std::string m_strMount;
  std::vector<SMdt> m_lstMdt;
  std::string m_strStateFolder;
  std::mutex m_mutex;
  std::map<std::string, SChangelog> m_mapChangelogs;
  std::set<std::string> m_setRefused;
  std::string m_strRecordOn;
  int64_t m_llLastTime = 0;                  // of the last record, nanoseconds since 1970
  std::map<std::string, int64_t> m_mapSkew;  // MDT -> clock skew, nanoseconds
};
