// LustreAPI: what the Lustre changelog engine asks of a Lustre file system, behind one seam.
//
// Two implementations: CLustreToolsAPI drives the file system's own tools (lfs, lctl, over ssh
// on the MDT hosts where the operation must run there; liblustreapi for path2fid and fid2path
// when it is installed), and CSimulatedLustreAPI serves a real
// folder tree with a FID map and a changelog in the tools' text format, for tests and for the
// fsscan test option. The engine takes the process-wide one (Current()) once per work unit.
//
// FIDs: CLustreFID holds sequence, object id and version; its text form is
// "[0x%llx:0x%x:0x%x]" (what lfs prints and what the scan database keeps).
//
// Changelogs: GetChangelogs writes the records of [llStart, llEnd] of one MDT into a file, one
// record per line as `lfs changelog` prints them (see CLustreChangelogRecord). Readers: every
// MDT of the file system gets its own changelog reader ("cl1", ...), registered by
// RegisterChangelog; GetStartAndEndChangelogRecordNumbers gives the first record still
// available to a reader (its cleared index + 1) and the MDT's current last index; a reader
// that the MDT no longer knows is Win32 1168. ClearChangelog tells the MDT that a reader is done
// with the records up to an index (they may then be purged).
//
// Errors: each operation returns a CQiError naming the MDT or path; a tool that cannot run or
// fails is Win32 1627 with its output; Win32 1168 for an unknown reader or FID.
//
// Threads: an implementation may be called from several engines at once.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/QiError.h"

// One changelog reader on one MDT, with the indexes noted for it.
struct sLustreChangelogInfo {
  std::string strMDT;          // "lustre-MDT0000"
  std::string strHost;         // the MDT's host name or address
  std::string strChangelogId;  // "cl1"
  int64_t llStartIndex = 0;
  int64_t llEndIndex = 0;
};

class LustreAPI;
using LustreAPIPtr = std::shared_ptr<LustreAPI>;

class LustreAPI {
 public:
  class CLustreFID {
   public:
    CLustreFID() = default;
    CLustreFID(uint64_t ullSeq, uint32_t uOid, uint32_t uVer) : m_ullSeq(ullSeq), m_uOid(uOid), m_uVer(uVer) {}
    // Parses "[0x200000401:0x1:0x0]" (brackets required, hex numbers with or without "0x").
    static bool FromText(std::string_view text, CLustreFID& fid);
    std::string ToString() const;
    bool IsZero() const { return m_ullSeq == 0 && m_uOid == 0 && m_uVer == 0; }
    bool operator==(const CLustreFID& other) const = default;
    uint64_t m_ullSeq = 0;
    uint32_t m_uOid = 0;
    uint32_t m_uVer = 0;
  };

  // An MDT of the file system and the host that serves it.
  struct SMdt {
    std::string strName;
    std::string strHost;
  };

  LustreAPI() = default;
  virtual ~LustreAPI() = default;
  LustreAPI(const LustreAPI&) = delete;
  LustreAPI& operator=(const LustreAPI&) = delete;

  // Makes the API usable (finds the tools or the simulated tree); failure makes the engine's
  // initialisation fail.
  virtual CQiError LoadFunctions() = 0;
  // True when the path lies on a Lustre file system; gives its name and mount point.
  virtual bool IsLustre(const std::string& strPath, std::string& strFileSystem, std::string& strMount) = 0;
  virtual CQiError GetMDTList(const std::string& strMount, std::vector<SMdt>& lstMdt) = 0;
  virtual CQiError RegisterChangelog(const SMdt& mdt, const std::string& strUser, std::string& strChangelogId) = 0;
  virtual CQiError DeRegisterChangelog(const SMdt& mdt, const std::string& strUser,
                                       const std::string& strChangelogId) = 0;
  virtual CQiError GetChangelogCurrentIndex(const SMdt& mdt, const std::string& strUser, int64_t& llIndex) = 0;
  virtual CQiError GetStartAndEndChangelogRecordNumbers(const SMdt& mdt, const std::string& strUser,
                                                        const std::string& strChangelogId, int64_t& llStart,
                                                        int64_t& llEnd) = 0;
  virtual CQiError GetChangelogs(const std::string& strMount, const std::string& strMDT, int64_t llStart,
                                 int64_t llEnd, const std::string& strFile) = 0;
  virtual CQiError ClearChangelog(const std::string& strMount, const std::string& strMDT,
                                  const std::string& strChangelogId, int64_t llEnd) = 0;
  // Every path of the FID (one per hard link), absolute.
  virtual CQiError GetPathFromFID(const std::string& strMount, const CLustreFID& fid,
                                  std::vector<std::string>& lstPaths) = 0;
  virtual CQiError GetFIDFromPath(const std::string& strPath, CLustreFID& fid) = 0;
  // The FIDs of many paths at once (the full walk asks for a folder's entries together).
  // lstFids and lstErrors come back with one slot per path, in order: a path whose FID could
  // not be had has its error in its slot (and a zero FID). The result is an error only when
  // nothing could be asked at all. This default asks GetFIDFromPath path by path.
  virtual CQiError GetFIDsFromPaths(const std::vector<std::string>& lstPaths, std::vector<CLustreFID>& lstFids,
                                    std::vector<CQiError>& lstErrors);

  // The process-wide API (the tools until a test installs another).
  static LustreAPIPtr Current();
  // Installs an API; an empty pointer restores the tools.
  static void SetCurrent(LustreAPIPtr pApi);
};
