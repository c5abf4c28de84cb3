// CLustreToolsAPI: LustreAPI over the file system's own command-line tools, found on PATH.
//
// Command lines (every path, MDT name, reader id, user and host quoted with ShellQuote; an
// ordinary name gives exactly this text):
//   on this node:      lfs mdts MOUNT
//                      lctl get_param -n mdc.MDT-mdc-*.mds_conn_uuid      (the MDT's host)
//                      lfs changelog MDT START END          (standard output into the file)
//                      lfs changelog_clear MDT ID END
//                      lfs fid2path MOUNT FID
//                      lfs path2fid PATH
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
//   path2fid:        "[0x200000401:0x1:0x0]"
// A tool that cannot start, exits non-zero or prints nothing usable is Win32 1627 with the
// command and its output; "No such file or directory" from fid2path is Win32 1168. Commands
// time out after kCommandTimeoutMs.
//
// IsLustre: statfs magic 0x0BD00BD0; the file system name and mount point from the mount table
// (source "NID:/fsname", type "lustre").
//
// Stateless; safe from any thread.
#pragma once

#include <string>
#include <vector>

#include "Scan/Unix/LustreAPI.h"

class CLustreToolsAPI : public LustreAPI {
 public:
  static constexpr uint64_t kLustreMagic = 0x0BD00BD0;
  static constexpr uint32_t kCommandTimeoutMs = 600000;

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

  // The command line that runs strRemote (already quoted for a shell) on the host as the user.
  static std::string RemoteCommand(const std::string& strUser, const std::string& strHost, const std::string& strRemote);
  // Parses `lctl get_param mdd.MDT.changelog_users` output: the current index and, when
  // strChangelogId is not empty, that reader's cleared index (Win32 1168 when it is not listed).
  static CQiError ParseChangelogUsers(const std::string& strOutput, const std::string& strChangelogId,
                                      int64_t& llCurrent, int64_t& llCleared);

 private:
  // Runs the command; its standard output into strOutput (or the file when strOutFile is set).
  CQiError Run(const std::string& strCommand, std::string& strOutput, const std::string& strOutFile = std::string());
  CQiError ChangelogUsers(const SMdt& mdt, const std::string& strUser, std::string& strOutput);
};
