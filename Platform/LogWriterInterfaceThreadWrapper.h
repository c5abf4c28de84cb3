// CLogWriterInterfaceThreadWrapper: makes a log writer the current writer of one thread.
//
// Made by CLogWriterInterface::GetThreadWrapper on the thread that will log. While it lives,
// ZRLOG on that thread goes to its writer, and every line the writer formats on that thread
// carries the wrapper's context. Wrappers nest: destroying one restores the thread's previous
// writer and context. It holds a shared reference to the writer. Not shareable across threads.
#pragma once

#include <memory>
#include <string>

#include "Platform/LogWriterInterface.h"

class CLogWriterInterfaceThreadWrapper {
 public:
  CLogWriterInterfaceThreadWrapper(std::shared_ptr<CLogWriterInterface> writer,
                                   std::string context);
  ~CLogWriterInterfaceThreadWrapper();
  CLogWriterInterfaceThreadWrapper(const CLogWriterInterfaceThreadWrapper&) = delete;
  CLogWriterInterfaceThreadWrapper& operator=(const CLogWriterInterfaceThreadWrapper&) = delete;

  CLogWriterInterface* GetWriter() const { return m_pWriter.get(); }
  const std::string& GetContext() const { return m_strContext; }

  // The calling thread's innermost wrapper, or null.
  static CLogWriterInterfaceThreadWrapper* CurrentForThread();

 private:
  std::shared_ptr<CLogWriterInterface> m_pWriter;
  std::string m_strContext;
  CLogWriterInterfaceThreadWrapper* m_pPrevious = nullptr;
};

using CLogWriterInterfaceThreadWrapperPtr = std::shared_ptr<CLogWriterInterfaceThreadWrapper>;
