// CFindFirstItem: the normal item, built from a file-data record (a directory entry plus its
// lstat data, FXFile::CFileData) and one or two full paths.
//
// The local path is the one through which the library reads the object (for a file-server scan
// the path inside the snapshot or mount); the source path is the one under which it is reported.
// A constructor given one path uses it for both (it is then stored once).
//
// Sizes, attributes and time stamps are taken from the record at construction. A character or
// block device reports file size 0 (it is never counted or read as data) but keeps its size on
// disk (st_blocks * 512). The parent folders and the item name are split from the paths on first
// use and kept. GetLastChangeTime() asks the hook LookupLastChangeTime() until a time is known;
// in this class the hook does nothing, so the record's change time is returned; a subclass may
// fetch it lazily and store it with SetLastChangeTime.
//
// Ownership and threads: as CItem (built by one thread, read by several, never read and changed
// at once).
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <memory>
#include <string>

#include "Platform/FXFile.h"
#include "Scan/Item.h"

class CFindFirstItem : public CItem {
 public:
  CFindFirstItem(CBagPtr pWorkUnitBag, const std::string& strPath, const FXFile::CFileData& fileData);
  CFindFirstItem(CBagPtr pWorkUnitBag, const std::string& strLocalPath,
                 const std::string& strSourcePath, const FXFile::CFileData& fileData);
  // Takes over the parent's new-in-image bit (see CItem).
  CFindFirstItem(const CItemPtr& pParent, CBagPtr pWorkUnitBag, const std::string& strPath,
                 const FXFile::CFileData& fileData);
  ~CFindFirstItem() override;

  bool IsFolder() const override;
  bool IsRegularFile() const override;
  bool IsArchiveSet() const override;
  bool IsOffline() const override;
  bool IsReparsePoint() const override;
  uint32_t GetReparseTag() const override;
  uint32_t GetAttributes() const override;
  CTimeStamp GetCreationTime() const override;
  CTimeStamp GetLastWriteTime() const override;
  CTimeStamp GetLastAccessTime() const override;
  CTimeStamp GetLastChangeTime() override;
  const std::string& GetItemName() const override;
  const std::string& GetLocalFullyQualifiedParentFolder() const override;
  const std::string& GetLocalFullyQualifiedItemName() const override;
  const std::string& GetSourceFullyQualifiedParentFolder() const override;
  const std::string& GetSourceFullyQualifiedItemName() const override;
  uint64_t GetFileSize() const override;
  uint64_t GetFileSizeOnDisk() const override;
  uint64_t GetCompressedFileSize() const override;
  uint64_t GetHardLinkCount() const override;
  uint64_t GetFileId() const override;
  uint64_t GetParentFileId() const override;
  void initializeParentItem() override;

  virtual uint64_t GetDeviceId() const;
  // The lstat data of the record.
  virtual const struct stat& GetFindFirstRawData() const;
  // Hook called by GetLastChangeTime() while the time is not known; does nothing here.
  virtual CQiError LookupLastChangeTime();

  const FXFile::CFileData& GetFileData() const { return m_fileData; }
  void SetOffline(bool bOffline) { m_fileData.setOffline(bOffline); }
  // Records whether the caller wants the last change time collected.
  void CollectLastChangeTime(bool bCollect) { m_bCollectLastChangeTime = bCollect; }
  bool IsCollectLastChangeTime() const { return m_bCollectLastChangeTime; }
  // Stores the time and marks it known (the hook is not asked any more).
  void SetLastChangeTime(const CTimeStamp& tLastChange);

 private:
  void TakeFromFileData();

  FXFile::CFileData m_fileData;
  std::string m_strLocalFullPath;
  std::string m_strSourceFullPath;  // empty while m_bSourceIsLocal
  uint64_t m_ullFileSize = 0;
  uint64_t m_ullFileSizeOnDisk = 0;
  uint64_t m_ullCompressedSize = 0;
  uint32_t m_uAttributes = kAttributesUnknown;
  CTimeStamp m_tCreation;
  CTimeStamp m_tLastWrite;
  CTimeStamp m_tLastAccess;
  CTimeStamp m_tLastChange;
  // Computed on first use.
  mutable std::string m_strLocalParentFolder;
  mutable std::string m_strSourceParentFolder;
  mutable std::string m_strItemName;
  bool m_bCollectLastChangeTime = false;
  bool m_bLastChangeTimeKnown = false;
  bool m_bSourceIsLocal = false;
};

using CFindFirstItemPtr = std::shared_ptr<CFindFirstItem>;
