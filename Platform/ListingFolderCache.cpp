#include "Platform/ListingFolderCache.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <string>
#include <string_view>
#include <thread>

#include "Platform/BlockingCallWatch.h"

namespace {
constexpr int kOpenFlags = CListingFolderCache::kOpenFlags;

thread_local CListingFolderCache* t_pCache = nullptr;

// Opens a folder by path. A path of PATH_MAX bytes or more is opened piece by piece, each piece
// shorter than PATH_MAX and relative to the one before it: the kernel refuses such a path whole,
// and another worker may still be listing the parent, so that no kept descriptor can be used.
// The lookups are those of the whole path (links in the pieces are followed alike).
int OpenByPath(const std::string& strFolder) {
  CBlockingCallWatch::CCall call;
  if (strFolder.size() < PATH_MAX) return openat(AT_FDCWD, strFolder.c_str(), kOpenFlags);
  int iDirFd = AT_FDCWD;
  size_t uStart = 0;
  auto fnCloseDir = [&iDirFd] {
    if (iDirFd >= 0) {
      const int iError = errno;
      close(iDirFd);
      errno = iError;
    }
  };
  while (strFolder.size() - uStart >= PATH_MAX) {
    const size_t uSlash = strFolder.rfind('/', uStart + PATH_MAX - 1);
    if (uSlash == std::string::npos || uSlash <= uStart) {
      fnCloseDir();
      errno = ENAMETOOLONG;  // one name longer than any file system allows
      return -1;
    }
    const std::string strPiece = strFolder.substr(uStart, uSlash - uStart);
    const int iNext = openat(iDirFd, strPiece.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    fnCloseDir();
    if (iNext < 0) return -1;
    iDirFd = iNext;
    uStart = uSlash + 1;
  }
  const int iFd = openat(iDirFd, strFolder.c_str() + uStart, kOpenFlags);
  fnCloseDir();
  return iFd;
}
}  // namespace

CListingFolderCache::~CListingFolderCache() {
  // No scope holds the cache any more, so no slot is in use.
  for (SKept& kept : m_aKept)
    if (kept.iFd >= 0) close(kept.iFd);
}

CListingFolderCache::CThreadScope::CThreadScope(std::shared_ptr<CListingFolderCache> pCache)
    : m_pCache(std::move(pCache)), m_pPrevious(t_pCache) {
  t_pCache = m_pCache.get();
}

CListingFolderCache::CThreadScope::~CThreadScope() { t_pCache = m_pPrevious; }

int CListingFolderCache::Open(const std::string& strFolder) {
  int iFd = OpenOnce(strFolder);
  CListingFolderCache* pCache = t_pCache;
  if (iFd >= 0 || (errno != EMFILE && errno != ENFILE) || pCache == nullptr) return iFd;
  // Out of descriptors: the cache keeps none from now on and gives back what it holds. Other
  // workers may take a freed descriptor first, or still be opening through a kept one, so the
  // open is tried a few more times while they settle.
  pCache->m_bKeepNone.store(true, std::memory_order_relaxed);
  for (int iTry = 0; iTry < kDescriptorRetries; ++iTry) {
    (void)pCache->CloseIdle();
    iFd = OpenOnce(strFolder);
    if (iFd >= 0 || (errno != EMFILE && errno != ENFILE)) return iFd;
    const int iError = errno;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    errno = iError;
  }
  return iFd;
}

int CListingFolderCache::OpenOnce(const std::string& strFolder) {
  CListingFolderCache* pCache = t_pCache;
  const size_t nSlash = strFolder.rfind('/');
  if (pCache != nullptr && nSlash != std::string::npos && nSlash + 1 < strFolder.size()) {
    const std::string_view parent(strFolder.data(), nSlash == 0 ? 1 : nSlash);
    const char* szName = strFolder.c_str() + nSlash + 1;
    const bool bDots =
        szName[0] == '.' && (szName[1] == '\0' || (szName[1] == '.' && szName[2] == '\0'));
    SKept* pParent = nullptr;
    if (!bDots) {
      std::lock_guard<std::mutex> lock(pCache->m_mutex);
      for (SKept& kept : pCache->m_aKept) {
        if (kept.iFd >= 0 && *kept.pFolder == parent) {
          // In use: no other thread closes or replaces it until it is given back below.
          ++kept.iUsers;
          pParent = &kept;
          break;
        }
      }
    }
    if (pParent != nullptr) {
      int iFd;
      {
        CBlockingCallWatch::CCall call;
        iFd = openat(pParent->iFd, szName, kOpenFlags);
      }
      const int iError = errno;
      {
        std::lock_guard<std::mutex> lock(pCache->m_mutex);
        --pParent->iUsers;
      }
      errno = iError;
      return iFd;
    }
  }
  return OpenByPath(strFolder);
}

bool CListingFolderCache::Keep(std::shared_ptr<const std::string> pFolder, int iFd) {
  CListingFolderCache* pCache = t_pCache;
  if (pCache == nullptr || !pFolder || iFd < 0 || pCache->m_bKeepNone.load(std::memory_order_relaxed))
    return false;
  int iOldFd = -1;
  {
    std::lock_guard<std::mutex> lock(pCache->m_mutex);
    // The oldest slot that nobody is opening through.
    size_t uSlot = pCache->m_uNext;
    size_t uTried = 0;
    while (pCache->m_aKept[uSlot].iUsers > 0 && ++uTried < kCapacity) uSlot = (uSlot + 1) % kCapacity;
    SKept& slot = pCache->m_aKept[uSlot];
    if (slot.iUsers > 0) return false;  // every slot in use: the caller closes it
    iOldFd = slot.iFd;
    slot.pFolder = std::move(pFolder);
    slot.iFd = iFd;
    pCache->m_uNext = (uSlot + 1) % kCapacity;
  }
  if (iOldFd >= 0) close(iOldFd);
  return true;
}

void CListingFolderCache::CloseAll() {
  std::lock_guard<std::mutex> lock(m_mutex);
  for (SKept& kept : m_aKept) {
    if (kept.iUsers > 0) continue;  // its user's thread gives it back; the destructor closes it
    if (kept.iFd >= 0) close(kept.iFd);
    kept.iFd = -1;
    kept.pFolder.reset();
  }
  m_uNext = 0;
}

size_t CListingFolderCache::CloseIdle() {
  std::lock_guard<std::mutex> lock(m_mutex);
  size_t uClosed = 0;
  for (SKept& kept : m_aKept) {
    if (kept.iUsers > 0 || kept.iFd < 0) continue;
    close(kept.iFd);
    kept.iFd = -1;
    kept.pFolder.reset();
    ++uClosed;
  }
  return uClosed;
}

size_t CListingFolderCache::GetKeptCount() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  size_t n = 0;
  for (const SKept& kept : m_aKept) n += kept.iFd >= 0 ? 1 : 0;
  return n;
}
