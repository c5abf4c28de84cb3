#include "Scan/Unix/AnalyticsItemInterface.h"

#include "Scan/Item.h"
#include "Scan/Unix/AnalyticsJson.h"

CAnalyticsItemInterface::CAnalyticsItemInterface(CItem* pItem) : CItemInterface(pItem) {}

CAnalyticsItemInterface::~CAnalyticsItemInterface() = default;

const std::string& CAnalyticsItemInterface::EmptyString() {
  static const std::string s_strEmpty;
  return s_strEmpty;
}

const CAnalyticsItemInterface::TSecurityInfoMap& CAnalyticsItemInterface::EmptyMap() {
  static const TSecurityInfoMap s_mapEmpty;
  return s_mapEmpty;
}

std::string CAnalyticsItemInterface::AsString() const { return "CAnalyticsItemInterface"; }

const std::string& CAnalyticsItemInterface::GetOwnerName() { return EmptyString(); }

const std::string& CAnalyticsItemInterface::GetOwnerSid() { return EmptyString(); }

const CAnalyticsItemInterface::TSecurityInfoMap& CAnalyticsItemInterface::GetSecurityInfoMap() {
  return EmptyMap();
}

std::string CAnalyticsItemInterface::GetSecurityInfoMap2AsJsonString() {
  const TSecurityInfoMap& mapInfo = GetSecurityInfoMap();
  if (mapInfo.empty()) return std::string();
  return CAnalyticsJson::ObjectFromMap(mapInfo);
}

bool CAnalyticsItemInterface::IsItemDeleted() { return false; }

bool CAnalyticsItemInterface::IsStub() { return false; }

const std::string& CAnalyticsItemInterface::GetAppGUID() { return EmptyString(); }

bool CAnalyticsItemInterface::IfItemFailed() { return false; }

uint32_t CAnalyticsItemInterface::GetErrorCode() { return 0; }

bool CAnalyticsItemInterface::IsSkippedForArchiving() { return false; }

int64_t CAnalyticsItemInterface::GetCollectOffset() { return 0; }

uint32_t CAnalyticsItemInterface::GetCollectID() { return 0; }

CQiError CAnalyticsItemInterface::Process() { return CQiError(); }

CQiError CAnalyticsItemInterface::EnableSecurityInfoProcessing(bool, bool) { return CQiError(); }

const std::string& CAnalyticsItemInterface::GetFileLastAccessedByUser() { return EmptyString(); }

const std::string& CAnalyticsItemInterface::GetFileLastModifiedByUser() { return EmptyString(); }

const std::string& CAnalyticsItemInterface::GetLastAccessedBy() { return EmptyString(); }

const std::string& CAnalyticsItemInterface::GetLastModifiedBy() { return EmptyString(); }

int64_t CAnalyticsItemInterface::GetFileLastAccessedByTime() { return 0; }

int64_t CAnalyticsItemInterface::GetFileLastModifiedByTime() { return 0; }

int64_t CAnalyticsItemInterface::GetLastAccessedTime() { return 0; }

int64_t CAnalyticsItemInterface::GetLastModifiedTime() { return 0; }

CAnalyticsItemAddInfoPtr CAnalyticsItemInterface::GetAnalyticsItemAddInfo() { return nullptr; }

const std::string& CAnalyticsItemInterface::GetSID() { return EmptyString(); }

int32_t CAnalyticsItemInterface::GetOperation() { return 0; }

bool CAnalyticsItemInterface::IsFolderSecurityMismatch() const { return false; }

bool CAnalyticsItemInterface::IsCollectFolderSecurity() const { return false; }

void CAnalyticsItemInterface::SetCollectParentFolderSecurity(bool) {}

CAnalyticsItemInterface* CAnalyticsItemInterface::FromItem(const CItem& item) {
  return dynamic_cast<CAnalyticsItemInterface*>(item.GetInterface(kInterfaceId));
}
