#include "Scan/Unix/RawDeviceItem.h"

#include "Platform/FXString.h"
#include "Platform/LogWriterInterface.h"

CRawDeviceItem::CRawDeviceItem(CBagPtr pWorkUnitBag, const std::string& strLocalPath,
                               const std::string& strSourcePath, const FXFile::CFileData& fileData)
    : CFindFirstItem(std::move(pWorkUnitBag), strLocalPath, strSourcePath, fileData) {}

CRawDeviceItem::~CRawDeviceItem() = default;

uint64_t CRawDeviceItem::GetFileSizeOnDisk() const {
  uint64_t ullSize = 0;
  CQiError error = GetFileData().GetDeviceSize(ullSize);
  if (error.IsSuccess()) return ullSize;
  ZRLOG(-1, "Failed to get device size of %s. Error %s", FXString::EscapeControl(GetItemName()).c_str(),
        error.AsString().c_str());
  return CFindFirstItem::GetFileSizeOnDisk();
}
