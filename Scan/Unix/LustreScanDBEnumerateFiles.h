// CLustreScanDBEnumerateFiles: the incremental traversal of the Lustre engine over its scan
// database (CLustreScanDBPathEnumerator): every new or changed entry that the work unit's
// selection keeps goes to the engine's ScanQueryCallback; an unchanged folder (marked by the
// enumerator) is walked without being reported.
//
// Threads: the engine runs it with one worker; the engine must outlive it.
#pragma once

#include "Scan/EnumerateFiles.h"

class CLustreScanDBEnumerateFiles : public CEnumerateFiles {
 public:
  using CEnumerateFiles::CEnumerateFiles;

  CQiError OnFolder(const std::string& strInput, const std::string& strOutput, CItemPtr& pItem) override;
};
