// CFabricatedItem: an item built from paths alone, optionally with an attribute word. The path
// enumerators build one when an object's file data cannot be read (the object is still reported,
// for example as a failure item).
//
// It knows its local and source paths (see CFindFirstItem for their meaning) and its attributes,
// nothing else: sizes, times and ids answer as the base CItem does. It is a folder when its
// attributes are known (not 0xFFFFFFFF) and carry the folder bit 0x10 — the folder bit of the
// agent's attribute word, which engines set when they fabricate a folder; the stat file-type
// bits are not consulted. Names are split from the paths on first use.
//
// Ownership and threads: as CItem.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "Scan/Item.h"

class CFabricatedItem : public CItem {
 public:
  // The attribute bit that marks a fabricated folder.
  static constexpr uint32_t kAttributeFolder = 0x10;

  CFabricatedItem(CBagPtr pWorkUnitBag, const std::string& strLocalPath,
                  const std::string& strSourcePath);
  CFabricatedItem(CBagPtr pWorkUnitBag, const std::string& strLocalPath,
                  const std::string& strSourcePath, uint32_t uAttributes);
  ~CFabricatedItem() override;

  bool IsFolder() const override;
  uint32_t GetAttributes() const override;
  const std::string& GetItemName() const override;
  const std::string& GetLocalFullyQualifiedParentFolder() const override;
  const std::string& GetLocalFullyQualifiedItemName() const override;
  const std::string& GetSourceFullyQualifiedParentFolder() const override;
  const std::string& GetSourceFullyQualifiedItemName() const override;

  void SetAttributes(uint32_t uAttributes) { m_uAttributes = uAttributes; }

 private:
  std::string m_strLocalFullPath;
  std::string m_strSourceFullPath;
  uint32_t m_uAttributes = kAttributesUnknown;
  // Computed on first use.
  mutable std::string m_strLocalParentFolder;
  mutable std::string m_strSourceParentFolder;
  mutable std::string m_strItemName;
};

using CFabricatedItemPtr = std::shared_ptr<CFabricatedItem>;
