#include <gtest/gtest.h>

#include <latch>
#include <mutex>
#include <thread>

#include "Platform/FXCriticalSection.h"
#include "Platform/FXMutex.h"
#include "Support/PlatformTestSupport.h"

namespace {
// Several threads add to a plain counter under the lock; any lost update shows as a wrong sum
// (and as a race under ThreadSanitizer).
template <typename TLock, typename TGuard>
long CountUnder(TLock& lock) {
  long lCounter = 0;
  std::latch start(4);  // all at once, so that they contend for the lock
  RunOnThreads(4, [&](int) {
    start.arrive_and_wait();
    for (int n = 0; n < 20000; ++n) {
      TGuard guard(lock);
      ++lCounter;
      // Now and then give the processor away while holding the lock: the others then find it
      // taken even on a busy machine.
      if (n % 1000 == 0) std::this_thread::yield();
    }
  });
  return lCounter;
}
}  // namespace

TEST(MutexTest, ScopedLockAndStdLockGuardExcludeEachOther) {
  FXMutex mutex;
  EXPECT_EQ((CountUnder<FXMutex, FXMutex::CScopedLock>(mutex)), 80000);
  EXPECT_EQ((CountUnder<FXMutex, std::lock_guard<FXMutex>>(mutex)), 80000);
}

TEST(MutexTest, TryLockFailsWhileAnotherThreadHoldsIt) {
  FXMutex mutex;
  mutex.Lock();
  bool bGot = true;
  std::thread other([&] { bGot = mutex.TryLock(); });
  other.join();
  EXPECT_FALSE(bGot);
  mutex.Unlock();
  EXPECT_TRUE(mutex.TryLock());
  mutex.Unlock();
}

TEST(CriticalSectionTest, OwnerMayEnterAgainOthersMayNot) {
  FXCriticalSection section;
  section.Enter();
  EXPECT_TRUE(section.TryEnter());  // re-entry by the owner
  bool bOtherGot = true;
  std::thread other([&] { bOtherGot = section.TryEnter(); });
  other.join();
  EXPECT_FALSE(bOtherGot);
  section.Leave();
  // Still held once.
  std::thread stillHeld([&] { bOtherGot = section.TryEnter(); });
  stillHeld.join();
  EXPECT_FALSE(bOtherGot);
  section.Leave();
  std::thread freed([&] {
    bOtherGot = section.TryEnter();
    if (bOtherGot) section.Leave();
  });
  freed.join();
  EXPECT_TRUE(bOtherGot);
}

TEST(CriticalSectionTest, ScopedLocksNestAndExclude) {
  FXCriticalSection section;
  {
    FXCriticalSection::CScopedLock outer(section);
    FXCriticalSection::CScopedLock inner(section);
  }
  EXPECT_EQ((CountUnder<FXCriticalSection, FXCriticalSection::CScopedLock>(section)), 80000);
  EXPECT_EQ((CountUnder<FXCriticalSection, std::lock_guard<FXCriticalSection>>(section)), 80000);
}
