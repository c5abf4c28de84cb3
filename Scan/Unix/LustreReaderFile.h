// CLustreReaderFile: the Lustre engine's changelog-reader files, text with one line per MDT and
// tab-separated "key:value" fields:
//   "_ChangelogReaders.zrf":                   MDT:<name>\tHost:<host>\tChangelogID:<id>
//   "_ChangelogReaderStatistics_<kind>.zrf":   the same, then \tCurrentIndex:<index>
// Write puts the lines into "<file>.tmp", flushes it and renames it over the file, so a reader
// always finds a whole file. Read fails with errno when the file cannot be opened, Win32 13 on
// a line without the fields (or, with bIndex, without a numeric CurrentIndex) and Win32 13 "The
// Changelog Reader Statistics File is Empty." for an empty statistics file.
//
// Stateless; safe from any thread on different files.
#pragma once

#include <string>
#include <vector>

#include "Platform/QiError.h"
#include "Scan/Unix/LustreAPI.h"

class CLustreReaderFile {
 public:
  static CQiError Write(const std::string& strFile, const std::vector<sLustreChangelogInfo>& lstInfo, bool bIndex);
  static CQiError Read(const std::string& strFile, std::vector<sLustreChangelogInfo>& lstInfo, bool bIndex);
};
