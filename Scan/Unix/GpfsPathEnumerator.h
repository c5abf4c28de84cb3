// CGpfsPathEnumerator: serves the entries of a GPFS policy listing (the sorted collect file
// written by CGpfsScanEngine) as if they were the listing of the scan path.
//
// Collect record, one per line:
//   WEIGHT(INF) LIST 'MODIFIED' <path> SHOW(<mode>:<size>:<links>[:<inode>:<ctime>[:<atime>:<mtime>]])
// ('UNMODIFIED' for the other list; prefixes matched without regard to case). A newline inside a
// path stands as "%ZRnewLine%". The optional columns are there with hard links (inode, ctime)
// and with disk cleanup or true-up (all four), as the constructor's flags say.
//
// Listing: FindFirst on the scan path starts over at the top of the collect file and FindNext
// hands out every record of it, whatever folder it lies in: the traversal that drives this
// enumerator (CGpfsEnumerateFiles) reports folders without walking them. FindFirst on any other
// folder is an empty listing (18). An entry's local path is its path in the collect file; its
// source path is the source scan path joined with what follows the local scan path. Its status
// is built from the record: file-type bits of the mode only, the volume's device number, the
// block count of an unmodified entry (size / 512 rounded up), and for a folder whose collect
// file carries no times, modification and change time one second after the reference time.
//
// Bad input: a record without either list prefix, without " SHOW(" or with too few values, and a
// path that is not UTF-8, end the listing with EINVAL "Invalid entry <line> in <file>" (logged at
// level -1); the first such error is kept (GetCollectError) so that the engine fails the work
// unit instead of reporting a partial listing. A path without any "/" is logged the same way and
// skipped. GetItemByPath describes real paths (lstat), as CBasicPathEnumerator does.
//
// The device number and reference time are read through the references given at construction
// (owned by the engine, which outlives the enumerator). One thread at a time; Clone() is the base
// one (no clone), so the traversal lists with this object on its single worker.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "Scan/BasicPathEnumerator.h"
#include "Scan/PathEnumerator.h"

class CGpfsPathEnumerator : public CPathEnumerator {
 public:
  static constexpr const char* kNewLineMarker = "%ZRnewLine%";
  static constexpr const char* kModifiedPrefix = "WEIGHT(INF) LIST 'MODIFIED' ";
  static constexpr const char* kUnmodifiedPrefix = "WEIGHT(INF) LIST 'UNMODIFIED' ";
  static constexpr const char* kShowMarker = " SHOW(";

  CGpfsPathEnumerator(const std::string& strCollectFile, uint64_t& ullDevice,
                      uint64_t& ullReferenceTime, const std::string& strLocalScanPath,
                      const std::string& strSourceScanPath, bool bHardLinks, bool bDiskCleanup,
                      bool bTrueUp);
  ~CGpfsPathEnumerator() override;

  CQiError GetItemByPath(const std::string& strPath, CItemPtr& pItem,
                         ContentMapperAPI* pMapper) override;
  CQiError GetItemByPath(const std::string& strLocalPath, const std::string& strSourcePath,
                         CItemPtr& pItem) override;
  CQiError GetItemByPath(CBagPtr pBag, const std::string& strPath, CItemPtr& pItem,
                         ContentMapperAPI* pMapper) override;
  CQiError GetItemByPath(CBagPtr pBag, const std::string& strLocalPath,
                         const std::string& strSourcePath, CItemPtr& pItem) override;
  CQiError FindFirst(const std::string& strPattern, CItemPtr pParent, CItemPtr& pItem) override;
  CQiError FindNext(CItemPtr& pItem) override;

  // Reads the next record: its status, path (newlines restored, UTF-8) and list. 18 at the end.
  CQiError ReadNextCollectEntry(struct stat& st, std::string& strPath, bool& bModified);
  // Parses one record; false when it is not one.
  bool ParseCollectEntry(const std::string& strLine, struct stat& st, std::string& strPath,
                         bool& bModified) const;
  // The first invalid record met, if any.
  const CQiError& GetCollectError() const { return m_collectError; }

 private:
  // Checks the path's bytes and fills m_strPath; false when they are not UTF-8. The parent
  // folder is checked only when it differs from the previous entry's.
  bool ConvertPath(const std::string& strRaw);
  CQiError InvalidEntry(const std::string& strLine);

  std::string m_strCollectFile;
  uint64_t& m_ullDevice;
  uint64_t& m_ullReferenceTime;
  std::string m_strLocalScanPath;   // without trailing delimiters
  std::string m_strSourceScanPath;  // without trailing delimiters
  bool m_bHardLinks;
  bool m_bAllTimes;                 // disk cleanup or true-up
  std::ifstream m_stream;
  std::vector<char> m_vStreamBuffer;
  CBasicPathEnumerator m_basic;     // describes real paths for GetItemByPath
  CBagPtr m_pBag;                   // the bag of the listed folder, carried by every item
  std::string m_strLine;
  std::string m_strPath;
  std::string m_strParentRaw;       // the parent folder last checked, as read
  std::string m_strParentUtf8;      // and as converted
  CQiError m_collectError;
};

using CGpfsPathEnumeratorPtr = std::shared_ptr<CGpfsPathEnumerator>;
