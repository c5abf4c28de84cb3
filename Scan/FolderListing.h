// CFolderListing: lists one queued folder and dispatches its entries. It is the per-folder core
// that both folder traversals share (CScanTraverseFolder and the workers of CTraverseFolder2), so
// that the rules of a listing hold, and are mended, in one place:
//   - a content root is described by its path; a root that is not a folder is dispatched alone;
//   - the folder is listed with the given path enumerator (which opens it only when it is still
//     the object its item describes) and every entry is dispatched by kind to the hooks:
//     OnFolder, OnFile, OnReparsePointFolder, OnReparsePointFile;
//   - reparse points (symbolic links) come after every other entry of their folder: up to
//     kMaxHeldReparsePoints of them are held during the listing, a folder with more is listed a
//     second time for them;
//   - an entry that vanished since the listing (errno 2) is passed over; any other entry whose
//     status cannot be read (errno 13 included) goes to OnFailedContent by name; a folder that
//     cannot be listed or described goes to OnFailedContent. Errors of the first folder end the
//     traversal, later ones are reported and the walk goes on;
//   - the abort check (IsListingAborted) is polled between entries: Win32 995 "Operation aborted";
//   - a consumer error of a dispatch stops the folder only when FailOnConsumerError says so;
//   - a worker given up while stuck in a file-system call (CBlockingCallWatch::IsAbandoned)
//     stops right after the call, before it touches the hooks again.
//
// The listing retries of the traversal's design are kept behind the single switch ShouldRetry,
// which answers no for every error: no listing is ever retried.
//
// Ownership and threads: an object is made for one listing (or a few) on the thread that lists;
// it holds references to the hooks, the bag and the volume name, which outlive it. The hooks are
// called on that thread; several listings of one traversal may run at once on its workers.
#pragma once

#include <cstdint>
#include <string>

#include "Platform/Bag.h"
#include "Platform/QiError.h"
#include "Scan/Item.h"
#include "Scan/PathEnumerator.h"

class CFolderListing {
 public:
  // Listing retries: the most restarts of one folder's listing, and the pause between them.
  static constexpr int kMaxListingRetries = 5;
  static constexpr uint32_t kListingRetryDelayMs = 1000;
  // The reparse points of one folder held aside for dispatch after the folder's other entries;
  // a folder with more is listed a second time for them.
  static constexpr size_t kMaxHeldReparsePoints = 1024;

  // What a traversal does with what a listing meets.
  class CHooks {
   public:
    virtual ~CHooks() = default;
    virtual CQiError OnFolder(const std::string& strInput, const std::string& strOutput,
                              CItemPtr& pItem) = 0;
    virtual CQiError OnFile(const std::string& strInput, const std::string& strOutput,
                            CItemPtr& pItem) = 0;
    virtual CQiError OnReparsePointFolder(const std::string& strInput,
                                          const std::string& strOutput, CItemPtr& pItem) = 0;
    virtual CQiError OnReparsePointFile(const std::string& strInput, const std::string& strOutput,
                                        CItemPtr& pItem) = 0;
    // A path could not be listed (bIsFile false) or described.
    virtual CQiError OnFailedContent(const std::string& strInput, const std::string& strOutput,
                                     bool bIsFile, const CQiError& error) = 0;
    virtual bool IsListingAborted() const = 0;
    // True when a consumer error of a dispatch stops the folder.
    virtual bool FailOnConsumerError(const CQiError& error) const = 0;
    // For log lines: the folders still queued.
    virtual uint64_t GetQueuedFolderCount() const = 0;
  };

  // One queued folder, as both traversals' queue entries describe it.
  struct SEntry {
    const std::string& strInput;
    const std::string& strOutput;
    const CItemPtr& pFolderItem;  // null for a content root: described by its path
    bool bReparsePoint;
    const std::string& strEndSubstituteName;  // the folder to list for a reparse-point entry
  };

  // pBag is carried by the items of content roots; strVolumeName names the per-thread counters.
  CFolderListing(CHooks& hooks, const CBagPtr& pBag, const std::string& strVolumeName)
      : m_hooks(hooks), m_pBag(pBag), m_strVolumeName(strVolumeName) {}
  CFolderListing(const CFolderListing&) = delete;
  CFolderListing& operator=(const CFolderListing&) = delete;

  // Lists one folder with the enumerator; bFirstFolder makes its errors fatal.
  CQiError TraverseFolder(const SEntry& entry, CPathEnumerator& enumerator, bool bFirstFolder);
  // Top-level processing of a content root: the root's own item (pItem when known, else
  // described by its path) is dispatched as an entry of its parent's listing would be.
  // bReported is false, and nothing is dispatched, when the root does not exist or cannot be
  // described: its listing is left to report it.
  CQiError ProcessRoot(const std::string& strInput, const std::string& strOutput, CItemPtr pItem,
                       CPathEnumerator& enumerator, bool& bReported);
  // Dispatches one item by kind to the hooks (timed in the per-scan counter).
  CQiError ProcessItem(const std::string& strInput, const std::string& strOutput, CItemPtr& pItem);

  // The single switch of the listing retries: no error is retried.
  static bool ShouldRetry(const CQiError& error);

 private:
  struct SListing;

  CQiError ListFolder(SListing& listing);
  CQiError ProcessEntry(SListing& listing, CQiError& entryError, CItemPtr& pItem);
  // ProcessItem without its timer, for the listing loop that times its entries itself.
  CQiError DispatchItem(const std::string& strInput, const std::string& strOutput, CItemPtr& pItem);
  CQiError OnListingError(SListing& listing, const CQiError& error);
  // A folder (or content root) that is gone or cannot be described: logged and reported.
  void ReportMissingFolder(const SListing& listing, const CQiError& error);
  CQiError AbortedError(const SListing& listing) const;

  CHooks& m_hooks;
  const CBagPtr& m_pBag;
  const std::string& m_strVolumeName;
};
