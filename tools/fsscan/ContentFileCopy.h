// CContentFileCopy: the --from-file list, read once as a stream and written to a regular file in
// a private temporary folder, which the on-demand engine then reads as its content file.
//
// Why a copy: the engine opens its content file by name, through a work unit of the volume that
// holds it. A pipe (/dev/fd/N, /dev/stdin) lives on a pseudo file system whose work unit holds
// no content, and a named FIFO would be drained by the first open and block the next one for
// ever. Reading the list once, here, works for every kind of source. "/dev/stdin", "/dev/fd/N"
// and "/proc/self/fd/N" are read through the inherited descriptor, not opened again by name.
//
// The folder is made with mkdtemp below $TMPDIR (or /tmp), mode 0700, and removed with the copy
// by the destructor. It must be left out of the scan (a listed folder may hold it): GetFolder
// names it for the engine's black-list.
//
// Threads: the owner's thread only.
#pragma once

#include <string>

#include "Platform/QiError.h"

class CContentFileCopy {
 public:
  CContentFileCopy() = default;
  ~CContentFileCopy();
  CContentFileCopy(const CContentFileCopy&) = delete;
  CContentFileCopy& operator=(const CContentFileCopy&) = delete;

  // Reads strSource to its end into the copy. The error's message says which side failed:
  // "cannot read the content file '<source>'" (its errno; EISDIR for a folder), or "cannot
  // write a copy of the content file in '<folder>'".
  CQiError Make(const std::string& strSource);

  const std::string& GetPath() const { return m_strPath; }
  const std::string& GetFolder() const { return m_strFolder; }

 private:
  std::string m_strFolder;
  std::string m_strPath;
};
