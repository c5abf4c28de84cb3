#include "Scan/Unix/UnixSecurityInfo.h"

#include <sys/stat.h>

#include "Platform/LogWriterInterface.h"
#include "Platform/ZrGrEnt.h"
#include "Platform/ZrPwEnt.h"
#include "Scan/FindFirstItem.h"

CUnixSecurityInfo::CUnixSecurityInfo(std::weak_ptr<CItem> pItem) : m_pItem(std::move(pItem)) {}

void CUnixSecurityInfo::Append(const char* szKey, const std::string& strValue) {
  std::string& strList = m_mapSecurityInfo[szKey];
  strList += strValue;
  strList += ',';
}

void CUnixSecurityInfo::AddClass(const std::string& strName, const std::string& strId, bool bRead,
                                 bool bWrite, bool bExecute) {
  if (bRead) {
    Append("AllowListUsername", strName);
    Append("ReadAccessUserName", strName);
    Append("AllowListSID", strId);
    Append("ReadAccessSID", strId);
  }
  if (bWrite) {
    Append("AllowModifyUsername", strName);
    Append("AllowWriteUsername", strName);
    Append("AllowDeleteUsername", strName);
    Append("AllowModifySID", strId);
    Append("AllowWriteSID", strId);
    Append("AllowDeleteSID", strId);
  }
  if (bExecute) {
    Append("AllowExecuteUsername", strName);
    Append("AllowExecuteSID", strId);
  }
  if (bRead && bWrite && bExecute) {
    Append("AllowFullControlUsername", strName);
    Append("AllowFullControlSID", strId);
  }
}

CQiError CUnixSecurityInfo::GetSecurityInfo(bool bCollectOwner, bool bCollectPermissions) {
  CItemPtr pItem = m_pItem.lock();
  if (!pItem || (!bCollectOwner && !bCollectPermissions)) return CQiError();
  const CFindFirstItem* pFindFirst = dynamic_cast<const CFindFirstItem*>(pItem.get());
  if (pFindFirst == nullptr) return CQiError();

  const struct stat& st = pFindFirst->GetFindFirstRawData();
  m_strOwnerSid = std::to_string(st.st_uid);
  m_strOwnerName = ZrPwEnt::GetUserName(st.st_uid);
  if (m_strOwnerName.empty()) m_strOwnerName = kUnknownName;
  if (!bCollectPermissions) return CQiError();

  std::string strGroupName = ZrGrEnt::GetGroupName(st.st_gid);
  if (strGroupName.empty()) strGroupName = kUnknownName;
  const std::string strGroupId = std::to_string(st.st_gid);
  ZRLOG(7, "Item [%s], Owner name [%s], Owner id [%s], Group name [%s], Group id [%s]",
        pFindFirst->GetLocalFullyQualifiedItemName().c_str(), m_strOwnerName.c_str(),
        m_strOwnerSid.c_str(), strGroupName.c_str(), strGroupId.c_str());

  const mode_t mode = st.st_mode;
  AddClass(m_strOwnerName, m_strOwnerSid, (mode & S_IRUSR) != 0, (mode & S_IWUSR) != 0,
           (mode & S_IXUSR) != 0);
  AddClass(strGroupName, strGroupId, (mode & S_IRGRP) != 0, (mode & S_IWGRP) != 0,
           (mode & S_IXGRP) != 0);
  return CQiError();
}
