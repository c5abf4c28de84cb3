// CAnalyticsItemUnix: this platform's analytics interface. It carries the facts an engine sets
// about an item (deleted, stub, failed with an error code, skipped for archiving, its place in a
// collect file) and, once EnableSecurityInfoProcessing asked for them, the owner and permission
// summary that Process() derives from the item's lstat data through CUnixSecurityInfo.
//
//  - EnableSecurityInfoProcessing(owner, permissions): with neither flag, succeeds and changes
//    nothing. Otherwise keeps both flags and creates the security info: Win32 6 when the item is
//    gone, Win32 14 when it cannot be allocated.
//  - Process(): runs once; asks the security info (when there is one) to collect, and returns its
//    error, staying unprocessed, when that fails.
//  - GetOwnerName, GetOwnerSid, GetSecurityInfoMap: the security info's answers when there is
//    one, else the base class's empty defaults.
//
// Ownership: attach with AttachTo (or CItem::AddInterface at kInterfaceId); the item then owns
// the interface and destroys it with itself. The interface holds only a weak pointer to the
// item. Threads: one at a time, as its item.
#pragma once

#include <cstdint>
#include <memory>

#include "Platform/QiError.h"
#include "Scan/Item.h"
#include "Scan/Unix/AnalyticsItemInterface.h"
#include "Scan/Unix/UnixSecurityInfo.h"

class CAnalyticsItemUnix : public CAnalyticsItemInterface {
 public:
  explicit CAnalyticsItemUnix(const CItemPtr& pItem);
  ~CAnalyticsItemUnix() override;

  // Creates an interface for the item and attaches it at kInterfaceId. On success the item owns
  // it and *ppAttached (optional) points to it; on failure (the id is taken: Win32 85, no
  // memory: Win32 14 or 8, no item: Win32 87) nothing is attached and nothing leaks.
  static CQiError AttachTo(const CItemPtr& pItem, CAnalyticsItemUnix** ppAttached = nullptr);

  const std::string& GetOwnerName() override;
  const std::string& GetOwnerSid() override;
  const TSecurityInfoMap& GetSecurityInfoMap() override;
  bool IsItemDeleted() override;
  bool IsStub() override;
  // No application GUID on this platform: empty.
  const std::string& GetAppGUID() override;
  bool IfItemFailed() override;
  uint32_t GetErrorCode() override;
  bool IsSkippedForArchiving() override;
  int64_t GetCollectOffset() override;
  uint32_t GetCollectID() override;
  CQiError Process() override;
  CQiError EnableSecurityInfoProcessing(bool bCollectOwner, bool bCollectPermissions) override;

  void SetItemDeleted(bool bDeleted) { m_bDeleted = bDeleted; }
  void SetIsStub(bool bStub) { m_bStub = bStub; }
  void SetItemFailed(bool bFailed) { m_bFailed = bFailed; }
  void SetErrorCode(unsigned int uErrorCode) { m_uErrorCode = uErrorCode; }
  void SetSkippedForArchiving(bool bSkipped) { m_bSkippedForArchiving = bSkipped; }
  void SetCollectOffset(long long llOffset) { m_llCollectOffset = llOffset; }
  void SetCollectID(unsigned int uCollectId) { m_uCollectId = uCollectId; }

  // Empty until EnableSecurityInfoProcessing created it.
  const CUnixSecurityInfoPtr& GetSecurityInfo() const { return m_pSecurityInfo; }

 private:
  bool m_bDeleted = false;
  bool m_bStub = false;
  bool m_bFailed = false;
  uint32_t m_uErrorCode = 0;
  bool m_bSkippedForArchiving = false;
  int64_t m_llCollectOffset = 0;
  uint32_t m_uCollectId = 0;
  bool m_bCollectPermissions = false;
  bool m_bCollectOwner = false;
  bool m_bProcessed = false;
  std::weak_ptr<CItem> m_pWeakItem;
  CUnixSecurityInfoPtr m_pSecurityInfo;
};
