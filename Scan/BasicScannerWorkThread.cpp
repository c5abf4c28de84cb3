#include "Scan/BasicScannerWorkThread.h"

#include <new>
#include <optional>

#include "Platform/FXErrorUtil.h"
#include "Platform/FXString.h"
#include "Platform/LogWriterInterfaceThreadWrapper.h"
#include "Platform/ZRDebugFunction.h"

CQiError CBasicScannerWorkThread::SetLogWriter(CLogWriterInterfacePtr pLogWriter) {
  m_pLogWriter = std::move(pLogWriter);
  return CQiError();
}

CQiError CBasicScannerWorkThread::InitializeObject(int64_t llScanId, const std::string& strInstance,
                                                   int iThreadIndex, CScannerCallbackPtr pCallback) {
  m_llScanId = llScanId;
  m_strInstance = strInstance;
  m_iThreadIndex = iThreadIndex;
  m_pCallback = std::move(pCallback);
  return CQiError();
}

CQiError CBasicScannerWorkThread::SetScannerConfigurationBag(CBagPtr pBag) {
  m_pConfigurationBag = std::move(pBag);
  return CQiError();
}

CQiError CBasicScannerWorkThread::SetPhysicalMediaWorkUnit(CPhysicalMediaWorkUnitPtr pUnit) {
  m_pPhysicalMediaWorkUnit = std::move(pUnit);
  return CQiError();
}

CQiError CBasicScannerWorkThread::InitializeThread() { return CQiError(); }

CQiError CBasicScannerWorkThread::Run() {
  // Everything this thread logs goes to the scan's writer, tagged with the thread's index.
  std::shared_ptr<CLogWriterInterfaceThreadWrapper> pWrapper;
  if (m_pLogWriter)
    pWrapper = m_pLogWriter->GetThreadWrapper(FXString::Format("WorkThread=%d", m_iThreadIndex));

  std::optional<ZRDebugFunction> trace;
  if (ZRLOG_ON(1)) trace.emplace(1, __PRETTY_FUNCTION__, __LINE__, "ThreadIndex=[%d]", m_iThreadIndex);

  CQiError error = InitializeThread();
  if (error.IsError()) return QI_PUSH(error, "InitializeThread failed");

  const std::string strMediaId =
      m_pPhysicalMediaWorkUnit ? m_pPhysicalMediaWorkUnit->GetPhysicalMediaId() : std::string();
  const bool bNetworkContent = strMediaId == CPhysicalMediaWorkUnit::kNetworkMediaId;
  ZRLOG(2, "PhysicalMediaId=[%s], NetworkContent=[%u]", strMediaId.c_str(), bNetworkContent ? 1u : 0u);

  if (m_fnEngineFactory)
    m_pScanEngine = m_fnEngineFactory();
  else
    m_pScanEngine.reset(new (std::nothrow) CFindFirstScanEngine());
  if (!m_pScanEngine) return QI_ERROR_WIN32(QiErrorCode::OutOfMemory, "Failed to allocate the scan engine");

  error = TryScanner();
  if (error.IsWin32(QiErrorCode::OperationAborted)) return CQiError();
  if (error.IsError()) ZRLOG(-1, "TryScanner(FindFirst) failed, error=%s", error.AsString().c_str());
  return CQiError();
}

CQiError CBasicScannerWorkThread::TryScanner() {
  if (!m_pScanEngine) return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "No scan engine");
  QI_RETURN_IF_ERROR(m_pScanEngine->SetInstance(m_strInstance));
  QI_RETURN_IF_ERROR(m_pScanEngine->SetPhysicalMediaWorkUnit(m_pPhysicalMediaWorkUnit));
  // The engine never sees the caller's excluded-attributes mask; the facade keeps it unused.
  QI_RETURN_IF_ERROR(m_pScanEngine->SetExcludedAttributes(0));
  QI_RETURN_IF_ERROR(m_pScanEngine->SetScannerCallback(m_pCallback));
  QI_RETURN_IF_ERROR(m_pScanEngine->SetScannerConfigurationBag(m_pConfigurationBag));

  CQiError error = m_pScanEngine->Process();
  if (error.IsWin32(QiErrorCode::OperationAborted)) {
    ZRLOG(1, "Operation was aborted");
    return QI_PUSH(error, "Operation was aborted");
  }
  if (error.IsError()) return QI_PUSH(error, "Process failed");
  return CQiError();
}
