#include "Scan/BasicScanner.h"

#include "Platform/FXErrorUtil.h"

CBasicScanner::CBasicScanner(int64_t llScanId, const std::string& strInstance, CScannerCallbackPtr pCallback)
    : m_pPrivate(std::make_shared<CBasicScannerPrivate>(llScanId, strInstance, std::move(pCallback))) {}

// Every forwarded call adds this place to an error that comes back.
CQiError CBasicScanner::SetLogWriter(CLogWriterInterfacePtr pLogWriter) {
  QI_RETURN_IF_ERROR(m_pPrivate->SetLogWriter(std::move(pLogWriter)));
  return CQiError();
}

CQiError CBasicScanner::SetDiagnosticWriter(CLineWriterPtr pWriter) {
  QI_RETURN_IF_ERROR(m_pPrivate->SetDiagnosticWriter(std::move(pWriter)));
  return CQiError();
}

CQiError CBasicScanner::SetConfigurationBag(CBagPtr pBag) {
  QI_RETURN_IF_ERROR(m_pPrivate->SetConfigurationBag(std::move(pBag)));
  return CQiError();
}

CQiError CBasicScanner::SetContentMapper(ContentMapperAPIPtr pMapper) {
  QI_RETURN_IF_ERROR(m_pPrivate->SetContentMapper(std::move(pMapper)));
  return CQiError();
}

CQiError CBasicScanner::SetFollowMountPaths(bool bFollow) {
  QI_RETURN_IF_ERROR(m_pPrivate->SetFollowMountPaths(bFollow));
  return CQiError();
}

CQiError CBasicScanner::SetAutoExcludeMountPoints(bool bExclude) {
  QI_RETURN_IF_ERROR(m_pPrivate->SetAutoExcludeMountPoints(bExclude));
  return CQiError();
}

CQiError CBasicScanner::SetExcludedAttributes(uint32_t uExcludedAttributes) {
  QI_RETURN_IF_ERROR(m_pPrivate->SetExcludedAttributes(uExcludedAttributes));
  return CQiError();
}

CQiError CBasicScanner::AddContentItem(const std::string& strPath, const std::string& strSecondPath) {
  QI_RETURN_IF_ERROR(m_pPrivate->AddContentItem(strPath, strSecondPath));
  return CQiError();
}

CQiError CBasicScanner::AddSourceContentItem(const std::string& strPath) {
  QI_RETURN_IF_ERROR(m_pPrivate->AddSourceContentItem(strPath));
  return CQiError();
}

CQiError CBasicScanner::AddLocalContentItem(const std::string& strPath) {
  QI_RETURN_IF_ERROR(m_pPrivate->AddLocalContentItem(strPath));
  return CQiError();
}

CQiError CBasicScanner::AddScanContentExceptionItem(const std::string& strItem) {
  QI_RETURN_IF_ERROR(m_pPrivate->AddScanContentExceptionItem(strItem));
  return CQiError();
}

CQiError CBasicScanner::AddFilterItem(const std::string& strItem) {
  QI_RETURN_IF_ERROR(m_pPrivate->AddFilterItem(strItem));
  return CQiError();
}

CQiError CBasicScanner::AddFilterExceptionItem(const std::string& strItem) {
  QI_RETURN_IF_ERROR(m_pPrivate->AddFilterExceptionItem(strItem));
  return CQiError();
}

CQiError CBasicScanner::AddSystemFilterItem(const std::string& strItem) {
  QI_RETURN_IF_ERROR(m_pPrivate->AddSystemFilterItem(strItem));
  return CQiError();
}

CQiError CBasicScanner::AddSystemFilterExceptionItem(const std::string& strItem) {
  QI_RETURN_IF_ERROR(m_pPrivate->AddSystemFilterExceptionItem(strItem));
  return CQiError();
}

CQiError CBasicScanner::Initialize() {
  QI_RETURN_IF_ERROR(m_pPrivate->Initialize());
  return CQiError();
}

CQiError CBasicScanner::Start() {
  QI_RETURN_IF_ERROR(m_pPrivate->Start());
  return CQiError();
}

CQiError CBasicScanner::WaitForScanToComplete() {
  QI_RETURN_IF_ERROR(m_pPrivate->WaitForScanToComplete());
  return CQiError();
}

CQiError CBasicScanner::DumpDiagnosticData() {
  QI_RETURN_IF_ERROR(m_pPrivate->DumpDiagnosticData());
  return CQiError();
}

CWorkUnitManagerPtr CBasicScanner::GetWorkUnitManager() { return m_pPrivate->GetWorkUnitManager(); }

bool CBasicScanner::IsItemValidContent(const std::string& strPath) { return m_pPrivate->IsItemValidContent(strPath); }
