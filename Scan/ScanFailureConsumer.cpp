#include "Scan/ScanFailureConsumer.h"

#include <stdio_ext.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "Platform/FXErrorUtil.h"
#include "Platform/FXString.h"
#include "Platform/LogWriterInterface.h"
#include "Platform/SendEventInterface.h"

namespace {

// Raises an event with the failures file's name as its one argument. An event never changes
// the outcome of the operation that raised it; a failure to deliver is only logged.
void RaiseFileEvent(CQiError event, const std::string& strFileName) {
  CQiError error = ISendEventInterface::SendEventMessage(event, {strFileName});
  if (error.IsError())
    ZRLOG(-1, "Failed to send event 0x%X, error=%s", event.GetCode(), error.AsString().c_str());
}

// Frees the buffer of getline.
struct SLineBuffer {
  char* pData = nullptr;
  size_t uCapacity = 0;
  ~SLineBuffer() { free(pData); }
};

// The size of a regular file, -1 for anything else. Every record is flushed as it is written, so
// before a record this is the end of the last whole one (also in append mode, where the stream's
// offset says nothing until the first write).
off_t FileEnd(FILE* pFile) {
  struct stat st {};
  if (fstat(fileno(pFile), &st) != 0 || !S_ISREG(st.st_mode)) return -1;
  return st.st_size;
}

// errno after a failed stdio call; EIO when the library left none.
int LastErrNo() { return errno != 0 ? errno : EIO; }

}  // namespace

CScanFailureConsumer::CScanFailureConsumer(int64_t llConsumerId, const std::string& strFileName,
                                           const std::string& strMode)
    : CItemConsumer(llConsumerId), m_strFileName(strFileName) {
  CQiError error =
      FXFile::zrfopen(m_strFileName, strMode.empty() ? std::string("w") : strMode, m_pFile);
  if (error.IsError())
    ZRLOG(-1, "Failed to open output file '%s', error=%s",
          FXString::EscapeControl(m_strFileName).c_str(), error.AsString().c_str());
}

CScanFailureConsumer::~CScanFailureConsumer() = default;

bool CScanFailureConsumer::IsOpen() const { return m_pFile != nullptr; }

CQiError CScanFailureConsumer::Open(const std::string& strMode) {
  if (strMode.empty() || strMode[0] != 'a') {
    m_ullProcessedItems = 0;
    m_ullBytesTotal = 0;
  }
  // Close first, so that buffered lines reach the file before it is truncated or re-opened.
  m_pFile.reset();
  CQiError error =
      FXFile::zrfopen(m_strFileName, strMode.empty() ? std::string("w") : strMode, m_pFile);
  if (error.IsError()) {
    RaiseFileEvent(QI_ERROR_EVENT(kEventOpenFailed), m_strFileName);
    const std::string strShown = FXString::EscapeControl(m_strFileName);
    ZRLOG(-1, "Failed to open output file '%s', error=%s", strShown.c_str(),
          error.AsString().c_str());
    return QI_PUSH(error, "Failed to open output file '%s'", strShown.c_str());
  }
  return CQiError();
}

CQiError CScanFailureConsumer::Close() {
  if (!m_pFile) return CQiError();
  // Every record was flushed when it was written, but a file system may report a write only
  // when the file is closed (NFS, quotas): that is a lost record too.
  errno = 0;
  if (fclose(m_pFile.release()) != 0) return WriteFailedError(LastErrNo());
  return CQiError();
}

int64_t CScanFailureConsumer::tellp() {
  if (!m_pFile) return 0;
  const off_t llOffset = ftello(m_pFile.get());
  return llOffset < 0 ? 0 : static_cast<int64_t>(llOffset);
}

std::string CScanFailureConsumer::FormatRecord(CItem& item) {
  int iErrorCode = kDefaultErrorCode;
  CBagPtr pItemBag = item.GetItemBag();
  if (!pItemBag || pItemBag->Read(kErrorCodeKey, iErrorCode).IsError())
    iErrorCode = kDefaultErrorCode;

  // "%s %s:%d", built by concatenation so that every byte of the path is written as it is.
  const std::string& strPath = item.GetSourceFullyQualifiedItemName();
  std::string strRecord;
  strRecord.reserve(strPath.size() + 20);
  strRecord += item.IsRegularFile() ? "file" : "folder";
  strRecord += ' ';
  strRecord += strPath;
  strRecord += ':';
  strRecord += std::to_string(iErrorCode);
  return strRecord;
}

CQiError CScanFailureConsumer::Process(CItemPtr pItem) {
  if (!m_pFile) return NotOpenError();
  if (!pItem) return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "Null failure item");

  const std::string strRecord = FormatRecord(*pItem);
  CQiError error = RawWriteItem(strRecord, pItem->GetFileSize());
  if (error.IsError()) {
    QI_PUSH(error, "RawWriteItem failed");
    ZRLOG(-1, "%s: %s", error.GetMessage().c_str(), error.AsString().c_str());
    return error;
  }
  return CQiError();
}

CQiError CScanFailureConsumer::RawWriteItem(const std::string& strLine,
                                            unsigned long long ullSize) {
  if (!m_pFile) return NotOpenError();

  FILE* pFile = m_pFile.get();
  const off_t llRecordStart = FileEnd(pFile);
  errno = 0;
  if (fwrite(strLine.data(), 1, strLine.size(), pFile) != strLine.size() ||
      fputc('\n', pFile) == EOF || fflush(pFile) == EOF) {
    const int iErrNo = LastErrNo();
    DiscardUnwritten(llRecordStart);
    return WriteFailedError(iErrNo);
  }
  ++m_ullProcessedItems;
  m_ullBytesTotal += ullSize;
  return CQiError();
}

CQiError CScanFailureConsumer::RawAppendFile(const std::string& strPath) {
  if (!m_pFile) return NotOpenError();

  FXFile::FILEPtr pInput(FXFile::zrfopen(strPath, "r"));
  if (!pInput) return CQiError();  // nothing to copy

  // Appending the failures file to itself would never reach the end of the input.
  struct stat stInput {};
  struct stat stOutput {};
  if (fstat(fileno(pInput.get()), &stInput) == 0 && fstat(fileno(m_pFile.get()), &stOutput) == 0 &&
      stInput.st_dev == stOutput.st_dev && stInput.st_ino == stOutput.st_ino) {
    return QI_ERROR_WIN32(QiErrorCode::InvalidParameter,
                          "Cannot append the failures file to itself, Path=%s",
                          FXString::EscapeControl(strPath).c_str());
  }

  // The copy is whole or not at all: a failed write takes back the lines copied before it, so
  // that the count stays the number of lines in the file.
  FILE* pFile = m_pFile.get();
  const off_t llCopyStart = FileEnd(pFile);
  uint64_t ullLines = 0;
  SLineBuffer line;
  ssize_t llRead;
  while ((llRead = getline(&line.pData, &line.uCapacity, pInput.get())) >= 0) {
    size_t uLength = static_cast<size_t>(llRead);
    while (uLength > 0 && (line.pData[uLength - 1] == '\n' || line.pData[uLength - 1] == '\r'))
      --uLength;
    errno = 0;
    if (fwrite(line.pData, 1, uLength, pFile) != uLength || fputc('\n', pFile) == EOF) {
      const int iErrNo = LastErrNo();
      DiscardUnwritten(llCopyStart);
      return WriteFailedError(iErrNo);
    }
    ++ullLines;
  }
  errno = 0;
  if (fflush(pFile) == EOF) {
    const int iErrNo = LastErrNo();
    DiscardUnwritten(llCopyStart);
    return WriteFailedError(iErrNo);
  }
  m_ullProcessedItems += ullLines;
  return CQiError();
}

void CScanFailureConsumer::DiscardUnwritten(off_t llGoodEnd) {
  FILE* pFile = m_pFile.get();
  // What the stream still holds would go out with the next record that can be written.
  __fpurge(pFile);
  clearerr(pFile);
  // A short write may have left part of the record in the file; a regular file is cut back to
  // its last whole record so that the next record starts on a line of its own.
  if (llGoodEnd < 0 || FileEnd(pFile) <= llGoodEnd) return;
  if (ftruncate(fileno(pFile), llGoodEnd) != 0 || fseeko(pFile, llGoodEnd, SEEK_SET) != 0)
    ZRLOG(-1, "Failed to cut the failures file back to its last whole record, Path=%s, Offset=%lld",
          FXString::EscapeControl(m_strFileName).c_str(), static_cast<long long>(llGoodEnd));
}

CQiError CScanFailureConsumer::NotOpenError() {
  RaiseFileEvent(QI_ERROR_EVENT(kEventWriteFailed), m_strFileName);
  return QI_ERROR_WIN32(QiErrorCode::InvalidHandle, "Failures file is not open, Path=%s",
                        FXString::EscapeControl(m_strFileName).c_str());
}

CQiError CScanFailureConsumer::WriteFailedError(int iErrNo) {
  RaiseFileEvent(QI_ERROR_EVENT(kEventWriteFailed), m_strFileName);
  return QI_ERROR_ERRNO(iErrNo, "Failed to write to the failures file, Path=%s",
                        FXString::EscapeControl(m_strFileName).c_str());
}
