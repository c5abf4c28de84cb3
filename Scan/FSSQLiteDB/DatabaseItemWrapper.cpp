#include "Scan/FSSQLiteDB/DatabaseItemWrapper.h"

#include <sys/stat.h>

#include <memory>

#include "Platform/ErrorCodes.h"
#include "Platform/FXErrorUtil.h"
#include "Platform/FXFile.h"
#include "Scan/CompoundItem.h"

namespace {
constexpr uint32_t kFileTypeMask = 0xF000;
constexpr uint32_t kFileTypeFolder = 0x4000;
constexpr int64_t kBlockSize = 512;
}  // namespace

CQiError CDatabaseItemWrapper::GetDatabaseItem(const CItemPtr& pItem,
                                               FSDB::CDatabaseItemPtr& pDatabaseItem) {
  if (!pItem) return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "No item to convert");

  auto pRecord = std::make_shared<FSDB::CDatabaseItem>();
  pRecord->SetFileId(static_cast<int64_t>(pItem->GetFileId()));
  pRecord->SetAttributes(static_cast<int32_t>(pItem->GetAttributes()));
  pRecord->SetLinks(static_cast<int32_t>(pItem->GetHardLinkCount()));
  pRecord->SetFileSize(static_cast<int64_t>(pItem->GetFileSize()));
  pRecord->SetFileSizeOnDisk(static_cast<int64_t>(pItem->GetFileSizeOnDisk()));
  pRecord->SetAccessTime(pItem->GetLastAccessTime().GetSeconds());
  pRecord->SetCreationTime(pItem->GetCreationTime().GetSeconds());
  pRecord->SetModificationTime(pItem->GetLastWriteTime().GetSeconds());
  pRecord->SetChangeTime(pItem->GetLastChangeTime().GetSeconds());

  CQiError error = pRecord->FormMetadata();
  if (error.IsError()) {
    const std::string strReason = error.AsString();
    return QI_PUSH(error, "Cannot form metadata from member variables due to %s",
                   strReason.c_str());
  }
  pDatabaseItem = std::move(pRecord);
  return CQiError();
}

CQiError CDatabaseItemWrapper::GetAsItem(const FSDB::CDatabaseItemPtr& pDatabaseItem,
                                         CItemPtr& pItem, const std::string& strLocalPath,
                                         const CBagPtr& pBag) {
  if (!pDatabaseItem) return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "No record to convert");
  const std::string& strPath = pDatabaseItem->GetFullyQualifiedPath();
  if (strPath.empty()) {
    return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "Record has no path, Record=[%s]",
                          pDatabaseItem->AsString().c_str());
  }

  struct stat st {};
  st.st_ino = static_cast<ino_t>(pDatabaseItem->GetFileId());
  uint32_t uMode = static_cast<uint32_t>(pDatabaseItem->GetAttributes());
  if (pDatabaseItem->IsDirectory()) uMode = (uMode & ~kFileTypeMask) | kFileTypeFolder;
  st.st_mode = static_cast<mode_t>(uMode);
  st.st_nlink = static_cast<nlink_t>(pDatabaseItem->GetLinks());
  st.st_size = static_cast<off_t>(pDatabaseItem->GetFileSize());
  st.st_blksize = kBlockSize;
  st.st_blocks = static_cast<blkcnt_t>(pDatabaseItem->GetFileSizeOnDisk() / kBlockSize);
  st.st_atim.tv_sec = static_cast<time_t>(pDatabaseItem->GetAccessTime());
  st.st_mtim.tv_sec = static_cast<time_t>(pDatabaseItem->GetModificationTime());
  st.st_ctim.tv_sec = static_cast<time_t>(pDatabaseItem->GetChangeTime());

  const FXFile::CFileData fileData(strPath, FXFile::CFileData::kModeFullPath, &st);
  if (strLocalPath.empty()) {
    pItem = std::make_shared<CCompoundItem>(pDatabaseItem->GetId(), pBag, strPath, fileData);
  } else {
    pItem = std::make_shared<CCompoundItem>(pDatabaseItem->GetId(), pBag, strLocalPath, strPath,
                                            fileData);
  }
  return CQiError();
}
