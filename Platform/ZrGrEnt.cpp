#include "Platform/ZrGrEnt.h"

#include <grp.h>
#include <unistd.h>

#include <cerrno>
#include <mutex>
#include <shared_mutex>
#include <unordered_map>
#include <vector>

#include "Platform/LogWriterInterface.h"

namespace {
struct SGroupCache {
  std::shared_mutex mutex;
  std::unordered_map<gid_t, std::string> names;
};

// Never freed, so that threads still running while the process exits find it intact.
SGroupCache& Cache() {
  static SGroupCache* s_pCache = new SGroupCache();
  return *s_pCache;
}

// Looks the id up in the group database. Returns true when the answer is final (a name, or no
// such group) and may be cached. Group entries carry their member lists and can be large, hence
// the growing buffer.
bool LookUpGroup(gid_t gid, std::string& name) {
  constexpr size_t kMaxBuffer = 1 << 20;
  long hint = sysconf(_SC_GETGR_R_SIZE_MAX);
  std::vector<char> buffer(hint > 0 ? static_cast<size_t>(hint) : 1024);
  for (;;) {
    struct group entry;
    struct group* result = nullptr;
    int rc = getgrgid_r(gid, &entry, buffer.data(), buffer.size(), &result);
    if (rc == ERANGE && buffer.size() < kMaxBuffer) {
      buffer.resize(buffer.size() * 2);  // an entry larger than the buffer: grow and retry
      continue;
    }
    if (rc == EINTR) continue;
    if (result != nullptr) {
      name = entry.gr_name != nullptr ? entry.gr_name : "";
      return true;
    }
    name.clear();
    // No entry: 0, or one of the codes some NSS modules give for "not found".
    if (rc == 0 || rc == ENOENT || rc == ESRCH || rc == EBADF || rc == EPERM) return true;
    ZRLOG(3, "getgrgid_r failed for gid %u, errno %d", static_cast<unsigned>(gid), rc);
    return false;
  }
}
}  // namespace

std::string ZrGrEnt::GetGroupName(gid_t gid) {
  SGroupCache& cache = Cache();
  {
    std::shared_lock<std::shared_mutex> lock(cache.mutex);
    auto it = cache.names.find(gid);
    if (it != cache.names.end()) return it->second;
  }
  std::string name;
  if (LookUpGroup(gid, name)) {
    std::unique_lock<std::shared_mutex> lock(cache.mutex);
    cache.names.emplace(gid, name);  // another thread may have stored the same answer first
  }
  return name;
}

void ZrGrEnt::ClearCache() {
  SGroupCache& cache = Cache();
  std::unique_lock<std::shared_mutex> lock(cache.mutex);
  cache.names.clear();
}
