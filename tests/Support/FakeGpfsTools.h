// Fake GPFS command-line tools for tests: small shell scripts written into a binary folder (the
// engine's "sGpfsBin") that print recorded output in the layout of the real tools and exit with
// the code under test. Each tool records how it was called in files beside it:
//   mmapplypolicy.args  the last call's arguments, each ended by a NUL byte
//   mmapplypolicy.runs  one line per run
//   mmapplypolicy.pid   the pid of the running tool, mmapplypolicy.child that of its child
//   mmfsctl.calls       one line per call, its arguments
//   mmfsctl.pid         the pid of a suspend that hangs
// pstree prints the line the cleanup pipeline of the engine expects for the pid it is given.
#pragma once

#include <sys/stat.h>

#include <string>

#include "Support/FileText.h"

struct SFakeGpfs {
  std::string strPolicyStdout{};        // what mmapplypolicy prints on stdout
  std::string strPolicyStderr{};        // and on stderr
  int iPolicyExit = 0;
  std::string strPolicyBody{};          // shell run after printing, before exiting
  std::string strState = "active";      // node state shown by mmgetstate
  bool bQuorum = true;
  std::string strSuspendWrite = "exit 0";  // shell run for "mmfsctl DEV suspend-write"
  bool bUsageHasSuspendWrite = true;    // whether mmfsctl's usage text offers suspend-write
  bool bWithPolicyTool = true;          // false: no mmapplypolicy in the folder
};

inline void WriteTool(const std::string& strBin, const std::string& strName, const std::string& strBody) {
  const std::string strPath = strBin + "/" + strName;
  WriteFileText(strPath, "#!/bin/sh\n" + strBody);
  chmod(strPath.c_str(), 0755);
}

inline void WriteFakeGpfsTools(const std::string& strBin, const SFakeGpfs& fake) {
  mkdir(strBin.c_str(), 0755);
  WriteFileText(strBin + "/policy.stdout", fake.strPolicyStdout);
  WriteFileText(strBin + "/policy.stderr", fake.strPolicyStderr);
  const std::string strDir = "D='" + strBin + "'\n";
  if (fake.bWithPolicyTool)
    WriteTool(strBin, "mmapplypolicy",
              strDir + "printf '%s\\0' \"$@\" > \"$D/mmapplypolicy.args\"\necho run >> \"$D/mmapplypolicy.runs\"\n"
                       "echo $$ > \"$D/mmapplypolicy.pid\"\ncat \"$D/policy.stdout\"\ncat \"$D/policy.stderr\" >&2\n" +
                  fake.strPolicyBody + "\nexit " + std::to_string(fake.iPolicyExit) + "\n");
  WriteTool(strBin, "mmgetstate",
            "cat <<'EOF'\n\n Node number  Node name        GPFS state\n"
            "------------------------------------------\n       1      gpfsnode1        " +
                fake.strState +
                "\n\nSummary information\n---------------------\n"
                "Number of nodes defined in the cluster:            1\n"
                "Number of quorum nodes active in the cluster:      1\n" +
                (fake.bQuorum ? "Quorum = 1, Quorum achieved\n" : "Quorum = 1, Quorum not achieved\n") + "EOF\n");
  WriteTool(strBin, "mmfsctl",
            strDir + "echo \"$*\" >> \"$D/mmfsctl.calls\"\ncase \"$2\" in\n  suspend-write) echo $$ > \"$D/mmfsctl.pid\"; " +
                fake.strSuspendWrite +
                " ;;\n  suspend|resume) exit 0 ;;\nesac\necho 'Usage: mmfsctl Device {" +
                (fake.bUsageHasSuspendWrite ? "suspend | suspend-write" : "suspend") +
                " | resume}' >&2\nexit 1\n");
  WriteTool(strBin, "pstree", "echo \"sh,$4 /bin/sh job/GpfsMmApplyPolicy.sh\"\n");
}
