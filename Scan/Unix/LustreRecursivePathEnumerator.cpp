#include "Scan/Unix/LustreRecursivePathEnumerator.h"

#include <any>

#include "Platform/ErrorCodes.h"
#include "Platform/FXErrorUtil.h"
#include "Scan/BasicPathEnumerator.h"

CLustreRecursivePathEnumerator::CLustreRecursivePathEnumerator(LustreAPI& api, size_t uBatch)
    : CLustreRecursivePathEnumerator(api, std::make_unique<CBasicPathEnumerator>(), uBatch) {}

CLustreRecursivePathEnumerator::CLustreRecursivePathEnumerator(LustreAPI& api, std::unique_ptr<CPathEnumerator> pBasic,
                                                               size_t uBatch)
    : m_api(api), m_pBasic(std::move(pBasic)), m_uBatch(uBatch == 0 ? 1 : uBatch) {
  m_vEntries.reserve(m_uBatch);
}

CLustreRecursivePathEnumerator::~CLustreRecursivePathEnumerator() = default;

CQiError CLustreRecursivePathEnumerator::GetItemByPath(const std::string& strPath, CItemPtr& pItem,
                                                       ContentMapperAPI* pMapper) {
  return m_pBasic->GetItemByPath(strPath, pItem, pMapper);
}

CQiError CLustreRecursivePathEnumerator::GetItemByPath(const std::string& strLocalPath,
                                                       const std::string& strSourcePath, CItemPtr& pItem) {
  return m_pBasic->GetItemByPath(strLocalPath, strSourcePath, pItem);
}

CQiError CLustreRecursivePathEnumerator::GetItemByPath(CBagPtr pBag, const std::string& strPath, CItemPtr& pItem,
                                                       ContentMapperAPI* pMapper) {
  return m_pBasic->GetItemByPath(std::move(pBag), strPath, pItem, pMapper);
}

CQiError CLustreRecursivePathEnumerator::GetItemByPath(CBagPtr pBag, const std::string& strLocalPath,
                                                       const std::string& strSourcePath, CItemPtr& pItem) {
  return m_pBasic->GetItemByPath(std::move(pBag), strLocalPath, strSourcePath, pItem);
}

CPathEnumerator* CLustreRecursivePathEnumerator::Clone() {
  std::unique_ptr<CPathEnumerator> pBasic(m_pBasic->Clone());
  if (!pBasic) return nullptr;
  try {
    return new CLustreRecursivePathEnumerator(m_api, std::move(pBasic), m_uBatch);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

void CLustreRecursivePathEnumerator::Keep(CQiError error, CItemPtr pItem) {
  if (!pItem) {
    m_bEnded = true;
    m_endError = std::move(error);
    return;
  }
  m_vEntries.push_back(SEntry{std::move(error), std::move(pItem)});
}

void CLustreRecursivePathEnumerator::FillBatch() {
  while (!m_bEnded && m_vEntries.size() < m_uBatch) {
    CItemPtr pItem;
    CQiError error = m_pBasic->FindNext(pItem);
    Keep(std::move(error), std::move(pItem));
  }
  AttachFIDs();
}

void CLustreRecursivePathEnumerator::AttachFIDs() {
  std::vector<std::string> lstPaths;
  std::vector<size_t> vIndexes;
  lstPaths.reserve(m_vEntries.size());
  for (size_t i = m_uNext; i < m_vEntries.size(); ++i) {
    if (m_vEntries[i].error.IsError()) continue;  // handed on as the basic enumerator gave it
    lstPaths.push_back(m_vEntries[i].pItem->GetLocalFullyQualifiedItemName());
    vIndexes.push_back(i);
  }
  if (lstPaths.empty()) return;
  std::vector<LustreAPI::CLustreFID> lstFids;
  std::vector<CQiError> lstErrors;
  CQiError error = m_api.GetFIDsFromPaths(lstPaths, lstFids, lstErrors);
  if (error.IsSuccess() && (lstFids.size() != lstPaths.size() || lstErrors.size() != lstPaths.size()))
    error = QI_ERROR_WIN32(QiErrorCode::FunctionFailed, "path2fid answered %zu of %zu paths", lstFids.size(),
                           lstPaths.size());
  for (size_t k = 0; k < vIndexes.size(); ++k) {
    const CBagPtr pBag = m_vEntries[vIndexes[k]].pItem->GetItemBag();
    if (error.IsError()) {
      (void)pBag->WriteAny(kFidErrorKey, std::any(QI_PUSH(CQiError(error))));
    } else if (lstErrors[k].IsError()) {
      (void)pBag->WriteAny(kFidErrorKey, std::any(lstErrors[k]));
    } else {
      (void)pBag->Write(kFidKey, lstFids[k].ToString());
    }
  }
}

CQiError CLustreRecursivePathEnumerator::TakeNext(CItemPtr& pItem) {
  pItem.reset();
  if (m_uNext == m_vEntries.size()) {
    m_vEntries.clear();
    m_uNext = 0;
    if (!m_bEnded) FillBatch();
    if (m_vEntries.empty()) return m_endError;
  }
  SEntry& entry = m_vEntries[m_uNext++];
  pItem = std::move(entry.pItem);
  return std::move(entry.error);
}

CQiError CLustreRecursivePathEnumerator::FindFirst(const std::string& strPattern, CItemPtr pParent, CItemPtr& pItem) {
  m_vEntries.clear();
  m_uNext = 0;
  m_bListing = true;
  m_bEnded = false;
  m_endError = CQiError();
  CItemPtr pFirst;
  CQiError error = m_pBasic->FindFirst(strPattern, std::move(pParent), pFirst);
  Keep(std::move(error), std::move(pFirst));
  FillBatch();
  return TakeNext(pItem);
}

CQiError CLustreRecursivePathEnumerator::FindNext(CItemPtr& pItem) {
  if (!m_bListing) return m_pBasic->FindNext(pItem);  // the basic enumerator's misuse error
  return TakeNext(pItem);
}

bool CLustreRecursivePathEnumerator::GetAttachedFID(const CItem& item, LustreAPI::CLustreFID& fid, CQiError& error) {
  const CBagPtr pBag = item.GetItemBag();
  std::string strFid;
  if (pBag->Read(kFidKey, strFid).IsSuccess()) {
    error = CQiError();
    if (LustreAPI::CLustreFID::FromText(strFid, fid)) return true;
    error = QI_ERROR_WIN32(QiErrorCode::InvalidData, "Invalid FID %s attached to the item", strFid.c_str());
    return true;
  }
  std::any value;
  if (pBag->ReadAny(kFidErrorKey, value).IsSuccess() && value.type() == typeid(CQiError)) {
    error = std::any_cast<CQiError>(value);
    return true;
  }
  return false;
}
