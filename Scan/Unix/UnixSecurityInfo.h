// CUnixSecurityInfo: the owner and the permission summary of one item, derived from its lstat
// data (CFindFirstItem::GetFindFirstRawData) for CAnalyticsItemUnix.
//
// GetSecurityInfo fills, once asked to collect anything:
//  - the owner id (st_uid in decimal) and owner name (ZrPwEnt; "UNKNOWN" when the system has no
//    such user);
//  - with permissions: the group name (ZrGrEnt; "UNKNOWN") and id, logged at level 7 as
//    "Item [%s], Owner name [%s], Owner id [%s], Group name [%s], Group id [%s]", and the summary
//    map. For the owner, then the group, each bit of that class appends "name," and "id," to:
//      read:    AllowListUsername, ReadAccessUserName / AllowListSID, ReadAccessSID
//      write:   AllowModifyUsername, AllowWriteUsername, AllowDeleteUsername /
//               AllowModifySID, AllowWriteSID, AllowDeleteSID
//      execute: AllowExecuteUsername / AllowExecuteSID
//      all three: AllowFullControlUsername / AllowFullControlSID
//    The bits of other users are not used. Mode 0750, owner alice (1000), group staff (50):
//    AllowListUsername = "alice,staff,", AllowFullControlSID = "1000,".
// An item that is gone or is not a find-first item leaves everything empty. Nothing here fails:
// a name that cannot be looked up is "UNKNOWN".
//
// Ownership: held by the analytics interface (CUnixSecurityInfoPtr); keeps a weak pointer to the
// item. Threads: one at a time, as its item.
#pragma once

#include <map>
#include <memory>
#include <string>

#include "Platform/QiError.h"

class CItem;
class CUnixSecurityInfo;
using CUnixSecurityInfoPtr = std::shared_ptr<CUnixSecurityInfo>;

class CUnixSecurityInfo {
 public:
  // The name given for an id that has no user or group entry.
  static constexpr const char* kUnknownName = "UNKNOWN";

  explicit CUnixSecurityInfo(std::weak_ptr<CItem> pItem);
  CUnixSecurityInfo(const CUnixSecurityInfo&) = delete;
  CUnixSecurityInfo& operator=(const CUnixSecurityInfo&) = delete;

  CQiError GetSecurityInfo(bool bCollectOwner, bool bCollectPermissions);

  const std::string& GetOwnerName() const { return m_strOwnerName; }
  // The owner id in decimal.
  const std::string& GetOwnerSid() const { return m_strOwnerSid; }
  const std::map<std::string, std::string>& GetSecurityInfoMap() const { return m_mapSecurityInfo; }

 private:
  // Appends one class's entries (name and id) for its read, write and execute bits.
  void AddClass(const std::string& strName, const std::string& strId, bool bRead, bool bWrite,
                bool bExecute);
  void Append(const char* szKey, const std::string& strValue);

  std::string m_strOwnerName;
  std::string m_strOwnerSid;
  std::map<std::string, std::string> m_mapSecurityInfo;
  std::weak_ptr<CItem> m_pItem;
};
