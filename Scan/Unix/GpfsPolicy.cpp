#include "Scan/Unix/GpfsPolicy.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

#include "Platform/FXErrorUtil.h"
#include "Platform/FXString.h"
#include "Platform/ShellQuote.h"

namespace {
constexpr const char* kShowAllTimes =
    "SHOW( CONCAT( CONCAT( CONCAT( CONCAT( CONCAT( CONCAT( CONCAT( CONCAT( CONCAT( CONCAT( CONCAT( "
    "CONCAT( CONCAT( CONCAT( '', VARCHAR(MODE,1) ), ':'), VARCHAR(FILE_SIZE) ), ':' ), "
    "VARCHAR(NLINK) ), ':' ), VARCHAR(INODE) ), ':' ), VARCHAR(toUnixSeconds(CHANGE_TIME)) ), "
    "':'), VARCHAR(toUnixSeconds(ACCESS_TIME)) ), ':' ), "
    "VARCHAR(toUnixSeconds(MODIFICATION_TIME)) ), '' ) )";
constexpr const char* kShowHardLinks =
    "SHOW( CONCAT( CONCAT( CONCAT( CONCAT( CONCAT( CONCAT( CONCAT( CONCAT( CONCAT( CONCAT( '', "
    "VARCHAR(MODE,1) ), ':'), VARCHAR(FILE_SIZE) ), ':' ), VARCHAR(NLINK) ), ':' ), "
    "VARCHAR(INODE) ), ':' ), VARCHAR(toUnixSeconds(CHANGE_TIME)) ), '' ) )";
constexpr const char* kShowBase =
    "SHOW( CONCAT( CONCAT( CONCAT( CONCAT( CONCAT( CONCAT( '', VARCHAR(MODE,1) ), ':'), "
    "VARCHAR(FILE_SIZE) ), ':' ), VARCHAR(NLINK) ), '' ) )";
constexpr const char* kDefines =
    "define([toSeconds],[(($1) SECONDS(12,6))])\n"
    "define([toUnixSeconds],[toSeconds($1 - '1970-1-1@0:00')])\n";
constexpr const char* kNotOffline = " and not REGEX(MISC_ATTRIBUTES, '[o]')";
constexpr const char* kRecordStart = "WEIGHT(INF) LIST";
constexpr const char* kNewLineMarker = "%ZRnewLine%";
constexpr size_t kIoBufferBytes = size_t{1} << 20;

struct SFileCloser {
  void operator()(FILE* pFile) const { fclose(pFile); }
};
using FilePtr = std::unique_ptr<FILE, SFileCloser>;

struct SLineBuffer {
  char* pLine = nullptr;
  size_t nSize = 0;
  ~SLineBuffer() { free(pLine); }
};

bool StartsWithNoCase(std::string_view text, std::string_view prefix) {
  return text.size() >= prefix.size() && FXString::EqualsNoCase(text.substr(0, prefix.size()), prefix);
}

bool ContainsShowNoCase(std::string_view text) {
  for (const char* p = static_cast<const char*>(memchr(text.data(), '(', text.size())); p != nullptr;
       p = static_cast<const char*>(memchr(p + 1, '(', text.data() + text.size() - p - 1))) {
    const size_t pos = static_cast<size_t>(p - text.data());
    if (pos >= 5 && text[pos - 5] == ' ' && FXString::EqualsNoCase(text.substr(pos - 4, 4), "SHOW"))
      return true;
  }
  return false;
}

// The WHERE clause of one list: modified (a newline after it) or unmodified.
std::string WhereClause(const CGpfsPolicy::SOptions& options, bool bModified) {
  std::string strTest;
  if (options.bUseMtime && options.bUseCtime) {
    strTest = bModified ? "MODIFICATION_TIME > TIMESTAMP(RefTime) or CHANGE_TIME > TIMESTAMP(RefTime)"
                        : "MODIFICATION_TIME <= TIMESTAMP(RefTime) and CHANGE_TIME <= TIMESTAMP(RefTime)";
    // The modified test is an "or", so it is bracketed before "and not" joins it.
    if (options.bSkipOffline)
      strTest = (bModified ? "(" + strTest + ")" : strTest) + kNotOffline;
  } else {
    const char* szTime = options.bUseMtime ? "MODIFICATION_TIME" : "CHANGE_TIME";
    strTest = std::string(szTime) + (bModified ? " > " : " <= ") + "TIMESTAMP(RefTime)";
    if (options.bSkipOffline) strTest = "(" + strTest + ")" + kNotOffline;
  }
  return "WHERE (" + strTest + ")" + (bModified ? "\n" : "");
}
}  // namespace

CQiError CGpfsPolicy::BuildPolicyText(const SOptions& options, std::string& strText) {
  strText.clear();
  if (!options.bUseMtime && !options.bUseCtime)
    return QI_ERROR_ERRNO(EINVAL, "Invalid option. Both m_bUseMtimeForIncr and m_bUseCtimeForIncr not selected");
  const bool bAllTimes = options.bDiskCleanup || options.bTrueUp;
  const char* szShow = bAllTimes ? kShowAllTimes : options.bHardLinks ? kShowHardLinks : kShowBase;
  if (bAllTimes || options.bHardLinks) strText = kDefines;
  strText.append("RULE 'A' LIST 'modified' DIRECTORIES_PLUS ").append(szShow).append(WhereClause(options, true));
  strText.append("RULE 'B' LIST 'unmodified' DIRECTORIES_PLUS ").append(szShow).append(WhereClause(options, false));
  return CQiError();
}

std::string CGpfsPolicy::BuildScriptLine(const std::string& strBinDir, const std::string& strScanPath,
                                         const std::string& strPolicyFile, uint64_t ullReferenceTime,
                                         const std::string& strStderrFile, const std::string& strWorkDir,
                                         const std::string& strStdoutFile) {
  std::string strPath = strScanPath;
  if (strPath.empty() || strPath.back() != '/') strPath.push_back('/');
  return ShellQuote::Word(strBinDir + "mmapplypolicy") + " \"" + ShellQuote::InDoubleQuotes(strPath) +
         "\" -L 2 -P " + ShellQuote::Argument(strPolicyFile) + " -I test -M RefTime=" +
         std::to_string(ullReferenceTime) + " 2>" + ShellQuote::Argument(strStderrFile) + " -s " +
         ShellQuote::Argument(strWorkDir) + " > " + ShellQuote::Argument(strStdoutFile);
}

std::string CGpfsPolicy::ClusterStateCommand(const std::string& strBinDir) {
  return ShellQuote::Word(strBinDir + "mmgetstate") +
         " -s | awk '{ if( NF == 3 && ( $NF ~ /active/ || $NF ~ /arbitrating/ || $NF ~ /down/ || "
         "$NF ~ /unknown/ ) ) print $3; if( $0 ~ /^Quorum/ ) { if( $0 ~ /Quorum achieved/) print "
         "\"active\"; else print \"inactive\";} }' | tr '\\n' ':'";
}

CQiError CGpfsPolicy::PreProcessOutput(const std::string& strInput, const std::string& strOutput) {
  FilePtr pIn(fopen(strInput.c_str(), "re"));
  if (!pIn) {
    const int iErrNo = errno;
    return QI_ERROR_ERRNO(iErrNo, "Failed to open %s. errno %d", FXString::EscapeControl(strInput).c_str(), iErrNo);
  }
  FilePtr pOut(fopen(strOutput.c_str(), "we"));
  if (!pOut) {
    const int iErrNo = errno;
    return QI_ERROR_ERRNO(iErrNo, "Failed to open %s errno %d", FXString::EscapeControl(strOutput).c_str(), iErrNo);
  }
  setvbuf(pIn.get(), nullptr, _IOFBF, kIoBufferBytes);
  setvbuf(pOut.get(), nullptr, _IOFBF, kIoBufferBytes);
  const size_t uMarker = strlen(kNewLineMarker);
  SLineBuffer buffer;
  bool bPending = false;
  ssize_t nRead;
  errno = 0;
  while ((nRead = getline(&buffer.pLine, &buffer.nSize, pIn.get())) >= 0) {
    size_t uLength = static_cast<size_t>(nRead);
    if (uLength > 0 && buffer.pLine[uLength - 1] == '\n') --uLength;
    const std::string_view line(buffer.pLine, uLength);
    const bool bStart = StartsWithNoCase(line, kRecordStart);
    const bool bShow = ContainsShowNoCase(line);
    if (bStart && bPending) fputc('\n', pOut.get());  // the record before was cut short
    if (bStart || bPending) {
      fwrite(line.data(), 1, line.size(), pOut.get());
      if (bShow) {
        fputc('\n', pOut.get());
        bPending = false;
      } else {
        fwrite(kNewLineMarker, 1, uMarker, pOut.get());
        bPending = true;
      }
    }
    errno = 0;
  }
  if (ferror(pIn.get()))
    return QI_ERROR_ERRNO(errno != 0 ? errno : EIO, "Failed to read %s", FXString::EscapeControl(strInput).c_str());
  if (bPending) fputc('\n', pOut.get());
  if (fflush(pOut.get()) != 0 || ferror(pOut.get()))
    return QI_ERROR_ERRNO(errno != 0 ? errno : EIO, "Failed to write %s", FXString::EscapeControl(strOutput).c_str());
  return CQiError();
}

CQiError CGpfsPolicy::FindFatalError(const std::string& strStderrFile, std::string& strFatalLine) {
  strFatalLine.clear();
  FilePtr pIn(fopen(strStderrFile.c_str(), "re"));
  if (!pIn) {
    const int iErrNo = errno;
    return QI_ERROR_ERRNO(iErrNo, "Failed to open %s. errno %d", FXString::EscapeControl(strStderrFile).c_str(), iErrNo);
  }
  const char* szNoEntry = strerror(ENOENT);
  SLineBuffer buffer;
  ssize_t nRead;
  while ((nRead = getline(&buffer.pLine, &buffer.nSize, pIn.get())) >= 0) {
    std::string strLine(buffer.pLine, static_cast<size_t>(nRead));
    if (!strLine.empty() && strLine.back() == '\n') strLine.pop_back();
    if (!FXString::StartsWith(strLine, "[E]") || FXString::StartsWith(strLine, "[E] Summary of errors"))
      continue;
    if (strLine.find(szNoEntry) == std::string::npos) {
      strFatalLine = strLine;
      break;
    }
  }
  return CQiError();
}
