#include "Scan/FindFirstItem.h"

namespace {
constexpr uint32_t kFileTypeMask = 0xF000;
constexpr uint32_t kFileTypeCharDevice = 0x2000;
constexpr uint32_t kFileTypeBlockDevice = 0x6000;
}  // namespace

CFindFirstItem::CFindFirstItem(CBagPtr pWorkUnitBag, const std::string& strPath,
                               const FXFile::CFileData& fileData)
    : CItem(std::move(pWorkUnitBag)),
      m_fileData(fileData),
      m_strLocalFullPath(strPath),
      m_bSourceIsLocal(true) {
  TakeFromFileData();
}

CFindFirstItem::CFindFirstItem(CBagPtr pWorkUnitBag, const std::string& strLocalPath,
                               const std::string& strSourcePath,
                               const FXFile::CFileData& fileData)
    : CItem(std::move(pWorkUnitBag)),
      m_fileData(fileData),
      m_strLocalFullPath(strLocalPath),
      m_bSourceIsLocal(strLocalPath == strSourcePath) {
  if (!m_bSourceIsLocal) m_strSourceFullPath = strSourcePath;
  TakeFromFileData();
}

CFindFirstItem::CFindFirstItem(const CItemPtr& pParent, CBagPtr pWorkUnitBag,
                               const std::string& strPath, const FXFile::CFileData& fileData)
    : CItem(pParent, std::move(pWorkUnitBag)),
      m_fileData(fileData),
      m_strLocalFullPath(strPath),
      m_bSourceIsLocal(true) {
  TakeFromFileData();
}

CFindFirstItem::~CFindFirstItem() = default;

void CFindFirstItem::TakeFromFileData() {
  m_ullFileSize = m_fileData.getSize();
  m_ullCompressedSize = m_fileData.getCompressedSize();
  m_uAttributes = m_fileData.getAttributes();
  m_tCreation = m_fileData.getCreationTime();
  m_tLastWrite = m_fileData.getLastWriteTime();
  m_tLastAccess = m_fileData.getLastAccessTime();
  m_tLastChange = m_fileData.getLastChangeTime();
  m_ullFileSizeOnDisk = static_cast<uint64_t>(m_fileData.getRawData().st_blocks) << 9;
  // A device node is never counted or read as data; its blocks still count on disk.
  const uint32_t uType = m_uAttributes & kFileTypeMask;
  if (uType == kFileTypeCharDevice || uType == kFileTypeBlockDevice) m_ullFileSize = 0;
}

bool CFindFirstItem::IsFolder() const { return m_fileData.isDirectory(); }
bool CFindFirstItem::IsRegularFile() const { return m_fileData.isRegularFile(); }
bool CFindFirstItem::IsArchiveSet() const { return m_fileData.isArchiveSet(); }
bool CFindFirstItem::IsOffline() const { return m_fileData.isOffline(); }
bool CFindFirstItem::IsReparsePoint() const { return m_fileData.isReparsePoint(); }
uint32_t CFindFirstItem::GetReparseTag() const { return m_fileData.getReparseTag(); }
uint32_t CFindFirstItem::GetAttributes() const { return m_uAttributes; }
CTimeStamp CFindFirstItem::GetCreationTime() const { return m_tCreation; }
CTimeStamp CFindFirstItem::GetLastWriteTime() const { return m_tLastWrite; }
CTimeStamp CFindFirstItem::GetLastAccessTime() const { return m_tLastAccess; }

CTimeStamp CFindFirstItem::GetLastChangeTime() {
  // A failed look-up keeps the time taken from the record.
  if (!m_bLastChangeTimeKnown) (void)LookupLastChangeTime();
  return m_tLastChange;
}

CQiError CFindFirstItem::LookupLastChangeTime() { return CQiError(); }

void CFindFirstItem::SetLastChangeTime(const CTimeStamp& tLastChange) {
  m_tLastChange = tLastChange;
  m_bLastChangeTimeKnown = true;
}

const std::string& CFindFirstItem::GetItemName() const {
  if (m_strItemName.empty()) SplitPath(m_strLocalFullPath, m_strLocalParentFolder, m_strItemName);
  return m_strItemName;
}

const std::string& CFindFirstItem::GetLocalFullyQualifiedParentFolder() const {
  if (m_strItemName.empty() || m_strLocalParentFolder.empty())
    SplitPath(m_strLocalFullPath, m_strLocalParentFolder, m_strItemName);
  return m_strLocalParentFolder;
}

const std::string& CFindFirstItem::GetLocalFullyQualifiedItemName() const {
  return m_strLocalFullPath;
}

const std::string& CFindFirstItem::GetSourceFullyQualifiedParentFolder() const {
  if (m_strSourceParentFolder.empty()) {
    std::string strName;
    SplitPath(GetSourceFullyQualifiedItemName(), m_strSourceParentFolder, strName);
    if (m_strItemName.empty()) m_strItemName = std::move(strName);
  }
  return m_strSourceParentFolder;
}

const std::string& CFindFirstItem::GetSourceFullyQualifiedItemName() const {
  return m_bSourceIsLocal ? m_strLocalFullPath : m_strSourceFullPath;
}

uint64_t CFindFirstItem::GetFileSize() const { return m_ullFileSize; }
uint64_t CFindFirstItem::GetFileSizeOnDisk() const { return m_ullFileSizeOnDisk; }
uint64_t CFindFirstItem::GetCompressedFileSize() const { return m_ullCompressedSize; }
uint64_t CFindFirstItem::GetHardLinkCount() const {
  return static_cast<uint64_t>(m_fileData.getRawData().st_nlink);
}
uint64_t CFindFirstItem::GetFileId() const { return m_fileData.getFileID(); }
uint64_t CFindFirstItem::GetParentFileId() const { return 0; }
void CFindFirstItem::initializeParentItem() {}

uint64_t CFindFirstItem::GetDeviceId() const { return m_fileData.getDeviceId(); }
const struct stat& CFindFirstItem::GetFindFirstRawData() const { return m_fileData.getRawData(); }
