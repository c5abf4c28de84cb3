#include "Scan/Unix/RawDeviceItem.h"

#include <atomic>

#include "Platform/FXString.h"
#include "Platform/LogWriterInterface.h"

namespace {
CQiError PlatformDeviceSize(const FXFile::CFileData& fileData, uint64_t& ullSize) {
  return fileData.GetDeviceSize(ullSize);
}
std::atomic<CRawDeviceItem::DeviceSizeQuery> g_pfnDeviceSize{&PlatformDeviceSize};
}  // namespace

void CRawDeviceItem::SetDeviceSizeQuery(DeviceSizeQuery pfnQuery) {
  g_pfnDeviceSize = pfnQuery != nullptr ? pfnQuery : &PlatformDeviceSize;
}

CRawDeviceItem::CRawDeviceItem(CBagPtr pWorkUnitBag, const std::string& strLocalPath,
                               const std::string& strSourcePath, const FXFile::CFileData& fileData)
    : CFindFirstItem(std::move(pWorkUnitBag), strLocalPath, strSourcePath, fileData) {}

CRawDeviceItem::~CRawDeviceItem() = default;

uint64_t CRawDeviceItem::GetFileSizeOnDisk() const {
  uint64_t ullSize = 0;
  CQiError error = g_pfnDeviceSize.load()(GetFileData(), ullSize);
  if (error.IsSuccess()) return ullSize;
  ZRLOG(-1, "Failed to get device size of %s. Error %s", FXString::EscapeControl(GetItemName()).c_str(),
        error.AsString().c_str());
  return CFindFirstItem::GetFileSizeOnDisk();
}
