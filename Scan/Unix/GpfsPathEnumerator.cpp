#include "Scan/Unix/GpfsPathEnumerator.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "Platform/FXErrorUtil.h"
#include "Platform/FXFile.h"
#include "Platform/FXPath.h"
#include "Platform/FXString.h"
#include "Platform/LogWriterInterface.h"
#include "Scan/FindFirstItem.h"

namespace {
constexpr size_t kStreamBufferBytes = size_t{1} << 20;

std::string Esc(std::string_view text) { return FXString::EscapeControl(text); }

bool StartsWithNoCase(std::string_view text, std::string_view prefix) {
  return text.size() >= prefix.size() && FXString::EqualsNoCase(text.substr(0, prefix.size()), prefix);
}

// The position of the last " SHOW(" (any case), or npos.
size_t FindLastShow(std::string_view text) {
  for (size_t pos = text.rfind('('); pos != std::string_view::npos && pos >= 5;
       pos = pos == 0 ? std::string_view::npos : text.rfind('(', pos - 1)) {
    if (text[pos - 5] == ' ' && FXString::EqualsNoCase(text.substr(pos - 4, 4), "SHOW")) return pos - 5;
  }
  return std::string_view::npos;
}

// True when the bytes are well-formed UTF-8 (no overlong forms, surrogates or values past
// U+10FFFF).
bool IsUtf8(std::string_view text) {
  const auto* p = reinterpret_cast<const unsigned char*>(text.data());
  const auto* const pEnd = p + text.size();
  while (p < pEnd) {
    // Eight ASCII bytes at a time, the common case of file names.
    if (pEnd - p >= 8) {
      uint64_t word;
      memcpy(&word, p, 8);
      if ((word & 0x8080808080808080ULL) == 0) {
        p += 8;
        continue;
      }
    }
    const unsigned c = *p;
    if (c < 0x80) {
      ++p;
      continue;
    }
    size_t n;
    unsigned min;
    unsigned cp;
    if ((c & 0xE0) == 0xC0) {
      n = 1, min = 0x80, cp = c & 0x1F;
    } else if ((c & 0xF0) == 0xE0) {
      n = 2, min = 0x800, cp = c & 0x0F;
    } else if ((c & 0xF8) == 0xF0) {
      n = 3, min = 0x10000, cp = c & 0x07;
    } else {
      return false;
    }
    if (static_cast<size_t>(pEnd - p) <= n) return false;
    for (size_t i = 1; i <= n; ++i) {
      if ((p[i] & 0xC0) != 0x80) return false;
      cp = (cp << 6) | (p[i] & 0x3F);
    }
    if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return false;
    p += n + 1;
  }
  return true;
}

// A whole field as a decimal number (a '-' first for signed types); false for an empty field,
// any other byte or more digits than fit.
template <typename T>
bool ParseNumber(std::string_view field, T& value) {
  bool bNegative = false;
  if (std::is_signed_v<T> && !field.empty() && field.front() == '-') {
    bNegative = true;
    field.remove_prefix(1);
  }
  if (field.empty() || field.size() > 18) return false;
  uint64_t ullValue = 0;
  for (const char c : field) {
    if (c < '0' || c > '9') return false;
    ullValue = ullValue * 10 + static_cast<uint64_t>(c - '0');
  }
  value = bNegative ? static_cast<T>(-static_cast<int64_t>(ullValue)) : static_cast<T>(ullValue);
  return true;
}

// Takes the field after the last ':' of `values` (the whole rest when there is none left).
std::string_view TakeLast(std::string_view& values, bool& bHadDelimiter) {
  const size_t pos = values.rfind(':');
  bHadDelimiter = pos != std::string_view::npos;
  if (!bHadDelimiter) {
    std::string_view field = values;
    values = std::string_view();
    return field;
  }
  std::string_view field = values.substr(pos + 1);
  values = values.substr(0, pos);
  return field;
}
}  // namespace

CGpfsPathEnumerator::CGpfsPathEnumerator(const std::string& strCollectFile, uint64_t& ullDevice,
                                         uint64_t& ullReferenceTime,
                                         const std::string& strLocalScanPath,
                                         const std::string& strSourceScanPath, bool bHardLinks,
                                         bool bDiskCleanup, bool bTrueUp)
    : m_strCollectFile(strCollectFile),
      m_ullDevice(ullDevice),
      m_ullReferenceTime(ullReferenceTime),
      m_strLocalScanPath(FXPath::RemoveTrailingDelimiters(strLocalScanPath)),
      m_strSourceScanPath(FXPath::RemoveTrailingDelimiters(strSourceScanPath)),
      m_bHardLinks(bHardLinks || bDiskCleanup || bTrueUp),
      m_bAllTimes(bDiskCleanup || bTrueUp),
      m_vStreamBuffer(kStreamBufferBytes) {
  m_stream.rdbuf()->pubsetbuf(m_vStreamBuffer.data(), static_cast<std::streamsize>(m_vStreamBuffer.size()));
  m_stream.open(strCollectFile, std::ios::in | std::ios::binary);
}

CGpfsPathEnumerator::~CGpfsPathEnumerator() = default;

CQiError CGpfsPathEnumerator::GetItemByPath(const std::string& strPath, CItemPtr& pItem,
                                            ContentMapperAPI* pMapper) {
  QI_RETURN_IF_ERROR(m_basic.GetItemByPath(strPath, pItem, pMapper));
  return CQiError();
}

CQiError CGpfsPathEnumerator::GetItemByPath(const std::string& strLocalPath,
                                            const std::string& strSourcePath, CItemPtr& pItem) {
  QI_RETURN_IF_ERROR(m_basic.GetItemByPath(strLocalPath, strSourcePath, pItem));
  return CQiError();
}

CQiError CGpfsPathEnumerator::GetItemByPath(CBagPtr pBag, const std::string& strPath,
                                            CItemPtr& pItem, ContentMapperAPI* pMapper) {
  QI_RETURN_IF_ERROR(m_basic.GetItemByPath(std::move(pBag), strPath, pItem, pMapper));
  return CQiError();
}

CQiError CGpfsPathEnumerator::GetItemByPath(CBagPtr pBag, const std::string& strLocalPath,
                                            const std::string& strSourcePath, CItemPtr& pItem) {
  QI_RETURN_IF_ERROR(m_basic.GetItemByPath(std::move(pBag), strLocalPath, strSourcePath, pItem));
  return CQiError();
}

CQiError CGpfsPathEnumerator::FindFirst(const std::string& strPattern, CItemPtr pParent,
                                        CItemPtr& pItem) {
  pItem.reset();
  if (!m_stream.is_open() || m_stream.bad())
    return QI_ERROR_ERRNO(EINVAL, "Bad Gpfs collectfile");
  // Every record comes with the listing of the scan path; other folders list nothing.
  if (FXPath::RemoveTrailingDelimiters(strPattern) != m_strLocalScanPath)
    return QI_ERROR_WIN32(QiErrorCode::NoMoreFiles, "No more files");
  m_stream.clear();
  m_stream.seekg(0);
  if (!m_stream.good()) return QI_ERROR_ERRNO(EINVAL, "Bad Gpfs collectfile");
  m_pBag = pParent ? pParent->GetWorkUnitBag() : CBagPtr();
  m_strParentRaw.clear();
  m_strParentUtf8.clear();
  CQiError error = FindNext(pItem);
  if (error.IsError()) return QI_PUSH(error);
  return CQiError();
}

CQiError CGpfsPathEnumerator::FindNext(CItemPtr& pItem) {
  pItem.reset();
  struct stat st {};
  bool bModified = false;
  QI_RETURN_IF_ERROR(ReadNextCollectEntry(st, m_strPath, bModified));
  const FXFile::CFileData data(m_strPath, FXFile::CFileData::kModeFullPath, &st);
  // The source path: the source scan path in place of the local one.
  if (m_strLocalScanPath != m_strSourceScanPath &&
      FXPath::IsAncestorOf(m_strLocalScanPath, m_strPath, true)) {
    std::string strSourcePath = m_strSourceScanPath;
    strSourcePath.append(m_strPath, m_strLocalScanPath == "/" ? 0 : m_strLocalScanPath.size());
    if (ZRLOG_ON(2))
      ZRLOG(2, "itemPath %s, strSourcePath %s", Esc(m_strPath).c_str(), Esc(strSourcePath).c_str());
    pItem = std::make_shared<CFindFirstItem>(m_pBag, m_strPath, strSourcePath, data);
    return CQiError();
  }
  if (ZRLOG_ON(2)) ZRLOG(2, "itemPath %s, strSourcePath %s", Esc(m_strPath).c_str(), Esc(m_strPath).c_str());
  pItem = std::make_shared<CFindFirstItem>(m_pBag, m_strPath, data);
  return CQiError();
}

CQiError CGpfsPathEnumerator::ReadNextCollectEntry(struct stat& st, std::string& strPath,
                                                   bool& bModified) {
  for (;;) {
    if (!std::getline(m_stream, m_strLine)) {
      if (m_stream.bad()) return QI_ERROR_ERRNO(EIO, "Failed to read %s", Esc(m_strCollectFile).c_str());
      return QI_ERROR_WIN32(QiErrorCode::NoMoreFiles, "No more files");
    }
    std::string strRaw;
    if (!ParseCollectEntry(m_strLine, st, strRaw, bModified) || !ConvertPath(strRaw))
      return InvalidEntry(m_strLine);
    if (m_strPath.find('/') == std::string::npos) {
      ZRLOG(-1, "Invalid entry %s in %s", Esc(m_strLine).c_str(), Esc(m_strCollectFile).c_str());
      continue;
    }
    strPath = m_strPath;
    break;
  }
  st.st_dev = static_cast<dev_t>(m_ullDevice);
  if (!bModified) st.st_blocks = static_cast<blkcnt_t>((st.st_size + 511) / 512);
  if (S_ISDIR(st.st_mode)) {
    const time_t tLater = static_cast<time_t>(m_ullReferenceTime + 1);
    if (st.st_mtim.tv_sec == 0) st.st_mtim.tv_sec = tLater;
    if (st.st_ctim.tv_sec == 0) st.st_ctim.tv_sec = tLater;
  }
  if (ZRLOG_ON(5))
    ZRLOG(5, "%s: bIsModified %d, isDir %d, isSymLink %d, size %lld, links %d, inode %llu, ctime %lu mtime %lu",
          Esc(strPath).c_str(), bModified ? 1 : 0, S_ISDIR(st.st_mode) ? 1 : 0,
          S_ISLNK(st.st_mode) ? 1 : 0, static_cast<long long>(st.st_size),
          static_cast<int>(st.st_nlink), static_cast<unsigned long long>(st.st_ino),
          static_cast<unsigned long>(st.st_ctim.tv_sec), static_cast<unsigned long>(st.st_mtim.tv_sec));
  return CQiError();
}

bool CGpfsPathEnumerator::ParseCollectEntry(const std::string& strLine, struct stat& st,
                                            std::string& strPath, bool& bModified) const {
  std::string_view line(strLine);
  // "WEIGHT(INF) LIST '" is common to both prefixes; the next letter tells them apart.
  constexpr size_t uCommon = 18;
  size_t uPrefix;
  if (!StartsWithNoCase(line, std::string_view(kModifiedPrefix, uCommon))) return false;
  if (StartsWithNoCase(line.substr(uCommon), kUnmodifiedPrefix + uCommon)) {
    bModified = false;
    uPrefix = strlen(kUnmodifiedPrefix);
  } else if (StartsWithNoCase(line.substr(uCommon), kModifiedPrefix + uCommon)) {
    bModified = true;
    uPrefix = strlen(kModifiedPrefix);
  } else {
    return false;
  }
  const size_t uShow = FindLastShow(line);
  if (uShow == std::string_view::npos || uShow < uPrefix || line.back() != ')') return false;
  std::string_view values = line.substr(uShow + strlen(kShowMarker));
  values.remove_suffix(1);

  st = {};
  bool bDelimiter = false;
  long long llTime = 0;
  if (m_bAllTimes) {
    if (!ParseNumber(TakeLast(values, bDelimiter), llTime) || !bDelimiter) return false;
    st.st_mtim.tv_sec = static_cast<time_t>(llTime);
    if (!ParseNumber(TakeLast(values, bDelimiter), llTime) || !bDelimiter) return false;
    st.st_atim.tv_sec = static_cast<time_t>(llTime);
  }
  if (m_bHardLinks) {
    if (!ParseNumber(TakeLast(values, bDelimiter), llTime) || !bDelimiter) return false;
    st.st_ctim.tv_sec = static_cast<time_t>(llTime);
    unsigned long long ullInode = 0;
    if (!ParseNumber(TakeLast(values, bDelimiter), ullInode) || !bDelimiter) return false;
    st.st_ino = static_cast<ino_t>(ullInode);
  }
  unsigned long long ullLinks = 0;
  long long llSize = 0;
  if (!ParseNumber(TakeLast(values, bDelimiter), ullLinks) || !bDelimiter) return false;
  if (!ParseNumber(TakeLast(values, bDelimiter), llSize) || !bDelimiter || llSize < 0) return false;
  if (values.size() != 1) return false;  // the mode character, and nothing before it
  st.st_nlink = static_cast<nlink_t>(ullLinks);
  st.st_size = static_cast<off_t>(llSize);
  st.st_mode = values[0] == 'd' ? S_IFDIR : values[0] == 'l' ? S_IFLNK : S_IFREG;

  strPath.assign(line.substr(uPrefix, uShow - uPrefix));
  for (size_t pos = strPath.find(kNewLineMarker); pos != std::string::npos;
       pos = strPath.find(kNewLineMarker, pos + 1))
    strPath.replace(pos, strlen(kNewLineMarker), "\n");
  return true;
}

bool CGpfsPathEnumerator::ConvertPath(const std::string& strRaw) {
  // File names on this platform are UTF-8 byte strings, so the conversion from the local
  // encoding checks the bytes. The parent folder is checked once per run of entries.
  const size_t uSlash = strRaw.rfind('/');
  if (uSlash == std::string::npos) {
    if (!IsUtf8(strRaw)) return false;
    m_strPath = strRaw;
    return true;
  }
  const std::string_view parent = std::string_view(strRaw).substr(0, uSlash);
  if (parent != m_strParentRaw || m_strParentUtf8.empty()) {
    if (!IsUtf8(parent)) return false;
    m_strParentRaw.assign(parent);
    m_strParentUtf8.assign(parent);
  }
  const std::string_view name = std::string_view(strRaw).substr(uSlash + 1);
  if (!IsUtf8(name)) return false;
  m_strPath = m_strParentUtf8;
  m_strPath.push_back('/');
  m_strPath.append(name);
  return true;
}

CQiError CGpfsPathEnumerator::InvalidEntry(const std::string& strLine) {
  ZRLOG(-1, "Invalid entry %s in %s", Esc(strLine).c_str(), Esc(m_strCollectFile).c_str());
  CQiError error = QI_ERROR_ERRNO(EINVAL, "Invalid entry %s in %s", Esc(strLine).c_str(),
                                  Esc(m_strCollectFile).c_str());
  if (m_collectError.IsSuccess()) m_collectError = error;
  return error;
}
