// FXCriticalSection: a recursive mutex. The thread that holds it may enter it again; it is free
// once that thread has left it as many times as it entered.
//
// Use it where a locked operation may call back into code that takes the same lock (for example
// an object whose public calls use each other). Where no re-entry can happen prefer FXMutex.
// Enter/Leave/TryEnter keep the platform's naming; lock/unlock/try_lock make it a standard
// Lockable (std::lock_guard, std::unique_lock, std::condition_variable_any). CScopedLock holds it
// for one scope. Any thread may use it; a thread leaves only what it entered.
//
// Like a critical section with a spin count, Enter first tries the lock a number of times
// before it sleeps: sections are usually held for well under a microsecond (one item handed to
// an output handler), and putting a thread to sleep and waking it costs two system calls and a
// context switch each, many times the wait itself.
#pragma once

#if defined(__x86_64__)
#include <immintrin.h>
#endif

#include <memory>
#include <mutex>

class FXCriticalSection {
 public:
  FXCriticalSection() = default;
  ~FXCriticalSection() = default;
  FXCriticalSection(const FXCriticalSection&) = delete;
  FXCriticalSection& operator=(const FXCriticalSection&) = delete;

  void Enter() {
    for (int i = 0; i < kSpinCount; ++i) {
      if (m_mutex.try_lock()) return;
      Pause();
    }
    m_mutex.lock();
  }
  void Leave() { m_mutex.unlock(); }
  // True when the caller now holds the section (it was free or already the caller's).
  bool TryEnter() { return m_mutex.try_lock(); }

  // Standard Lockable names.
  void lock() { Enter(); }
  void unlock() { m_mutex.unlock(); }
  bool try_lock() { return m_mutex.try_lock(); }

  // Holds the section from construction to destruction.
  class CScopedLock {
   public:
    explicit CScopedLock(FXCriticalSection& section) : m_section(section) { m_section.Enter(); }
    ~CScopedLock() { m_section.Leave(); }
    CScopedLock(const CScopedLock&) = delete;
    CScopedLock& operator=(const CScopedLock&) = delete;

   private:
    FXCriticalSection& m_section;
  };

 private:
  static constexpr int kSpinCount = 200;
  static void Pause() {
#if defined(__x86_64__)
    _mm_pause();
#endif
  }

  std::recursive_mutex m_mutex;
};

using FXCriticalSectionPtr = std::shared_ptr<FXCriticalSection>;
