#include "Scan/CompoundItem.h"

CCompoundItem::CCompoundItem(int64_t llDbId, CBagPtr pWorkUnitBag, const std::string& strPath,
                             const FXFile::CFileData& fileData)
    : CFindFirstItem(std::move(pWorkUnitBag), strPath, fileData), m_llDbId(llDbId) {}

CCompoundItem::CCompoundItem(int64_t llDbId, CBagPtr pWorkUnitBag,
                             const std::string& strLocalPath, const std::string& strSourcePath,
                             const FXFile::CFileData& fileData)
    : CFindFirstItem(std::move(pWorkUnitBag), strLocalPath, strSourcePath, fileData),
      m_llDbId(llDbId) {}

CCompoundItem::~CCompoundItem() = default;

int64_t CCompoundItem::GetDbId() const { return m_llDbId; }
