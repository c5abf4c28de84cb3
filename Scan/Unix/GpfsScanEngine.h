// CGpfsScanEngine: the incremental scan of a GPFS volume by the file system's policy engine.
//
// For each work unit (or each of its surfaces) the engine
//   1. checks that the volume is GPFS (statfs magic 0x47504653, its mount entry's device), that
//      "mmapplypolicy" is in the GPFS binary folder ("sGpfsBin") and that the cluster is up
//      ("mmgetstate -s", which must give "active:active:");
//   2. suspends and resumes writes on the device ("mmfsctl DEV suspend-write|suspend", "mmfsctl
//      DEV resume"), so that every node's buffered data is on disk;
//   3. writes a policy file and a one-line script into the job results folder ("JR:subclient")
//      and runs the script: `mmapplypolicy "PATH/" -L 2 -P POLICY -I test -M RefTime=T 2>ERR -s
//      WORK > OUT`, retried up to "nGpfsScanNumRetry" (default 3) times; exit code 2 whose "[E]"
//      lines all report ENOENT counts as success;
//   4. turns the output into the collect file (records joined across the lines of paths that
//      hold newlines, everything else dropped), sorts it with BatchSort and replays it through
//      a CGpfsEnumerateFiles traversal (one worker) with a CGpfsPathEnumerator, delivering the
//      kept items to the output handler opened for the volume.
// Failures of GPFS (cluster state, suspension, policy run, output) give Win32 1627: the caller
// falls back to the default scan, after the script-failure event 0x11000077. With
// "nGpfsFailOnScanError" they give 995 instead, "FailJobSet" is written into the configuration
// bag and the scan-failure event 0x11000079 is sent: the job fails. A device mounted from a
// remote cluster whose writes cannot be suspended raises event 0x1100009A. A volume that is not
// GPFS gives EINVAL "Not a Gpfs volume" (the arbiter offers the unit to the next engine). An
// abort of the job kills the running command's whole process tree and gives 995.
//
// Command lines: every path and device name put into a command is quoted (ShellQuote) so that
// no name can run a command or break the line; an ordinary path gives the plain text above.
//
// Kernel facts, the agent's temporary folder and the waiting times come from CGpfsPlatform
// (a seam tests replace). Settings are read once in the constructor (Initialize) from the
// agent's settings, section "FileSystemAgent"; "nSkipGpfsOfflineFiles" on each policy run.
//
// Ownership: as CScanEngine; the platform is shared. Threads: one scanner thread drives an
// engine; the traversal runs on one worker beneath it. Disposition tag "GPFS".
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "Platform/ZrProcess.h"
#include "Scan/ScanEngine.h"
#include "Scan/Unix/GpfsPlatform.h"

class CGpfsScanEngine : public CScanEngine {
 public:
  static constexpr const char* kEngineTag = "GPFS";
  static constexpr const char* kDefaultBinDir = "/usr/lpp/mmfs/bin/";
  static constexpr uint64_t kDefaultSuspendTimeoutSec = 120;
  static constexpr uint64_t kDefaultScanAttempts = 3;
  static constexpr uint32_t kEventRemoteDevice = 0x1100009A;
  static constexpr uint32_t kEventScanFailure = 0x11000079;
  static constexpr uint32_t kEventScriptFailure = 0x11000077;
  static constexpr const char* kDoneHookFile = "/tmp/gpfsscandone.hook";

  CGpfsScanEngine();
  ~CGpfsScanEngine() override;

  CQiError ProcessWorkUnit(CWorkUnitPtr pWorkUnit) override;
  CQiError Process() override;
  std::string getDescription() override;
  CQiError ProcessVolumeWorkUnit(CVolumeWorkUnitPtr pVolumeUnit) override;
  virtual CQiError ProcessWorkUnit2(CWorkUnitPtr pWorkUnit);


 private:
  CQiError Initialize();
  CQiError IsGpfs(const std::string& strPath, std::string& strDevice, uint64_t& ullDevice);
  CQiError IsGpfsClusterUp();
  CQiError GpfsFlushIoOnAllNodes(const std::string& strDevice);
  CQiError GpfsSuspend(const std::string& strDevice);
  CQiError GpfsSuspendInternal(const std::string& strDevice, const char* szMode);
  bool ShouldRetrySuspend();
  CQiError GpfsResume(const std::string& strDevice);
  CQiError GetErrorCode(uint32_t uCode, const char* szFormat, ...) const QI_PRINTF_FORMAT(3, 4);
  uint32_t GetErrorCodeValue(uint32_t uCode) const;
  CQiError ProcessScanPath(const std::string& strScanPath, const std::string& strJobResults,
                           uint64_t ullReferenceTime, std::string& strCollectFile,
                           const std::string& strId);
  CQiError RunPolicyScan(const std::string& strScriptFile, const std::string& strStderrFile);
  // Checks, joins and sorts the policy output into the collect file.
  CQiError FinishPolicyScan(const std::string& strScanPath, const std::string& strStdoutFile,
                            const std::string& strCollectFile);
  CQiError GenerateGpfsScripts(const std::string& strScanPath, const std::string& strPolicyFile,
                               const std::string& strScriptFile, const std::string& strCollectFile,
                               uint64_t ullReferenceTime);
  CQiError ValidateGpfsScanErrors(const std::string& strStderrFile);
  CQiError SortCollectFile(const std::string& strCollectFile);
  void GpfsCleanup(pid_t pid);
  void SendPendingEventOnGpfsScanFailure();
  void SendPendingEventOnGpfsScriptFailure();
  void SetFailJobSet();
  // Runs one command to its end, abort-aware, within uTimeoutSec (0: no limit); the captured
  // standard output and error go to strOutput. Fails when it cannot start or is aborted.
  CQiError RunCommand(const std::string& strCommand, std::string& strOutput, int& iExitCode);
  // Sleeps, waking early on an abort; false when aborted.
  bool SleepUnlessAborted(uint32_t uMs) const;
  bool IsJobAborted() const;
  template <typename T>
  void ReadParameter(const char* szName, T& value) const;
  // Traverses one scan path's collect file.
  CQiError TraverseCollect(const CWorkUnitPtr& pWorkUnit, const std::string& strLocalPath,
                           const std::string& strSourcePath, const std::string& strCollectFile,
                           bool bHardLinks, bool bDiskCleanup, bool bTrueUp, bool bTopLevel);

  // Settings, in this order.
  std::string m_strGpfsBinDir;
  std::string m_strWorkDir;
  uint64_t m_ullSuspendTimeout;
  bool m_bFailOnScanError;
  uint64_t m_ullScanAttempts;
  bool m_bDisableStderrParsing;
  bool m_bInitialized = false;

  // Per work unit.
  CGpfsPlatformPtr m_pPlatform;
  uint64_t m_ullDevice = 0;
  uint64_t m_ullReferenceTime = 0;
};

using CGpfsScanEnginePtr = std::shared_ptr<CGpfsScanEngine>;
