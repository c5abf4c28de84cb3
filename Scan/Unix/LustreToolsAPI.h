// CLustreToolsAPI: LustreAPI over the file system's own command-line tools, found on PATH, and
// over the Lustre user-space library where that is installed.
//
// The library: LoadFunctions opens the first of the library files that loads ("liblustreapi.so.1",
// then "liblustreapi.so"; tests name their own through the constructor) and takes
// llapi_path2fid and llapi_fid2path from it. GetFIDFromPath, GetFIDsFromPaths and GetPathFromFID
// then call those in this process instead of running lfs. Without the library, or for a symbol
// it lacks, that operation keeps running lfs (logged at level 1). The changelog operations
// always use the tools, so lfs, lctl and ssh must be on PATH in either case.
//
// Command lines (every path, MDT name, reader id, user and host quoted with ShellQuote; an
// ordinary name gives exactly this text):
//   on this node:      lfs mdts MOUNT
//                      lctl get_param -n mdc.MDT-mdc-*.mds_conn_uuid      (the MDT's host)
//                      lfs changelog MDT START END          (standard output into the file)
//                      lfs changelog_clear MDT ID END
//                      lfs fid2path MOUNT FID
//                      lfs path2fid PATH
//                      lfs path2fid PATH1 PATH2 ...         (GetFIDsFromPaths, per batch)
//   on the MDT host:   ssh -o BatchMode=yes USER@HOST 'lctl --device MDT changelog_register'
//                      ssh -o BatchMode=yes USER@HOST 'lctl --device MDT changelog_deregister ID'
//                      ssh -o BatchMode=yes USER@HOST 'lctl get_param mdd.MDT.changelog_users'
// The remote command is quoted twice: each argument for the remote shell, then the whole for
// the local one. BatchMode makes a host that wants a password fail at once (exit 255) instead
// of waiting for one.
//
// Output parsed as the tools print it:
//   lfs mdts:        "MDTS:" then "0: lustre-MDT0000_UUID ACTIVE" (name = UUID less "_UUID")
//   register:        "lustre-MDT0000: Registered changelog userid 'cl1'"
//   changelog_users: "mdd.lustre-MDT0000.changelog_users=" (the value may follow on the same
//                    line), "current index: 8", "ID    index (idle seconds)" (older versions
//                    without the idle column), then "cl1   0 (3)" per reader
//   fid2path:        one path per link, absolute or relative to the mount (both are seen)
//   path2fid:        "[0x200000401:0x1:0x0]"; with several paths one "PATH: [FID]" line per
//                    path that resolves, in the order given; a path that does not resolve
//                    has a message on standard error instead, and the exit code is non-zero.
//                    A batch's lines are matched to its paths in order by their exact
//                    "PATH: [" prefix and a whole FID ending the line (names may hold blanks,
//                    colons and ": ["); a path left without a matching line, and a path holding
//                    a newline (never batched), gets its own `lfs path2fid PATH`, which gives its
//                    FID or its own error.
// A tool that cannot start, exits non-zero or prints nothing usable is Win32 1627 with the
// command and its output; "No such file or directory" from fid2path is Win32 1168. Commands
// time out after kCommandTimeoutMs.
//
// IsLustre: statfs magic 0x0BD00BD0; the file system name and mount point from the mount table
// (source "NID:/fsname", type "lustre").
//
// Threads: LoadFunctions may be called from several engines at once (it loads once); every
// other operation is safe from any thread. The library stays loaded until the object goes.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Scan/Unix/LustreAPI.h"

class CLustreToolsAPI : public LustreAPI {
 public:
  // The FID as the library's functions take it (the layout of its struct lu_fid).
  struct lu_fid {
    uint64_t f_seq;
    uint32_t f_oid;
    uint32_t f_ver;
  };
  static constexpr uint64_t kLustreMagic = 0x0BD00BD0;
  static constexpr uint32_t kCommandTimeoutMs = 600000;
  // One `lfs path2fid` batch: at most this many paths and this many bytes of command line (the
  // shell takes the whole line as one argument, which the kernel caps at 128 KiB).
  static constexpr size_t kPath2FidBatchPaths = 256;
  static constexpr size_t kPath2FidBatchBytes = 64 * 1024;
  // Links of one FID read from llapi_fid2path at most.
  static constexpr int kMaxLinks = 65536;

  using Path2FidFunction = int (*)(const char* path, struct lu_fid* fid);
  using Fid2PathFunction = int (*)(const char* device, const char* fidstr, char* path, int pathlen,
                                   long long* recno, int* linkno);

  // The library files LoadFunctions tries, in order (names for the system loader or paths).
  explicit CLustreToolsAPI(std::vector<std::string> lstLibraries = {"liblustreapi.so.1", "liblustreapi.so"});
  ~CLustreToolsAPI() override;

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
  CQiError GetFIDsFromPaths(const std::vector<std::string>& lstPaths, std::vector<CLustreFID>& lstFids,
                            std::vector<CQiError>& lstErrors) override;

  // True when the library's function is in use (after LoadFunctions).
  bool HasLibraryPath2Fid() const { return m_pPath2Fid.load(std::memory_order_acquire) != nullptr; }
  bool HasLibraryFid2Path() const { return m_pFid2Path.load(std::memory_order_acquire) != nullptr; }

  // The command line that runs strRemote (already quoted for a shell) on the host as the user.
  static std::string RemoteCommand(const std::string& strUser, const std::string& strHost, const std::string& strRemote);
  // Parses `lctl get_param mdd.MDT.changelog_users` output: the current index and, when
  // strChangelogId is not empty, that reader's cleared index (Win32 1168 when it is not listed).
  static CQiError ParseChangelogUsers(const std::string& strOutput, const std::string& strChangelogId,
                                      int64_t& llCurrent, int64_t& llCleared);

 private:
  // Runs the command; its standard output into strOutput (or the file when strOutFile is set).
  // With pExitCode, a non-zero exit is not an error: the code comes back there.
  CQiError Run(const std::string& strCommand, std::string& strOutput, const std::string& strOutFile = std::string(),
               int* pExitCode = nullptr);
  CQiError ChangelogUsers(const SMdt& mdt, const std::string& strUser, std::string& strOutput);
  // One `lfs path2fid` for the paths [uFirst, uEnd); the paths its output does not answer
  // get a call of their own.
  void Path2FidBatch(const std::vector<std::string>& lstPaths, size_t uFirst, size_t uEnd,
                     std::vector<CLustreFID>& lstFids, std::vector<CQiError>& lstErrors);

  std::vector<std::string> m_lstLibraries;
  std::mutex m_mutexLoad;
  bool m_bLoadTried = false;
  std::unique_ptr<void, int (*)(void*)> m_pLibrary;
  std::atomic<Path2FidFunction> m_pPath2Fid{nullptr};
  std::atomic<Fid2PathFunction> m_pFid2Path{nullptr};
};
