#include "Scan/FSSQLiteDB/DatabaseItem.h"

#include "Platform/ErrorCodes.h"
#include "Platform/FXErrorUtil.h"
#include "Platform/FXString.h"
#include "Platform/QiXDocument.h"
#include "Platform/QiXFormat.h"
#include "Platform/QiXNode.h"

namespace FSDB {

namespace {
constexpr const char* kRootElement = "Metadata";
constexpr const char* kFilesystemElement = "Filesystem";
constexpr const char* kAttributes = "Attributes";
constexpr const char* kLinks = "Links";
constexpr const char* kFileSizeOnDisk = "FileSizeOnDisk";
constexpr const char* kCreationTime = "CreationTime";

const char* YesNo(bool bValue) { return bValue ? "yes" : "no"; }
}  // namespace

CDatabaseItem::~CDatabaseItem() = default;

CQiError CDatabaseItem::PopulateFromMetadata() {
  if (m_strMetadata.empty()) return QI_ERROR_WIN32(QiErrorCode::NotFound, "Metadata is not set.");

  // The metadata may hold anything a caller stored; quote it on one line.
  const std::string strQuoted = FXString::EscapeControl(m_strMetadata);
  CQiXDocument document;
  CQiError error = document.LoadFromString(m_strMetadata);
  if (error.IsError()) return QI_PUSH(error, "LoadFromString failed, Metadata=[%s]", strQuoted.c_str());

  CQiXNode root, filesystem;
  QI_RETURN_IF_ERROR(document.GetRootElement(root), "Metadata has no root element, Metadata=[%s]",
                     strQuoted.c_str());
  QI_RETURN_IF_ERROR(root.GetChildElement(kFilesystemElement, filesystem),
                     "Metadata has no Filesystem element, Metadata=[%s]", strQuoted.c_str());

  // Read everything first, so that a bad blob leaves the record as it was.
  int32_t iAttributes = 0, iLinks = 0;
  int64_t llSizeOnDisk = 0, llCreationTime = 0;
  QI_RETURN_IF_ERROR(filesystem.GetAttributeInt(kAttributes, iAttributes), "Metadata=[%s]",
                     strQuoted.c_str());
  QI_RETURN_IF_ERROR(filesystem.GetAttributeInt(kLinks, iLinks), "Metadata=[%s]",
                     strQuoted.c_str());
  QI_RETURN_IF_ERROR(filesystem.GetAttributeInt64(kFileSizeOnDisk, llSizeOnDisk), "Metadata=[%s]",
                     strQuoted.c_str());
  QI_RETURN_IF_ERROR(filesystem.GetAttributeInt64(kCreationTime, llCreationTime), "Metadata=[%s]",
                     strQuoted.c_str());
  m_iAttributes = iAttributes;
  m_iLinks = iLinks;
  m_llFileSizeOnDisk = llSizeOnDisk;
  m_llCreationTime = llCreationTime;
  return CQiError();
}

CQiError CDatabaseItem::FormMetadata() {
  CQiXDocument document;
  CQiXNode root, filesystem;
  QI_RETURN_IF_ERROR(document.CreateRootElement(kRootElement, root));
  QI_RETURN_IF_ERROR(root.AddChildElement(kFilesystemElement, filesystem));
  QI_RETURN_IF_ERROR(filesystem.SetAttributeInt(kAttributes, m_iAttributes));
  QI_RETURN_IF_ERROR(filesystem.SetAttributeInt(kLinks, m_iLinks));
  QI_RETURN_IF_ERROR(filesystem.SetAttributeInt64(kFileSizeOnDisk, m_llFileSizeOnDisk));
  QI_RETURN_IF_ERROR(filesystem.SetAttributeInt64(kCreationTime, m_llCreationTime));
  std::string strMetadata;
  QI_RETURN_IF_ERROR(document.SaveToString(strMetadata, BQiXFormatRaw | BQiXFormatNoDeclaration));
  m_strMetadata = std::move(strMetadata);
  return CQiError();
}

std::string CDatabaseItem::AsString() const {
  return FXString::Format(
      "FileName [%s] Inode [%ld] Attributes [%d] Links [%d] FileSize [%ld] Access Time [%ld] "
      "Modification Time [%ld] ChangeTime [%ld] Create Time [%ld] FullyQualifiedPath [%s] "
      "IsDirectory [%s] IsSelected [%s] IsCollect[%s]",
      m_strFileName.c_str(), m_llFileId, m_iAttributes, m_iLinks, m_llFileSize, m_llAccessTime,
      m_llModificationTime, m_llChangeTime, m_llCreationTime, m_strFullyQualifiedPath.c_str(),
      YesNo(m_bIsDirectory), YesNo(m_bIsSelected), YesNo(m_bIsCollect));
}

}  // namespace FSDB
