#include "Scan/Item.h"

#include "Platform/FXErrorUtil.h"
#include "Platform/FXPath.h"

CItem::CItem(CBagPtr pWorkUnitBag)
    : m_pWorkUnitBag(std::move(pWorkUnitBag)) {}

CItem::CItem(const CItemPtr& pParent, CBagPtr pWorkUnitBag) : CItem(std::move(pWorkUnitBag)) {
  if (pParent && pParent->isNewInImage()) setNewInImage();
}

CItem::~CItem() = default;

CBagPtr CItem::GetItemBag() const {
  std::call_once(m_onceItemBag, [this] { m_pItemBag = std::make_shared<CBag>(); });
  return m_pItemBag;
}

const std::string& CItem::EmptyString() {
  static const std::string s_strEmpty;
  return s_strEmpty;
}

void CItem::SplitPath(const std::string& strPath, std::string& strParent, std::string& strName) {
  std::string strNewParent;
  std::string strNewName;
  if (FXPath::SplitParent(strPath, strNewParent, strNewName).IsError()) return;
  strParent = std::move(strNewParent);
  strName = std::move(strNewName);
}

bool CItem::IsFolder() const { return false; }
bool CItem::IsRegularFile() const { return false; }
bool CItem::IsArchiveSet() const { return false; }
bool CItem::IsOffline() const { return false; }
bool CItem::IsReparsePoint() const { return false; }
uint32_t CItem::GetReparseTag() const { return 0; }
uint32_t CItem::GetAttributes() const { return kAttributesUnknown; }
CTimeStamp CItem::GetCreationTime() const { return CTimeStamp(); }
CTimeStamp CItem::GetLastWriteTime() const { return CTimeStamp(); }
CTimeStamp CItem::GetLastAccessTime() const { return CTimeStamp(); }
CTimeStamp CItem::GetLastChangeTime() { return CTimeStamp(); }
const std::string& CItem::GetItemName() const { return EmptyString(); }
const std::string& CItem::GetLocalFullyQualifiedParentFolder() const { return EmptyString(); }
const std::string& CItem::GetLocalFullyQualifiedItemName() const { return EmptyString(); }
const std::string& CItem::GetSourceFullyQualifiedParentFolder() const { return EmptyString(); }
const std::string& CItem::GetSourceFullyQualifiedItemName() const { return EmptyString(); }
uint64_t CItem::GetFileSize() const { return 0; }
uint64_t CItem::GetFileSizeOnDisk() const { return 0; }
uint64_t CItem::GetCompressedFileSize() const { return 0; }
uint64_t CItem::GetHardLinkCount() const { return 0; }
uint64_t CItem::GetFileId() const { return 0; }
uint64_t CItem::GetParentFileId() const { return 0; }
void CItem::initializeParentItem() {}

CQiError CItem::AddInterface(int iId, CItemInterface* pInterface) {
  if (iId < 0)
    return QI_ERROR_WIN32(QiErrorCode::InvalidData, "Invalid interface id, Id=%d", iId);
  if (pInterface == nullptr)
    return QI_ERROR_WIN32(QiErrorCode::InvalidData, "Null interface, Id=%d", iId);

  const size_t uIndex = static_cast<size_t>(iId);
  if (m_vInterfaces.size() <= uIndex) {
    try {
      m_vInterfaces.resize(uIndex + kInterfaceTableGrowth);
    } catch (const std::exception&) {  // bad_alloc, length_error
      return QI_ERROR_WIN32(QiErrorCode::NotEnoughMemory,
                            "Failed to grow the interface table, Id=%d", iId);
    }
  }
  if (m_vInterfaces[uIndex])
    return QI_ERROR_WIN32(QiErrorCode::AlreadyAssigned, "Interface id already taken, Id=%d", iId);
  m_vInterfaces[uIndex].reset(pInterface);
  return CQiError();
}

CItemInterface* CItem::GetInterface(int iId) const {
  if (iId < 0 || static_cast<size_t>(iId) >= m_vInterfaces.size()) return nullptr;
  return m_vInterfaces[static_cast<size_t>(iId)].get();
}
