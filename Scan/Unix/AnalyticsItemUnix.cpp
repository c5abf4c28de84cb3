#include "Scan/Unix/AnalyticsItemUnix.h"

#include <new>

#include "Platform/FXErrorUtil.h"

CAnalyticsItemUnix::CAnalyticsItemUnix(const CItemPtr& pItem)
    : CAnalyticsItemInterface(pItem.get()), m_pWeakItem(pItem) {}

CAnalyticsItemUnix::~CAnalyticsItemUnix() = default;

CQiError CAnalyticsItemUnix::AttachTo(const CItemPtr& pItem, CAnalyticsItemUnix** ppAttached) {
  if (ppAttached != nullptr) *ppAttached = nullptr;
  if (!pItem)
    return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "No item to attach analytics to");
  std::unique_ptr<CAnalyticsItemUnix> pNew(new (std::nothrow) CAnalyticsItemUnix(pItem));
  if (!pNew)
    return QI_ERROR_WIN32(QiErrorCode::OutOfMemory, "Cannot allocate the analytics interface");
  QI_RETURN_IF_ERROR(pItem->AddInterface(kInterfaceId, pNew.get()));
  CAnalyticsItemUnix* pAttached = pNew.release();  // the item owns it now
  if (ppAttached != nullptr) *ppAttached = pAttached;
  return CQiError();
}

const std::string& CAnalyticsItemUnix::GetOwnerName() {
  return m_pSecurityInfo ? m_pSecurityInfo->GetOwnerName()
                         : CAnalyticsItemInterface::GetOwnerName();
}

const std::string& CAnalyticsItemUnix::GetOwnerSid() {
  return m_pSecurityInfo ? m_pSecurityInfo->GetOwnerSid() : CAnalyticsItemInterface::GetOwnerSid();
}

const CAnalyticsItemInterface::TSecurityInfoMap& CAnalyticsItemUnix::GetSecurityInfoMap() {
  return m_pSecurityInfo ? m_pSecurityInfo->GetSecurityInfoMap()
                         : CAnalyticsItemInterface::GetSecurityInfoMap();
}

bool CAnalyticsItemUnix::IsItemDeleted() { return m_bDeleted; }

bool CAnalyticsItemUnix::IsStub() { return m_bStub; }

const std::string& CAnalyticsItemUnix::GetAppGUID() { return EmptyString(); }

bool CAnalyticsItemUnix::IfItemFailed() { return m_bFailed; }

uint32_t CAnalyticsItemUnix::GetErrorCode() { return m_uErrorCode; }

bool CAnalyticsItemUnix::IsSkippedForArchiving() { return m_bSkippedForArchiving; }

int64_t CAnalyticsItemUnix::GetCollectOffset() { return m_llCollectOffset; }

uint32_t CAnalyticsItemUnix::GetCollectID() { return m_uCollectId; }

CQiError CAnalyticsItemUnix::Process() {
  if (m_bProcessed) return CQiError();
  if (m_pSecurityInfo)
    QI_RETURN_IF_ERROR(m_pSecurityInfo->GetSecurityInfo(m_bCollectOwner, m_bCollectPermissions));
  m_bProcessed = true;
  return CQiError();
}

CQiError CAnalyticsItemUnix::EnableSecurityInfoProcessing(bool bCollectOwner,
                                                          bool bCollectPermissions) {
  if (!bCollectOwner && !bCollectPermissions) return CQiError();
  m_bCollectOwner = bCollectOwner;
  m_bCollectPermissions = bCollectPermissions;
  if (m_pWeakItem.expired())
    return QI_ERROR_WIN32(QiErrorCode::InvalidHandle,
                          "The item of the analytics interface no longer exists");
  try {
    m_pSecurityInfo = std::make_shared<CUnixSecurityInfo>(m_pWeakItem);
  } catch (const std::bad_alloc&) {
    return QI_ERROR_WIN32(QiErrorCode::OutOfMemory, "Cannot allocate the security information");
  }
  return CQiError();
}
