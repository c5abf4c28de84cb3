// ZrScanDBLustreRecord: the scan-database record of one Lustre file or folder: a CScanDbRecord
// (full path, lstat data) whose file id is the object's FID in canonical text form
// ("[0x200000401:0x1:0x0]"). Hard links are several records with one FID.
//
// FromPath describes the object at a path as it is now (lstat). An object that is gone (a
// changelog applied after the fact may name paths that have since changed) still gives a record,
// with only the fallback file type set, so that the database follows the changelog; a later
// record or the enumeration refreshes it.
//
// SameState tells whether two records describe the object alike (type and permission bits,
// owner, size, link count, inode, modification and change time, FID): the incremental
// enumeration reports the entries whose state differs from the previous backup's database.
//
// A value; one thread per record.
#pragma once

#include <string>

#include "Scan/ScanDB/ScanDbRecord.h"

class ZrScanDBLustreRecord : public CScanDbRecord {
 public:
  ZrScanDBLustreRecord() = default;
  ZrScanDBLustreRecord(std::string strPath, const struct stat& st, std::string strFid)
      : CScanDbRecord(std::move(strPath), st, std::move(strFid)) {}

  // Fills the record for the path (lstat) and FID; bExists false when the path is gone and the
  // fallback mode was used.
  void FromPath(const std::string& strPath, const std::string& strFid, mode_t fallbackMode, bool& bExists);

  static bool SameState(const CScanDbRecord& a, const CScanDbRecord& b);
};
