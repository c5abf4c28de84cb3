// CGpfsPolicy: the texts that the GPFS engine hands to the GPFS tools and the files it reads
// back from them: the policy file, the script line that runs mmapplypolicy, the cluster-state
// command, the collect file made from mmapplypolicy's output, and the check of its errors.
//
// Paths and names in command lines are quoted with ShellQuote: the scan path sits between
// double quotes with $ ` \ " escaped, every other path is a single word (left bare when
// ordinary), so an ordinary path gives exactly the plain text.
//
// Stateless; safe from any thread.
#pragma once

#include <cstdint>
#include <string>

#include "Platform/QiError.h"

class CGpfsPolicy {
 public:
  // What the policy lists and shows.
  struct SOptions {
    bool bHardLinks = false;
    bool bDiskCleanup = false;
    bool bTrueUp = false;
    bool bUseMtime = false;
    bool bUseCtime = false;
    bool bSkipOffline = false;
  };

  // The policy file's text; EINVAL when neither time is selected (no text).
  static CQiError BuildPolicyText(const SOptions& options, std::string& strText);
  // The script's command line; the scan path gets a trailing "/" when it has none.
  static std::string BuildScriptLine(const std::string& strBinDir, const std::string& strScanPath,
                                     const std::string& strPolicyFile, uint64_t ullReferenceTime,
                                     const std::string& strStderrFile, const std::string& strWorkDir,
                                     const std::string& strStdoutFile);
  // The pipeline that prints the node state and the quorum state, each followed by ':'.
  static std::string ClusterStateCommand(const std::string& strBinDir);

  // Writes the records of mmapplypolicy's output (strInput) to strOutput, one per line: a record
  // whose path holds newlines spans several output lines and is joined with "%ZRnewLine%" in
  // their place; headers, progress and statistics lines are dropped. A record cut short (a new
  // record or the end of the output before its " SHOW(") is ended where it stops, so that the
  // enumerator rejects it instead of joining it to the next one.
  // Errors: errno "Failed to open %s. errno %d" (input), "Failed to open %s errno %d" (output),
  // a failed read or write.
  static CQiError PreProcessOutput(const std::string& strInput, const std::string& strOutput);

  // Reads mmapplypolicy's error output: every line starting "[E]" (but "[E] Summary of errors")
  // must report ENOENT (strerror's text). strFatalLine gets the first that does not (empty when
  // none). Errors: errno "Failed to open %s. errno %d".
  static CQiError FindFatalError(const std::string& strStderrFile, std::string& strFatalLine);
};
