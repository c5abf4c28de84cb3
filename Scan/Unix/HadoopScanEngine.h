// CHadoopScanEngine: the FindFirst scan engine ("Hadoop Scan Engine") with the directory
// listing of a Hadoop file system: every traversal it starts lists through a
// CHadoopPathEnumerator on the engine's CHadoopFS handle. All else (work units by surface,
// filters, missing content, dispositions with the tag "FF") is CFindFirstScanEngine's.
//
// The work unit manager puts Hadoop content (context bag "isHadoopScan") on the volume
// "quillon_hadoop_vol"; the caller's callback offers that unit to this engine. The engine
// shares the handle with its enumerators; one scanner thread drives it.
#pragma once

#include <memory>
#include <string>

#include "Platform/HadoopFS.h"
#include "Scan/FindFirstScanEngine.h"

class CHadoopScanEngine : public CFindFirstScanEngine {
 public:
  explicit CHadoopScanEngine(CHadoopFSPtr pFS);
  ~CHadoopScanEngine() override;

  std::string getDescription() override;
  CQiError GetPathEnumerator(CPathEnumeratorPtr& pEnumerator) override;

 private:
  CHadoopFSPtr m_pFS;
};

using CHadoopScanEnginePtr = std::shared_ptr<CHadoopScanEngine>;
