// CScanEngine: the common base of every scan engine.
//
// A scanner (or a facade work thread) builds an engine, calls its setters, then hands it work:
// Process() for the whole physical-media work unit, ProcessVolumeWorkUnit() for one volume, or
// ProcessWorkUnit() for one work unit. The base refuses all three with Win32 50 (not supported),
// which tells a scanner to try the next engine.
//
// The base implements the three ways an item leaves an engine: ScanQueryCallback (selected),
// ScanQueryCallbackFiltered (rejected by a filter) and DeletedItemsCallback (vanished since the
// last job). Around each volume an engine opens the callback's output handler for the volume
// (OpenOutputHandler) and closes it again (CloseOutputHandler). OpenOutputHandler without a
// scanner callback fails with Win32 87 (there is nobody to ask); a callback that answers with no
// handler leaves the engine scanning with its items dropped ("Output handler is unconfigured").
// A handler still open when the engine is destroyed is released without Complete() and logged
// ("OutputHandler was not properly closed").
//
// The instance name starts as ZRPI_Focus::getFocus() at construction. The file-scan debug flag
// ("FileScanDebugEnabled" in the configuration bag) adds one level-0 line per reported item,
// written before the abort test.
//
// Ownership: the engine shares the physical-media unit, arbiter, callback, bag and the open
// output handler. Threads: one scanner thread drives an engine; its traversal workers call the
// three item paths concurrently (serialising OnItem is the output handler's business, or a
// subclass's, see CFastFindFirstScanEngine). The base takes no lock.
#pragma once

#include <memory>
#include <string>

#include "Platform/Bag.h"
#include "Platform/QiError.h"
#include "Scan/Item.h"
#include "Scan/OutputHandler.h"
#include "Scan/PhysicalMediaWorkUnit.h"
#include "Scan/ScannerCallback.h"
#include "Scan/VolumeWorkUnit.h"
#include "Scan/WorkUnit.h"

class CScanArbiter;
using CScanArbiterPtr = std::shared_ptr<CScanArbiter>;

class CScanEngine {
 public:
  CScanEngine();
  virtual ~CScanEngine();
  CScanEngine(const CScanEngine&) = delete;
  CScanEngine& operator=(const CScanEngine&) = delete;

  virtual CQiError SetInstance(const std::string& strInstance);
  virtual CQiError SetPhysicalMediaWorkUnit(CPhysicalMediaWorkUnitPtr pUnit);
  virtual CQiError SetExcludedAttributes(unsigned int uExcludedAttributes);
  virtual CQiError SetScannerCallback(CScannerCallbackPtr pCallback);
  virtual CQiError SetScanArbiter(CScanArbiterPtr pArbiter);
  virtual CQiError SetScannerConfigurationBag(CBagPtr pBag);
  virtual CQiError ProcessWorkUnit(CWorkUnitPtr pWorkUnit);
  virtual CQiError Process();
  virtual std::string getDescription();
  virtual CQiError ScanQueryCallback(CItemPtr pItem);
  virtual CQiError ScanQueryCallbackFiltered(CItemPtr pItem);
  virtual CQiError ProcessVolumeWorkUnit(CVolumeWorkUnitPtr pVolumeUnit);
  virtual CQiError OpenOutputHandler(const std::string& strName);
  virtual CQiError CloseOutputHandler();
  virtual bool DeletedItemsCallback(CItemPtr pItem);

  CScannerCallbackPtr GetScannerCallback() const { return m_pScannerCallback; }
  const std::string& GetInstance() const { return m_strInstance; }
  CPhysicalMediaWorkUnitPtr GetPhysicalMediaWorkUnit() const { return m_pPhysicalMediaWorkUnit; }
  unsigned int GetExcludedAttributes() const { return m_uExcludedAttributes; }
  CScanArbiterPtr GetScanArbiter() const { return m_pScanArbiter; }
  CBagPtr GetScannerConfigurationBag() const { return m_pConfigurationBag; }
  COutputHandlerPtr GetOutputHandler() const { return m_pOutputHandler; }
  bool IsFileScanDebugEnabled() const { return m_bFileScanDebugEnabled; }

 private:
  // The path of a selected (or, with bFiltered, a filter-rejected) item to the output handler.
  CQiError DeliverItem(CItemPtr pItem, bool bFiltered);

 protected:
  // The loops that every engine runs around its ProcessWorkUnit. ProcessVolumesOfMedium runs
  // ProcessVolumeWorkUnit over each volume of the physical medium: an abort (995) ends the walk,
  // any other failure is logged at level -1 and the next volume follows. The format gets the
  // physical-media id when the medium has no volumes.
  CQiError ProcessVolumesOfMedium(
      const char* szNoVolumesFormat =
          "No volume work units assigned to this physical media work unit; nothing to do, "
          "PhysicalMediaId=%s");
  // Runs ProcessWorkUnit over each unit of the volume that is not yet successfully processed,
  // records the disposition under the engine tag and tells the callback of each completed scan
  // path; units and the volume are logged at iLogLevel. An abort ends the volume, any other
  // failure is logged at level -1 and the next unit follows.
  CQiError ProcessWorkUnitsOfVolume(const CVolumeWorkUnitPtr& pVolumeUnit,
                                    const char* szEngineTag, int iLogLevel = 2);
  // A surface's path under the source volume: its local-volume prefix replaced by the source
  // volume name (the source volume name put in front when there is no local volume name).
  static std::string GetSourceSurfacePath(const std::string& strSurface,
                                          const std::string& strLocalVolume,
                                          const std::string& strSourceVolume);

  std::string m_strInstance;
  CPhysicalMediaWorkUnitPtr m_pPhysicalMediaWorkUnit;
  unsigned int m_uExcludedAttributes = 0;
  CScanArbiterPtr m_pScanArbiter;
  CScannerCallbackPtr m_pScannerCallback;
  CBagPtr m_pConfigurationBag;
  COutputHandlerPtr m_pOutputHandler;
  bool m_bFileScanDebugEnabled = false;
};

using CScanEnginePtr = std::shared_ptr<CScanEngine>;
