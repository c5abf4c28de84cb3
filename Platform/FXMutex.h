// FXMutex: a plain (non-recursive) mutex for short critical sections, such as the queue of
// folders shared by traversal workers or the per-medium lock of the arbiter.
//
// Lock/Unlock/TryLock keep the platform's naming; lock/unlock/try_lock make it a standard
// Lockable, so std::lock_guard, std::unique_lock and std::scoped_lock work with it. The nested
// CScopedLock holds the mutex for one scope. Any thread may lock it; the thread that locked it
// must unlock it, and locking it twice from one thread deadlocks (use FXCriticalSection for
// recursive locking). Not copyable or movable: share it by reference or through FXMutexPtr.
#pragma once

#include <memory>
#include <mutex>

class FXMutex {
 public:
  FXMutex() = default;
  ~FXMutex() = default;
  FXMutex(const FXMutex&) = delete;
  FXMutex& operator=(const FXMutex&) = delete;

  void Lock() { m_mutex.lock(); }
  void Unlock() { m_mutex.unlock(); }
  // True when the mutex was free and is now held by the caller.
  bool TryLock() { return m_mutex.try_lock(); }

  // Standard Lockable names.
  void lock() { m_mutex.lock(); }
  void unlock() { m_mutex.unlock(); }
  bool try_lock() { return m_mutex.try_lock(); }

  // The underlying mutex, for waits on a std::condition_variable.
  std::mutex& Native() { return m_mutex; }

  // Holds the mutex from construction to destruction.
  class CScopedLock {
   public:
    explicit CScopedLock(FXMutex& mutex) : m_mutex(mutex) { m_mutex.Lock(); }
    ~CScopedLock() { m_mutex.Unlock(); }
    CScopedLock(const CScopedLock&) = delete;
    CScopedLock& operator=(const CScopedLock&) = delete;

   private:
    FXMutex& m_mutex;
  };

 private:
  std::mutex m_mutex;
};

using FXMutexPtr = std::shared_ptr<FXMutex>;
