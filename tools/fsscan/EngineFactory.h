// CEngineFactory: the scan engines that fsscan can put on the scan arbiter, by name.
//
//   findfirst  CFindFirstScanEngine      (one traversal worker)
//   fast       CFastFindFirstScanEngine  ("MaxWorkers" traversal workers per work unit)
//   traverse   CTraverseScanEngine       ("MaxWorkers" traversal workers per work unit)
//   ondemand   COnDemandScanEngine       (each scan path names a file listing the paths to scan)
//   gpfs       CGpfsScanEngine           (GPFS policy scan; refuses volumes that are not GPFS)
// and, chosen by fsscan itself (not valid in --engines, not listed):
//   rawdevice  CRawDeviceScanEngine      (device content; refuses every other work unit)
//   hadoop     CHadoopScanEngine         (Hadoop content, on the CHadoopFS handle given)
//
// ParseList turns the text of --engines into the checked list of names; MakeEngines builds a new
// engine object for every name on every call, since each scanner thread of the arbiter needs
// engines of its own.
//
// Threads: stateless; every function may be called from any thread.
#pragma once

#include <string>
#include <vector>

#include "Platform/HadoopFS.h"
#include "Platform/QiError.h"
#include "Scan/ScannerCallback.h"

class CEngineFactory {
 public:
  // The names a user may give, in the order of the help text.
  static const std::vector<std::string>& GetNames();
  // The valid names as "findfirst, fast, traverse, ondemand".
  static std::string GetNamesText();

  // Splits a comma-separated list into names, in order. An empty list, an empty name or an
  // unknown name fails with Win32 87 and a message naming the offending entry.
  static CQiError ParseList(const std::string& strList, std::vector<std::string>& lstNames);

  // New engines for the names, in order, each given the instance name (when not empty). The
  // hadoop engine needs the handle (Win32 87 without one).
  static CQiError MakeEngines(const std::vector<std::string>& lstNames, const std::string& strInstance,
                              CScanEngineList& lstEngines, const CHadoopFSPtr& pHadoopFS = CHadoopFSPtr());
};
