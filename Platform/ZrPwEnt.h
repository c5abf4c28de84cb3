// ZrPwEnt: user names by user id, from the system's user database (getpwuid_r through NSS:
// /etc/passwd, LDAP, sssd, ...), cached for the life of the process.
//
// A scan asks for the owner name of every item, and most items share a handful of owners, so
// each id is looked up once: found names and ids without an entry are both cached. A look-up
// that fails for another reason (an NSS back end that is unreachable, no memory) answers empty
// for this call only and is tried again next time. The caller substitutes "UNKNOWN" for an
// empty name.
//
// Threads: safe from any number of threads at once. Readers share the cache under a shared
// lock; a miss is looked up outside any lock (a slow directory service never blocks other
// threads) and then stored under the exclusive lock.
#pragma once

#include <sys/types.h>

#include <string>

class ZrPwEnt {
 public:
  // The user name of the id; empty when the system has no such user.
  static std::string GetUserName(uid_t uid);
  // Forgets every cached answer, so that later calls see changes to the user database.
  static void ClearCache();
};
