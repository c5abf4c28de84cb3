// CRawDeviceItem: the item of a raw device (a disk or partition backed up whole), built from
// the device path and its file data. Its size on disk is the device's size
// (FXFile::CFileData::GetDeviceSize, the block device size query, or the query set with
// SetDeviceSizeQuery); when that query fails the
// failure is logged at level -1 ("Failed to get device size of %s. Error %s") and the size of
// the plain item (CFindFirstItem::GetFileSizeOnDisk) is reported instead. Everything else is
// the CFindFirstItem's (so its file size is 0, as for every device node).
//
// The size is asked of the device on every call. Ownership and threads: as CFindFirstItem.
#pragma once

#include <memory>
#include <string>

#include "Scan/FindFirstItem.h"

class CRawDeviceItem : public CFindFirstItem {
 public:
  CRawDeviceItem(CBagPtr pWorkUnitBag, const std::string& strLocalPath, const std::string& strSourcePath,
                 const FXFile::CFileData& fileData);
  ~CRawDeviceItem() override;

  uint64_t GetFileSizeOnDisk() const override;

  // The device-size query: FXFile::CFileData::GetDeviceSize (the block device's size) unless
  // replaced. The seam through which a test sizes a device node that the machine cannot back
  // with a real block device; nullptr restores the platform's query. Any thread may call.
  using DeviceSizeQuery = CQiError (*)(const FXFile::CFileData& fileData, uint64_t& ullSize);
  static void SetDeviceSizeQuery(DeviceSizeQuery pfnQuery);
};

using CRawDeviceItemPtr = std::shared_ptr<CRawDeviceItem>;
