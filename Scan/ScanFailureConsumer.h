// CScanFailureConsumer: the writer of the failures file, one line per object that a scan could
// not read, so that a later job can re-scan them (CFailedFilesScanner).
//
// Line format: "%s %s:%d" followed by one line feed, no header or trailer:
//   - "file" when the item is a regular file, else "folder" (links, devices and items of unknown
//     type are written as "folder" too);
//   - the item's source path, written raw (a colon or a line feed in it is not escaped);
//   - the integer "errorCode" from the item's item bag, or 14 when it is missing or unreadable.
// Example: "file /data/a.txt:5".
//
// The file is opened at construction ("w" when the mode is empty) through FXFile::zrfopen; a
// failure there is only logged and the consumer stays closed: every Process then fails with
// Win32 6 and raises event 0x11000027 until Open succeeds. Open failures raise event 0x600001E.
// Every write failure is raised to the event sink as well as returned, because a lost failure
// record means a file that silently leaves the backup. Each record is flushed as it is written,
// so that a failure is known at the record it lost; the failed record is then dropped from the
// stream's buffer (it would otherwise go out with the next record) and a regular file is cut
// back to its last whole record, so that a short write leaves no torn line behind. Close
// reports a failed close (a file system that reports writes late) the same way.
//
// Counters: processed items (lines written) and bytes total (sum of the written items' sizes)
// change only on a successful write; Open with a mode that does not begin with 'a' resets both.
//
// Ownership: the consumer owns its FILE and closes it on Close, re-open and destruction.
// Threads: no operation takes a lock. A consumer shared by several threads must be serialised
// by its owner; GetMutex() gives the consumer's own mutex for that purpose.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>

#include "Platform/FXFile.h"
#include "Platform/FXMutex.h"
#include "Scan/ItemConsumer.h"

class CScanFailureConsumer : public CItemConsumer {
 public:
  static constexpr uint32_t kEventOpenFailed = 0x600001E;
  static constexpr uint32_t kEventWriteFailed = 0x11000027;
  // The item-bag key of the failure's error code, and its default.
  static constexpr const char* kErrorCodeKey = "errorCode";
  static constexpr int kDefaultErrorCode = 14;

  CScanFailureConsumer(int64_t llConsumerId, const std::string& strFileName,
                       const std::string& strMode);
  ~CScanFailureConsumer() override;

  // Writes the item's failure record.
  CQiError Process(CItemPtr pItem) override;
  virtual bool IsOpen() const;
  // (Re)opens the file with the stdio mode ("w" when empty).
  virtual CQiError Open(const std::string& strMode);
  // Closes the file. A close that fails is a write failure: event 0x11000027 and the errno.
  virtual CQiError Close();
  // The current write offset, 0 when closed.
  virtual int64_t tellp();

  // Writes the line and a line feed; counts one item and ullSize bytes.
  CQiError RawWriteItem(const std::string& strLine, unsigned long long ullSize);
  // Copies another text file line by line, trailing "\r\n" characters stripped, one count per
  // line. A file that cannot be opened gives no lines. A failed write takes the whole copy back.
  CQiError RawAppendFile(const std::string& strPath);
  const std::string& GetFileName() const { return m_strFileName; }
  uint64_t GetBytesTotal() const { return m_ullBytesTotal; }
  FXMutex& GetMutex() { return m_mutex; }

  // The record of an item, without the line feed.
  static std::string FormatRecord(CItem& item);

 private:
  CQiError NotOpenError();
  CQiError WriteFailedError(int iErrNo);
  // After a failed write: drops the stream's unwritten bytes and cuts a regular file back to
  // llGoodEnd (the end of the last whole record; negative when unknown).
  void DiscardUnwritten(off_t llGoodEnd);

  uint64_t m_ullBytesTotal = 0;
  std::string m_strFileName;
  FXFile::FILEPtr m_pFile;
  FXMutex m_mutex;
};

using CScanFailureConsumerPtr = std::shared_ptr<CScanFailureConsumer>;
