#include "Scan/ScannerCallback.h"

#include "Platform/FXErrorUtil.h"

CScannerCallback::CScannerCallback() = default;

// Members are released in reverse order: scanner options, post-processing options, bag.
CScannerCallback::~CScannerCallback() = default;

bool CScannerCallback::IsAborted() const { return m_bAborted.load(std::memory_order_relaxed); }

std::string CScannerCallback::AsString() const { return "CScannerCallback"; }

CQiError CScannerCallback::Abort() {
  m_bAborted.store(true, std::memory_order_relaxed);
  return CQiError();
}

std::string CScannerCallback::GetPersistFolderName() { return std::string(); }

CQiError CScannerCallback::GetOutputHandler(const std::string& /*strName*/,
                                            COutputHandlerPtr& pHandler) {
  pHandler.reset();
  return QI_ERROR_WIN32(QiErrorCode::NotSupported);
}

bool CScannerCallback::AreMaintenanceOperationsAllowed() { return false; }

CQiError CScannerCallback::LogVolumeScanComplete(const std::string& /*strFirst*/,
                                                 const std::string& /*strSecond*/,
                                                 const std::string& /*strThird*/) {
  return CQiError();
}

CQiError CScannerCallback::GetScanEngineList(CScanEngineList& lstEngines) {
  lstEngines.clear();
  return CQiError();
}

CQiError CScannerCallback::GetPostProcessingOptionsInstance(CPostProcessingOptionsPtr& pOptions) {
  pOptions.reset();
  return QI_ERROR_WIN32(QiErrorCode::NotSupported);
}

CQiError CScannerCallback::GetScannerOptionsInstance(CScannerOptionsPtr& pOptions) {
  pOptions.reset();
  return QI_ERROR_WIN32(QiErrorCode::NotSupported);
}

bool CScannerCallback::IsBackupFromRemoteVolumes() { return false; }

CQiError CScannerCallback::GetOutputResources(const std::string& /*strName*/,
                                              CItemConsumerPtr& /*pConsumer1*/,
                                              CItemConsumerPtr& /*pConsumer2*/,
                                              CItemEvaluatorPtr& /*pEvaluator*/,
                                              CItemConsumerPtr& /*pConsumer3*/) {
  return QI_ERROR_WIN32(QiErrorCode::NotSupported);
}

CQiError CScannerCallback::GetFlatCollectFile(CItemConsumerPtr& /*pConsumer*/,
                                              ECollectType /*eCollectType*/, int /*iValue*/,
                                              const std::string& /*strValue*/) {
  return QI_ERROR_WIN32(QiErrorCode::NotSupported);
}

CQiError CScannerCallback::GetScanFailureConsumer(CItemConsumerPtr& pConsumer) {
  pConsumer.reset();
  return QI_ERROR_WIN32(QiErrorCode::NotSupported);
}

CQiError CScannerCallback::ImpersonateUser() { return QI_ERROR_WIN32(QiErrorCode::NotSupported); }

CQiError CScannerCallback::OnScannerError(CScanEnginePtr /*pEngine*/, const CQiError& /*error*/,
                                          bool& bAbort, bool& /*bSkip*/, bool& bTryNext) {
  bAbort = false;
  bTryNext = true;
  return CQiError();
}

CQiError CScannerCallback::SetScannerConfigurationBag(CBagPtr pBag) {
  std::lock_guard<std::mutex> lock(m_mutexBag);
  m_pScannerConfigurationBag = std::move(pBag);
  return CQiError();
}

CBagPtr CScannerCallback::GetScannerConfigurationBag() const {
  std::lock_guard<std::mutex> lock(m_mutexBag);
  return m_pScannerConfigurationBag;
}

CQiError CScannerCallback::GetParameterAny(const std::string& strName, std::any& value,
                                           bool bRequired) {
  CBagPtr pBag = GetScannerConfigurationBag();
  if (!pBag) {
    if (!bRequired) return CQiError();
    return QI_ERROR_WIN32(QiErrorCode::InvalidData,
                          "No configuration bag for a required parameter, PropertyName=[%s]",
                          strName.c_str());
  }
  std::any read;
  CQiError error = pBag->ReadAny(strName, read);
  if (error.IsError()) {
    if (error.IsWin32(QiErrorCode::NotFound) && !bRequired) return CQiError();
    return QI_PUSH(error, "PropertyName=[%s]", strName.c_str());
  }
  value = std::move(read);
  return CQiError();
}

CQiError CScannerCallback::WrongTypeError(const std::string& strName) {
  const std::bad_any_cast typeError;
  return QI_ERROR_WIN32(QiErrorCode::InvalidData, "PropertyName=[%s], error=[%s]", strName.c_str(),
                        typeError.what());
}
