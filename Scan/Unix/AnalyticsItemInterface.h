// CAnalyticsItemInterface: the item interface (CItem::AddInterface, id kInterfaceId = 0) that
// carries what analytics consumers (file reports, data classification) want beside the plain
// item: its owner, a permission summary in the vocabulary of access-control lists
// (GetSecurityInfoMap: key -> comma-terminated list, for example "AllowListUsername" ->
// "alice,staff,"), and facts about the change.
//
// This base class answers neutral defaults: every string getter a reference to a function-local
// empty string, every flag false, every number 0, no additional information; Process and
// EnableSecurityInfoProcessing succeed and do nothing. CAnalyticsItemUnix is this platform's
// implementation. GetSecurityInfoMap2AsJsonString renders GetSecurityInfoMap() as one JSON
// object (CAnalyticsJson), and answers an empty string while the map is empty.
//
// Ownership and threads: owned by its item (see CItemInterface); used by one thread at a time,
// as its item is. The virtual functions are declared in the order of the interface's slots.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "Platform/QiError.h"
#include "Scan/ItemInterface.h"
#include "Scan/Unix/AnalyticsItemAddInfo.h"

class CItem;

class CAnalyticsItemInterface : public CItemInterface {
 public:
  // The id under which the interface is attached to an item.
  static constexpr int kInterfaceId = 0;
  using TSecurityInfoMap = std::map<std::string, std::string>;

  explicit CAnalyticsItemInterface(CItem* pItem);
  ~CAnalyticsItemInterface() override;

  // "CAnalyticsItemInterface".
  std::string AsString() const override;
  virtual const std::string& GetOwnerName();
  virtual const std::string& GetOwnerSid();
  virtual const TSecurityInfoMap& GetSecurityInfoMap();
  virtual std::string GetSecurityInfoMap2AsJsonString();
  virtual bool IsItemDeleted();
  virtual bool IsStub();
  virtual const std::string& GetAppGUID();
  virtual bool IfItemFailed();
  virtual uint32_t GetErrorCode();
  virtual bool IsSkippedForArchiving();
  virtual int64_t GetCollectOffset();
  virtual uint32_t GetCollectID();
  virtual CQiError Process();
  virtual CQiError EnableSecurityInfoProcessing(bool bCollectOwner, bool bCollectPermissions);
  virtual const std::string& GetFileLastAccessedByUser();
  virtual const std::string& GetFileLastModifiedByUser();
  virtual const std::string& GetLastAccessedBy();
  virtual const std::string& GetLastModifiedBy();
  virtual int64_t GetFileLastAccessedByTime();
  virtual int64_t GetFileLastModifiedByTime();
  virtual int64_t GetLastAccessedTime();
  virtual int64_t GetLastModifiedTime();
  virtual CAnalyticsItemAddInfoPtr GetAnalyticsItemAddInfo();
  virtual const std::string& GetSID();
  virtual int32_t GetOperation();
  virtual bool IsFolderSecurityMismatch() const;
  virtual bool IsCollectFolderSecurity() const;
  virtual void SetCollectParentFolderSecurity(bool bCollect);

  // The analytics interface attached to the item at kInterfaceId, or null.
  static CAnalyticsItemInterface* FromItem(const CItem& item);

 protected:
  static const std::string& EmptyString();
  static const TSecurityInfoMap& EmptyMap();
};
