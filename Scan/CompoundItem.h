// CCompoundItem: a find-first item that also carries the id of its row in the scan database, so
// that a database-driven engine can update the row without looking the path up again.
//
// Ownership and threads: as CItem.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "Scan/FindFirstItem.h"

class CCompoundItem : public CFindFirstItem {
 public:
  CCompoundItem(int64_t llDbId, CBagPtr pWorkUnitBag, const std::string& strPath,
                const FXFile::CFileData& fileData);
  CCompoundItem(int64_t llDbId, CBagPtr pWorkUnitBag, const std::string& strLocalPath,
                const std::string& strSourcePath, const FXFile::CFileData& fileData);
  ~CCompoundItem() override;

  // The id of the item's row in the scan database.
  virtual int64_t GetDbId() const;

 private:
  int64_t m_llDbId;
};

using CCompoundItemPtr = std::shared_ptr<CCompoundItem>;
