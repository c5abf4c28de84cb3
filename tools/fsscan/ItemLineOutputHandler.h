// CItemLineOutputHandler: the output handler of fsscan. Writes one record per selected item to
// a stdio stream and counts what it wrote.
//
// Formats:
//   Lines   "<type> <mode> <size> <mtime> <path>\n"
//           type   one letter as find's %y: f d l p s c b, U when the type is unknown;
//           mode   the permission bits (mode & 07777) as four octal digits, "----" when unknown;
//           size   the item's size in bytes (lstat's st_size; 0 for device nodes, the device's
//                  size for a raw device given as content);
//           mtime  seconds.nanoseconds since the epoch;
//           path   the source path, control bytes and backslashes escaped (FXString::EscapeControl)
//                  so that every record is one line.
//   Print0  the raw source path followed by one NUL byte, exactly as `find -print0` writes it.
//
// Counters: items, folders, and bytes (the sum of the sizes of the non-folder items), of the
// records written.
//
// Write failures: the first failed write is kept; from then on nothing more is written (a list
// with a hole in it would look complete), every OnItem that reaches the stream and Flush return
// that error, and the hook set with SetOnWriteFailure runs once (fsscan aborts the scan with it:
// a scan whose list cannot be written has no use).
//
// Threads: OnItem may be called from several traversal workers at once. Each thread appends its
// records to a buffer of its own and writes the buffer to the stream's descriptor (after
// flushing the stream) in blocks of about 64 KiB under one mutex, so records are never
// interleaved and no lock is taken per record. Flush
// writes what the buffers still hold; call it once the workers are done (after the scan). The
// counters include the records handed to the stream so far; after Flush they are complete. They
// may be read from any thread at any time. The stream is the caller's; it must outlive the
// handler's last OnItem.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Scan/OutputHandler.h"

class CItemLineOutputHandler : public COutputHandler {
 public:
  enum class EFormat { Lines, Print0 };

  CItemLineOutputHandler(FILE* pFile, EFormat eFormat);
  ~CItemLineOutputHandler() override;

  // Adds the item's record; a failed write returns its errno (which ends the scan).
  CQiError OnItem(CItemPtr pItem) override;
  // Deleted items do not occur in a full scan; they are counted by nobody and dropped.
  CQiError OnDeletedItem(CItemPtr pItem) override;
  uint64_t getProcessedItemsCount() override;

  // Writes the records still buffered and flushes the stream; the first write failure's errno.
  CQiError Flush();
  // Runs once, on the thread whose write failed, under the handler's lock: it must not call back
  // into the handler. Set before the scan.
  void SetOnWriteFailure(std::function<void()> fnOnWriteFailure);
  bool HasWriteFailed() const { return m_bFailed.load(std::memory_order_relaxed); }

  uint64_t GetItemCount() const { return m_ullItems.load(std::memory_order_relaxed); }
  uint64_t GetFolderCount() const { return m_ullFolders.load(std::memory_order_relaxed); }
  uint64_t GetByteCount() const { return m_ullBytes.load(std::memory_order_relaxed); }

  // The Lines record of an item, without the line feed.
  static std::string FormatLine(const CItem& item);
  // Appends the Lines record of an item, without the line feed.
  static void AppendLine(const CItem& item, std::string& strOut);

 private:
  // One thread's records not yet handed to the stream, and what they add to the counters.
  struct SThreadBuffer {
    std::string strData;
    uint64_t ullItems = 0;
    uint64_t ullFolders = 0;
    uint64_t ullBytes = 0;
  };

  SThreadBuffer& GetThreadBuffer();
  // Writes the buffer to the stream and adds its counts; the caller holds m_mutex.
  CQiError WriteLocked(SThreadBuffer& buffer);
  // Empties the buffer and its counts; the caller holds m_mutex.
  void DropLocked(SThreadBuffer& buffer);
  // Records the first write failure and drops the buffer; the caller holds m_mutex.
  CQiError FailLocked(SThreadBuffer& buffer, int iErrNo);

  const uint64_t m_ullInstanceId;  // tells this handler's thread buffers from another's
  std::mutex m_mutex;              // guards m_pFile, m_lstBuffers, m_writeError, the hook
  FILE* m_pFile;
  EFormat m_eFormat;
  std::vector<std::unique_ptr<SThreadBuffer>> m_lstBuffers;
  CQiError m_writeError;
  std::atomic<bool> m_bFailed{false};
  std::function<void()> m_fnOnWriteFailure;
  std::atomic<uint64_t> m_ullItems{0};
  std::atomic<uint64_t> m_ullFolders{0};
  std::atomic<uint64_t> m_ullBytes{0};
};

using CItemLineOutputHandlerPtr = std::shared_ptr<CItemLineOutputHandler>;
