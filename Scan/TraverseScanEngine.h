// CTraverseScanEngine: the engine that drives the second-generation folder traversal
// (CTraverseFolder2). It walks the physical medium's volume work units, sets up one traversal per
// surface (or one for the whole volume when the unit holds volume-wildcard scan paths),
// configures it from the scanner's bag (ConfigureFromBag) and runs it. Items never pass through
// the engine: the traversals deliver them to the callback's output handler themselves, so the
// item path of the engine refuses to be used (OpenOutputHandler/CloseOutputHandler: 1359,
// ScanQueryCallback: 50). Its disposition tag is "TR". A failed traversal of any surface fails
// the whole work unit.
//
// The volume's output handler is opened once per work unit, before its first surface, handed to
// every traversal of the unit and completed once after the last, also when a traversal fails or
// is aborted, so the handler sees all surfaces of the volume between one Initialize and one
// Complete.
//
// One scanner thread drives the engine; the traversal's workers run beneath it.
#pragma once

#include <string>

#include "Scan/ScanEngine.h"
#include "Scan/TraverseFolder2.h"

class CTraverseScanEngine : public CScanEngine {
 public:
  static constexpr const char* kEngineTag = "TR";

  // Scanner-bag keys read by ConfigureFromBag ("MaxWorkers" also from the work unit's bag).
  static constexpr const char* kKeyAbortEvent = "AbortEvent:Scanner";
  static constexpr const char* kKeySystemProtectedFilesFilterBuiltIn =
      "SystemProtectedFilesFilter:BuiltIn";
  static constexpr const char* kKeyMaxWorkers = "MaxWorkers";
  static constexpr const char* kKeyEnhancedSymbolicLinkIdentification =
      "EnhancedSymbolicLinkIdentification";
  static constexpr const char* kKeyFollowDFSReparsePoints = "FollowDFSReparsePoints";
  static constexpr const char* kKeyCrossOSNFSBackup = "CrossOSNFSBackup";

  CTraverseScanEngine();
  ~CTraverseScanEngine() override;

  CQiError ProcessWorkUnit(CWorkUnitPtr pWorkUnit) override;
  CQiError Process() override;
  std::string getDescription() override;
  CQiError ScanQueryCallback(CItemPtr pItem) override;
  CQiError ProcessVolumeWorkUnit(CVolumeWorkUnitPtr pVolumeUnit) override;
  CQiError OpenOutputHandler(const std::string& strName) override;
  CQiError CloseOutputHandler() override;

  // Applies the scanner bag's settings (and the work unit's "MaxWorkers") to a traversal; a key
  // that cannot be read leaves the traversal's own default.
  void ConfigureFromBag(CWorkUnitPtr pWorkUnit, CTraverseFolder2& traversal);

 private:
  // Traverses the work unit's surfaces (or its whole volume), delivering to pHandler.
  CQiError TraverseWorkUnit(const CWorkUnitPtr& pWorkUnit, const COutputHandlerPtr& pHandler);
  // Queues one content root, configures the traversal and runs it.
  CQiError TraverseContent(const CWorkUnitPtr& pWorkUnit, const COutputHandlerPtr& pHandler,
                           const std::string& strLocalPath, const std::string& strSourcePath);
};

using CTraverseScanEnginePtr = std::shared_ptr<CTraverseScanEngine>;
