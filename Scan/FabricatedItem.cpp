#include "Scan/FabricatedItem.h"

CFabricatedItem::CFabricatedItem(CBagPtr pWorkUnitBag, const std::string& strLocalPath,
                                 const std::string& strSourcePath)
    : CItem(std::move(pWorkUnitBag)),
      m_strLocalFullPath(strLocalPath),
      m_strSourceFullPath(strSourcePath) {}

CFabricatedItem::CFabricatedItem(CBagPtr pWorkUnitBag, const std::string& strLocalPath,
                                 const std::string& strSourcePath, uint32_t uAttributes)
    : CItem(std::move(pWorkUnitBag)),
      m_strLocalFullPath(strLocalPath),
      m_strSourceFullPath(strSourcePath),
      m_uAttributes(uAttributes) {}

CFabricatedItem::~CFabricatedItem() = default;

bool CFabricatedItem::IsFolder() const {
  return m_uAttributes != kAttributesUnknown && (m_uAttributes & kAttributeFolder) != 0;
}

uint32_t CFabricatedItem::GetAttributes() const { return m_uAttributes; }

const std::string& CFabricatedItem::GetItemName() const {
  if (m_strItemName.empty()) SplitPath(m_strLocalFullPath, m_strLocalParentFolder, m_strItemName);
  return m_strItemName;
}

const std::string& CFabricatedItem::GetLocalFullyQualifiedParentFolder() const {
  if (m_strItemName.empty() || m_strLocalParentFolder.empty())
    SplitPath(m_strLocalFullPath, m_strLocalParentFolder, m_strItemName);
  return m_strLocalParentFolder;
}

const std::string& CFabricatedItem::GetLocalFullyQualifiedItemName() const {
  return m_strLocalFullPath;
}

const std::string& CFabricatedItem::GetSourceFullyQualifiedParentFolder() const {
  if (m_strSourceParentFolder.empty()) {
    std::string strName;
    SplitPath(m_strSourceFullPath, m_strSourceParentFolder, strName);
    if (m_strItemName.empty()) m_strItemName = std::move(strName);
  }
  return m_strSourceParentFolder;
}

const std::string& CFabricatedItem::GetSourceFullyQualifiedItemName() const {
  return m_strSourceFullPath;
}
