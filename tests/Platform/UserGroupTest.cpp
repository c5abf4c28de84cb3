#include <gtest/gtest.h>

#include <grp.h>
#include <pwd.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "Platform/ZrGrEnt.h"
#include "Platform/ZrPwEnt.h"
#include "Support/FileText.h"
#include "Support/PlatformTestSupport.h"
#include "Support/TempTree.h"

namespace {

// The system's own answer, for comparison.
std::string SystemUserName(uid_t uid) {
  std::vector<char> buffer(1 << 16);
  struct passwd entry;
  struct passwd* result = nullptr;
  getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &result);
  return result != nullptr ? result->pw_name : "";
}

std::string SystemGroupName(gid_t gid) {
  std::vector<char> buffer(1 << 16);
  struct group entry;
  struct group* result = nullptr;
  getgrgid_r(gid, &entry, buffer.data(), buffer.size(), &result);
  return result != nullptr ? result->gr_name : "";
}

// Many threads ask for the same and different ids, missing ones among them, at once while
// another keeps emptying the caches: every answer is the system's, a missing id gives the empty
// name (run under ThreadSanitizer too).
TEST(UserGroup, ManyThreadsAtOnce) {
  std::vector<uint32_t> ids = {0, 1, 2, 3, 8, 33, 65534, 1000, 4000000000u, 4294967295u};
  std::vector<std::string> users, groups;
  for (uint32_t id : ids) {
    users.push_back(SystemUserName(id));
    groups.push_back(SystemGroupName(id));
  }
  EXPECT_EQ(users[0] + "," + groups[0] + "," + users[8] + "," + groups[9], "root,root,,");
  std::atomic<int> mismatches{0};
  auto clear = [](int) {
    ZrPwEnt::ClearCache();
    ZrGrEnt::ClearCache();
    std::this_thread::yield();
  };
  WhileReading(1, clear, [&] {
    RunOnThreads(8, [&](int t) {
      for (size_t i = 0; i < 300 * ids.size(); ++i) {
        const size_t k = (i + static_cast<size_t>(t)) % ids.size();
        if (ZrPwEnt::GetUserName(ids[k]) != users[k]) ++mismatches;
        if (ZrGrEnt::GetGroupName(ids[k]) != groups[k]) ++mismatches;
      }
    });
  });
  EXPECT_EQ(mismatches.load(), 0);
}

// The look-ups against a user and group database of the test's own making: a private mount
// namespace in a child process lays temporary files over /etc/passwd and /etc/group. Needs root
// and the right to create mount namespaces; skipped otherwise.
constexpr int kSkip = 250;

// Runs in the child. Returns 0, kSkip, or the number of the first failed check.
int CheckAgainstOwnDatabase(const std::string& passwdPath, const std::string& groupPath) {
  if (unshare(CLONE_NEWNS) != 0) return kSkip;
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return kSkip;
  // Entries larger than the first buffer: a user with a 200 KB comment field and a group with
  // 3000 members (about 90 KB) make the look-ups grow their buffers.
  std::string group = "root:x:0:\nbigteam:x:4242:";
  for (int i = 0; i < 3000; ++i) group += "member_with_a_long_name_" + std::to_string(i) + ",";
  if (!WriteFileText(passwdPath, "root:x:0:0:root:/root:/bin/sh\nbiggecos:x:4243:4243:" +
                                     std::string(200000, 'g') + ":/home/b:/bin/sh\n") ||
      !WriteFileText(groupPath, group + "last\n"))
    return 1;
  if (mount(passwdPath.c_str(), "/etc/passwd", nullptr, MS_BIND, nullptr) != 0) return kSkip;
  if (mount(groupPath.c_str(), "/etc/group", nullptr, MS_BIND, nullptr) != 0) return kSkip;
  auto names = [] {
    return ZrPwEnt::GetUserName(4243) + "," + ZrGrEnt::GetGroupName(4242) + "," +
           ZrPwEnt::GetUserName(4244) + "," + ZrGrEnt::GetGroupName(4244);
  };
  ZrPwEnt::ClearCache();
  ZrGrEnt::ClearCache();
  if (names() != "biggecos,bigteam,,") return 2;
  // The database changes under the cache (same files, rewritten in place): names and misses
  // alike are answered from the cache until it is emptied.
  if (!WriteFileText(passwdPath, "renamed:x:4243:1::/:/bin/sh\nlate:x:4244:1::/:/bin/sh\n") ||
      !WriteFileText(groupPath, "renamed:x:4242:\nlate:x:4244:\n"))
    return 3;
  if (names() != "biggecos,bigteam,,") return 4;
  ZrPwEnt::ClearCache();
  ZrGrEnt::ClearCache();
  return names() == "renamed,renamed,late,late" ? 0 : 5;
}

TEST(UserGroup, LargeEntriesAndCachingAgainstOwnDatabase) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to lay files over /etc/passwd";
  CTempTree tree;
  const std::string passwd = tree.MakeFile("passwd"), group = tree.MakeFile("group");
  pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) _exit(CheckAgainstOwnDatabase(passwd, group));
  int status = 0;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  ASSERT_TRUE(WIFEXITED(status)) << "child ended by signal " << WTERMSIG(status);
  if (WEXITSTATUS(status) == kSkip) GTEST_SKIP() << "mount namespaces are not available";
  EXPECT_EQ(WEXITSTATUS(status), 0)
      << "check number " << WEXITSTATUS(status) << " of CheckAgainstOwnDatabase failed";
}

}  // namespace
