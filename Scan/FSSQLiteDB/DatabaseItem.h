// FSDB::CDatabaseItem: one record of a scan database, the file or folder as the previous scan saw
// it (inode, mode bits, link count, sizes, the four times, name and full path, and three flags).
//
// The store (FSDB::CScanDatabaseBase) keys records by full path; the record's own name and path
// fields are what a query hands back. Four fields also travel as the metadata blob, a compact XML
// text that FormMetadata builds and PopulateFromMetadata reads back:
//   <Metadata><Filesystem Attributes="16877" Links="2" FileSizeOnDisk="4096" CreationTime="0"/></Metadata>
// Everything starts at 0, false or empty; the metadata is empty until FormMetadata is called.
//
// Errors of the metadata operations:
//   PopulateFromMetadata  Win32 1168 "Metadata is not set." when the field is empty;
//                         the XML layer's error (Win32 13) with "LoadFromString failed,
//                         Metadata=[%s]" when the text does not parse; the XML layer's error
//                         (1168 missing, 13 not a number) when the Filesystem element or one of
//                         its attributes is missing or malformed. The fields change only when
//                         all four values were read.
//   FormMetadata          the XML layer's error; the metadata field is left as it was.
//
// A record is a plain value held through CDatabaseItemPtr; one thread uses it at a time.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "Platform/QiError.h"

namespace FSDB {

class CDatabaseItem {
 public:
  CDatabaseItem() = default;
  virtual ~CDatabaseItem();

  virtual int64_t GetId() const { return m_llId; }
  virtual void SetId(int64_t llId) { m_llId = llId; }
  virtual int64_t GetFileId() const { return m_llFileId; }
  virtual void SetFileId(int64_t llFileId) { m_llFileId = llFileId; }
  virtual int32_t GetAttributes() const { return m_iAttributes; }
  virtual void SetAttributes(int32_t iAttributes) { m_iAttributes = iAttributes; }
  virtual int32_t GetLinks() const { return m_iLinks; }
  virtual void SetLinks(int32_t iLinks) { m_iLinks = iLinks; }
  virtual int64_t GetFileSize() const { return m_llFileSize; }
  virtual void SetFileSize(int64_t llFileSize) { m_llFileSize = llFileSize; }
  virtual int64_t GetFileSizeOnDisk() const { return m_llFileSizeOnDisk; }
  virtual void SetFileSizeOnDisk(int64_t llSize) { m_llFileSizeOnDisk = llSize; }
  // Times are Unix seconds.
  virtual int64_t GetAccessTime() const { return m_llAccessTime; }
  virtual void SetAccessTime(int64_t llTime) { m_llAccessTime = llTime; }
  virtual int64_t GetCreationTime() const { return m_llCreationTime; }
  virtual void SetCreationTime(int64_t llTime) { m_llCreationTime = llTime; }
  virtual int64_t GetModificationTime() const { return m_llModificationTime; }
  virtual void SetModificationTime(int64_t llTime) { m_llModificationTime = llTime; }
  virtual int64_t GetChangeTime() const { return m_llChangeTime; }
  virtual void SetChangeTime(int64_t llTime) { m_llChangeTime = llTime; }
  virtual const std::string& GetFileName() const { return m_strFileName; }
  virtual void SetFileName(const std::string& strName) { m_strFileName = strName; }
  virtual const std::string& GetFullyQualifiedPath() const { return m_strFullyQualifiedPath; }
  virtual void SetFullyQualifiedPath(const std::string& strPath) {
    m_strFullyQualifiedPath = strPath;
  }
  virtual const std::string& GetMetadata() const { return m_strMetadata; }
  virtual void SetMetadata(const std::string& strMetadata) { m_strMetadata = strMetadata; }

  // Reads attributes, links, size on disk and creation time back from the metadata blob.
  virtual CQiError PopulateFromMetadata();
  // Writes attributes, links, size on disk and creation time into the metadata blob.
  virtual CQiError FormMetadata();

  // One log line: "FileName [..] Inode [..] ... IsCollect[yes|no]".
  virtual std::string AsString() const;

  virtual void SetAsDirectory(bool bDirectory) { m_bIsDirectory = bDirectory; }
  virtual bool IsDirectory() const { return m_bIsDirectory; }
  virtual void SetAsSelected(bool bSelected) { m_bIsSelected = bSelected; }
  virtual bool IsSelected() const { return m_bIsSelected; }
  virtual void SetAsCollect(bool bCollect) { m_bIsCollect = bCollect; }
  virtual bool IsCollect() const { return m_bIsCollect; }

 private:
  int64_t m_llId = 0;
  int64_t m_llFileId = 0;
  int32_t m_iAttributes = 0;
  int32_t m_iLinks = 0;
  int64_t m_llFileSize = 0;
  int64_t m_llFileSizeOnDisk = 0;
  int64_t m_llAccessTime = 0;
  int64_t m_llCreationTime = 0;
  int64_t m_llModificationTime = 0;
  int64_t m_llChangeTime = 0;
  std::string m_strFileName;
  std::string m_strFullyQualifiedPath;
  std::string m_strMetadata;
  bool m_bIsDirectory = false;
  bool m_bIsSelected = false;
  bool m_bIsCollect = false;
};

using CDatabaseItemPtr = std::shared_ptr<CDatabaseItem>;

}  // namespace FSDB
