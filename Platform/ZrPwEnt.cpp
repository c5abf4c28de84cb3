#include "Platform/ZrPwEnt.h"

#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <mutex>
#include <shared_mutex>
#include <unordered_map>
#include <vector>

#include "Platform/LogWriterInterface.h"

namespace {
struct SUserCache {
  std::shared_mutex mutex;
  std::unordered_map<uid_t, std::string> names;
};

// Never freed, so that threads still running while the process exits find it intact.
SUserCache& Cache() {
  static SUserCache* s_pCache = new SUserCache();
  return *s_pCache;
}

// Looks the id up in the user database. Returns true when the answer is final (a name, or no
// such user) and may be cached.
bool LookUpUser(uid_t uid, std::string& name) {
  constexpr size_t kMaxBuffer = 1 << 20;
  long hint = sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> buffer(hint > 0 ? static_cast<size_t>(hint) : 1024);
  for (;;) {
    struct passwd entry;
    struct passwd* result = nullptr;
    int rc = getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &result);
    if (rc == ERANGE && buffer.size() < kMaxBuffer) {
      buffer.resize(buffer.size() * 2);  // an entry larger than the buffer: grow and retry
      continue;
    }
    if (rc == EINTR) continue;
    if (result != nullptr) {
      name = entry.pw_name != nullptr ? entry.pw_name : "";
      return true;
    }
    name.clear();
    // No entry: 0, or one of the codes some NSS modules give for "not found".
    if (rc == 0 || rc == ENOENT || rc == ESRCH || rc == EBADF || rc == EPERM) return true;
    ZRLOG(3, "getpwuid_r failed for uid %u, errno %d", static_cast<unsigned>(uid), rc);
    return false;
  }
}
}  // namespace

std::string ZrPwEnt::GetUserName(uid_t uid) {
  SUserCache& cache = Cache();
  {
    std::shared_lock<std::shared_mutex> lock(cache.mutex);
    auto it = cache.names.find(uid);
    if (it != cache.names.end()) return it->second;
  }
  std::string name;
  if (LookUpUser(uid, name)) {
    std::unique_lock<std::shared_mutex> lock(cache.mutex);
    cache.names.emplace(uid, name);  // another thread may have stored the same answer first
  }
  return name;
}

void ZrPwEnt::ClearCache() {
  SUserCache& cache = Cache();
  std::unique_lock<std::shared_mutex> lock(cache.mutex);
  cache.names.clear();
}
