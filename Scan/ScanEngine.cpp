#include "Scan/ScanEngine.h"

#include "Platform/FXErrorUtil.h"
#include "Platform/FXPath.h"
#include "Platform/FXString.h"
#include "Platform/LogWriterInterface.h"
#include "Platform/ZRPI_Focus.h"
#include "Scan/ScannerConfigurationBagId.h"

CScanEngine::CScanEngine() : m_strInstance(ZRPI_Focus::getFocus()) {}

CScanEngine::~CScanEngine() {
  // An engine that still holds a handler failed to close it; Complete() is deliberately not
  // called here (the volume's results would be committed as if the scan had ended well).
  if (m_pOutputHandler) {
    ZRLOG(-1, "OutputHandler was not properly closed");
    m_pOutputHandler.reset();
  }
}

CQiError CScanEngine::SetInstance(const std::string& strInstance) {
  m_strInstance = strInstance;
  return CQiError();
}

CQiError CScanEngine::SetPhysicalMediaWorkUnit(CPhysicalMediaWorkUnitPtr pUnit) {
  m_pPhysicalMediaWorkUnit = std::move(pUnit);
  return CQiError();
}

CQiError CScanEngine::SetExcludedAttributes(unsigned int uExcludedAttributes) {
  m_uExcludedAttributes = uExcludedAttributes;
  return CQiError();
}

CQiError CScanEngine::SetScannerCallback(CScannerCallbackPtr pCallback) {
  m_pScannerCallback = std::move(pCallback);
  return CQiError();
}

CQiError CScanEngine::SetScanArbiter(CScanArbiterPtr pArbiter) {
  m_pScanArbiter = std::move(pArbiter);
  return CQiError();
}

CQiError CScanEngine::SetScannerConfigurationBag(CBagPtr pBag) {
  m_pConfigurationBag = std::move(pBag);
  if (m_pConfigurationBag) {
    // Absent key or another type: the flag stays as it was.
    bool bDebug = m_bFileScanDebugEnabled;
    if (m_pConfigurationBag->Read(SXScannerConfigurationBagId::idFileScanDebugEnabled, bDebug)
            .IsSuccess()) {
      m_bFileScanDebugEnabled = bDebug;
    }
  }
  return CQiError();
}

CQiError CScanEngine::ProcessWorkUnit(CWorkUnitPtr /*pWorkUnit*/) {
  return QI_ERROR_WIN32(QiErrorCode::NotSupported, "%s does not process work units",
                        getDescription().c_str());
}

CQiError CScanEngine::Process() {
  return QI_ERROR_WIN32(QiErrorCode::NotSupported, "%s does not process physical media",
                        getDescription().c_str());
}

std::string CScanEngine::getDescription() { return "CScanEngine"; }

CQiError CScanEngine::ProcessVolumeWorkUnit(CVolumeWorkUnitPtr /*pVolumeUnit*/) {
  return QI_ERROR_WIN32(QiErrorCode::NotSupported, "%s does not process volume work units",
                        getDescription().c_str());
}

CQiError CScanEngine::ScanQueryCallback(CItemPtr pItem) {
  return DeliverItem(std::move(pItem), false);
}

CQiError CScanEngine::ScanQueryCallbackFiltered(CItemPtr pItem) {
  return DeliverItem(std::move(pItem), true);
}

CQiError CScanEngine::DeliverItem(CItemPtr pItem, bool bFiltered) {
  if (m_bFileScanDebugEnabled && pItem) {
    ZRLOG(0,
          bFiltered ? "Attributes [0x%08X] Filtered Source Path [%s] Filtered Local Path [%s]"
                    : "Attributes [0x%08X] Source Path [%s] Local Path [%s]",
          pItem->GetAttributes(),
          FXString::EscapeControl(pItem->GetSourceFullyQualifiedItemName()).c_str(),
          FXString::EscapeControl(pItem->GetLocalFullyQualifiedItemName()).c_str());
  }
  if (m_pScannerCallback && m_pScannerCallback->IsAborted())
    return QI_ERROR_WIN32(QiErrorCode::OperationAborted, "Operation aborted");

  // A raw pointer: the handler is not replaced while items flow, and copying the shared
  // pointer would make every traversal worker touch one reference count per item.
  COutputHandler* pHandler = m_pOutputHandler.get();
  if (pHandler == nullptr) return CQiError();

  CQiError error = bFiltered ? pHandler->OnItemFiltered(std::move(pItem))
                             : pHandler->OnItem(std::move(pItem));
  if (error.IsError()) {
    if (!error.IsWin32(QiErrorCode::NotSupported)) return QI_PUSH(error);
    // The handler does not take this item: skip it and go on.
    ZRLOG(7, "OnItem failed, continuing, error=%s", error.AsString().c_str());
  }
  return CQiError();
}

CQiError CScanEngine::OpenOutputHandler(const std::string& strName) {
  if (!m_pScannerCallback) {
    return QI_ERROR_WIN32(QiErrorCode::InvalidParameter,
                          "No scanner callback to ask for the output handler, Volume=%s",
                          strName.c_str());
  }
  QI_RETURN_IF_ERROR(m_pScannerCallback->GetOutputHandler(strName, m_pOutputHandler));
  if (!m_pOutputHandler) {
    // The engine still scans; its items are dropped.
    ZRLOG(0, "Output handler is unconfigured");
    return CQiError();
  }
  // On failure the handler stays stored, so that the engine's CloseOutputHandler reaches it.
  QI_RETURN_IF_ERROR(m_pOutputHandler->Initialize());
  return CQiError();
}

CQiError CScanEngine::CloseOutputHandler() {
  if (!m_pOutputHandler)
    return QI_ERROR_WIN32(QiErrorCode::NotFound, "No output handler is open");
  // A failed Complete keeps the handler, so a later call tries again.
  QI_RETURN_IF_ERROR(m_pOutputHandler->Complete());
  m_pOutputHandler.reset();
  return CQiError();
}

bool CScanEngine::DeletedItemsCallback(CItemPtr pItem) {
  if (m_pScannerCallback && m_pScannerCallback->IsAborted()) return false;
  COutputHandler* pHandler = m_pOutputHandler.get();
  if (pHandler == nullptr) return true;

  CQiError error = pHandler->OnDeletedItem(std::move(pItem));
  // A refusal (50) is routine and only worth a line at the most verbose level; any other
  // failure is always reported. Neither stops the enumeration.
  if (error.IsError() && (!error.IsWin32(QiErrorCode::NotSupported) || ZRLOG_ON(7)))
    ZRLOG(-1, "OnDeletedItems failed, error=%s", error.AsString().c_str());
  return true;
}

CQiError CScanEngine::ProcessVolumesOfMedium(const char* szNoVolumesFormat) {
  if (!m_pPhysicalMediaWorkUnit) {
    ZRLOG(-1, "No physical media work unit assigned; nothing to do");
    return CQiError();
  }
  if (m_pPhysicalMediaWorkUnit->GetVolumeWorkUnits().empty()) {
    CLogWriterInterface* pWriter = CLogWriterInterface::Current();
    if (pWriter != nullptr && pWriter->IsLevelOn(-1)) {
      std::string strId = FXString::EscapeControl(m_pPhysicalMediaWorkUnit->GetPhysicalMediaId());
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
      pWriter->Log(-1, __PRETTY_FUNCTION__, __LINE__, szNoVolumesFormat, strId.c_str());
#pragma GCC diagnostic pop
    }
    return CQiError();
  }
  if (ZRLOG_ON(2))
    ZRLOG(2, "%s", FXString::EscapeControl(m_pPhysicalMediaWorkUnit->AsString()).c_str());
  for (const CVolumeWorkUnitPtr& pVolume : m_pPhysicalMediaWorkUnit->GetVolumeWorkUnits()) {
    CQiError error = ProcessVolumeWorkUnit(pVolume);
    if (error.IsWin32(QiErrorCode::OperationAborted)) return QI_PUSH(error);
    if (error.IsError())
      ZRLOG(-1, "ProcessVolumeWorkUnit failed, error=%s", error.AsString().c_str());
  }
  return CQiError();
}

CQiError CScanEngine::ProcessWorkUnitsOfVolume(const CVolumeWorkUnitPtr& pVolumeUnit,
                                               const char* szEngineTag, int iLogLevel) {
  if (!pVolumeUnit) return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "No volume work unit");
  if (ZRLOG_ON(iLogLevel))
    ZRLOG(iLogLevel, "%s", FXString::EscapeControl(pVolumeUnit->AsString()).c_str());
  for (const CWorkUnitPtr& pWorkUnit : pVolumeUnit->GetWorkUnits()) {
    if (ZRLOG_ON(iLogLevel))
      ZRLOG(iLogLevel, "%s", FXString::EscapeControl(pWorkUnit->AsString()).c_str());
    if (pWorkUnit->IsSuccessfullyProcessed()) continue;
    CQiError error = ProcessWorkUnit(pWorkUnit);
    pWorkUnit->SetDisposition(szEngineTag, error.GetCode());
    if (error.IsSuccess()) {
      if (m_pScannerCallback) {
        for (const CScanPathPtr& pScanPath : pWorkUnit->GetScanPaths())
          (void)m_pScannerCallback->LogVolumeScanComplete(
              szEngineTag, pScanPath->GetSourceScanPath(), pWorkUnit->GetSourceVolumeName());
      }
      continue;
    }
    if (error.IsWin32(QiErrorCode::OperationAborted)) return QI_PUSH(error);
    ZRLOG(-1, "ProcessWorkUnit failed, error=%s", error.AsString().c_str());
  }
  return CQiError();
}

std::string CScanEngine::GetSourceSurfacePath(const std::string& strSurface,
                                              const std::string& strLocalVolume,
                                              const std::string& strSourceVolume) {
  if (strSourceVolume.empty()) return strSurface;
  if (strLocalVolume.empty()) return FXPath::Append(strSourceVolume, strSurface);
  if (!FXPath::IsAncestorOf(strLocalVolume, strSurface, true)) return strSurface;
  std::string strRest = FXPath::RemoveTrailingDelimiters(strSurface).substr(strLocalVolume.size());
  if (strRest.empty() || strRest == "/") return strSourceVolume;
  return FXPath::Append(strSourceVolume, strRest);
}
