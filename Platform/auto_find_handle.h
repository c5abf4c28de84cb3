// auto_find_handle (callers name it FXFile::auto_find_handle): the owner of one folder listing.
//
// It owns a DIR_Wrapper, created on first use. reset() closes the listing (the descriptor);
// the wrapper and its 64 KiB buffer are kept, so one handle can list folder after folder without
// allocating again. Destruction frees everything.
//
// Copying never shares or duplicates an open listing: a copy starts closed, and assigning to a
// handle closes it. This lets the owners of a handle (path enumerators) keep their ordinary copy
// constructor for Clone(), whose copies must start with no listing open. Moving transfers it.
//
// Used by one thread at a time.
#pragma once

#include <memory>
#include <new>

#include "Platform/DIR_Wrapper.h"

class auto_find_handle {
 public:
  auto_find_handle() = default;
  auto_find_handle(const auto_find_handle&) {}
  auto_find_handle& operator=(const auto_find_handle& other) {
    if (this != &other) reset();
    return *this;
  }
  auto_find_handle(auto_find_handle&&) noexcept = default;
  auto_find_handle& operator=(auto_find_handle&&) noexcept = default;
  ~auto_find_handle() = default;

  // Closes the listing, if any.
  void reset() {
    if (m_pWrapper) m_pWrapper->Close();
  }
  bool is_open() const { return m_pWrapper && m_pWrapper->IsOpen(); }
  explicit operator bool() const { return is_open(); }

  // The open folder's descriptor, -1 when closed (for opening folders relative to it).
  int fd() const { return m_pWrapper ? m_pWrapper->GetFd() : -1; }

  // The wrapper, null before first use.
  DIR_Wrapper* get() const { return m_pWrapper.get(); }
  // The wrapper, created on first use; null only when it cannot be allocated.
  DIR_Wrapper* wrapper() {
    if (!m_pWrapper) m_pWrapper.reset(new (std::nothrow) DIR_Wrapper());
    return m_pWrapper.get();
  }

 private:
  std::unique_ptr<DIR_Wrapper> m_pWrapper;
};
