// CListingFolderCache: keeps the descriptors of the last folders a traversal has listed, so that
// the next folder, usually a sub-folder of one of them, is opened relative to its parent's
// descriptor (one name to look up) instead of by its full path (every component looked up
// again). A depth-first traversal lists a folder's sub-folders soon after the folder itself, and
// opening folders by full path was about a tenth of a scan's system time.
//
// A traversal makes one cache and shares it with its workers. A thread uses it while it holds a
// CThreadScope on it: folder listings (DIR_Wrapper) of that thread then open folders through
// Open and hand the descriptors of finished listings to Keep. Without a scope on the thread,
// Open is a plain open by path and Keep refuses (the caller closes the descriptor).
//
// At most kCapacity descriptors are kept; the oldest one not in use is closed to make room. CloseAll, and the
// destructor, close every kept descriptor: the traversal closes them when it ends, since a kept
// descriptor would keep a snapshot's file system busy and stop it from being unmounted.
//
// A folder opened through its parent's descriptor is the object that the parent holds under that
// name when it is opened, as a path lookup would find it then (mount points are crossed alike).
// A symbolic link in the last component is never followed (O_NOFOLLOW): the open fails.
//
// Descriptors run out: when an open fails with EMFILE or ENFILE, the calling thread's cache stops
// keeping descriptors for the rest of its life, closes every kept one that no thread is using,
// and the open is tried again (a few times, while other workers settle), so that a low
// descriptor limit costs speed, never objects.
//
// Threads: the cache may be used from any number of threads at once (one mutex, taken around the
// look-up and the hand-over, never during a system call but close). A scope belongs to the
// thread that made it.
#pragma once

#include <fcntl.h>

#include <atomic>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>

class CListingFolderCache {
 public:
  static constexpr size_t kCapacity = 16;
  // Opens tried again after EMFILE/ENFILE, 1 ms apart.
  static constexpr int kDescriptorRetries = 50;
  // How folders are opened for listing.
  static constexpr int kOpenFlags = O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOCTTY | O_NOFOLLOW;

  CListingFolderCache() = default;
  ~CListingFolderCache();
  CListingFolderCache(const CListingFolderCache&) = delete;
  CListingFolderCache& operator=(const CListingFolderCache&) = delete;

  // Makes the cache the calling thread's for the scope's life (the thread's previous cache, if
  // any, comes back afterwards). A null cache leaves the thread without one.
  class CThreadScope {
   public:
    explicit CThreadScope(std::shared_ptr<CListingFolderCache> pCache);
    ~CThreadScope();
    CThreadScope(const CThreadScope&) = delete;
    CThreadScope& operator=(const CThreadScope&) = delete;

   private:
    std::shared_ptr<CListingFolderCache> m_pCache;
    CListingFolderCache* m_pPrevious;
  };

  // Opens a folder for listing (kOpenFlags: O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOCTTY |
  // O_NOFOLLOW) through the calling
  // thread's cache: relative to a kept descriptor of its parent when there is one, else by path
  // (a path of PATH_MAX bytes or more piece by piece, so that folders beyond PATH_MAX open
  // whether or not their parent is kept). open(2)'s result: a descriptor, or -1 with errno set.
  static int Open(const std::string& strFolder);
  // Offers the descriptor of a folder whose listing is done to the calling thread's cache. True
  // when the cache took it (and will close it); false when the thread has no cache.
  static bool Keep(std::shared_ptr<const std::string> pFolder, int iFd);

  // Closes every kept descriptor.
  void CloseAll();
  // Closes the kept descriptors that no thread is opening through; how many were closed.
  size_t CloseIdle();
  size_t GetKeptCount() const;

 private:
  struct SKept {
    std::shared_ptr<const std::string> pFolder;
    int iFd = -1;
    int iUsers = 0;  // threads opening a sub-folder through it right now: not to be replaced
  };

  static int OpenOnce(const std::string& strFolder);

  mutable std::mutex m_mutex;  // guards the slots
  SKept m_aKept[kCapacity];
  size_t m_uNext = 0;  // the slot to fill next (the oldest)
  std::atomic<bool> m_bKeepNone{false};  // descriptors ran out: nothing is kept any more
};

using CListingFolderCachePtr = std::shared_ptr<CListingFolderCache>;
