#include "Platform/LogWriterInterfaceThreadWrapper.h"

namespace {
thread_local CLogWriterInterfaceThreadWrapper* t_currentWrapper = nullptr;
}

CLogWriterInterfaceThreadWrapper::CLogWriterInterfaceThreadWrapper(
    std::shared_ptr<CLogWriterInterface> writer, std::string context)
    : m_pWriter(std::move(writer)), m_strContext(std::move(context)),
      m_pPrevious(t_currentWrapper) {
  t_currentWrapper = this;
}

CLogWriterInterfaceThreadWrapper::~CLogWriterInterfaceThreadWrapper() {
  if (t_currentWrapper == this) t_currentWrapper = m_pPrevious;
}

CLogWriterInterfaceThreadWrapper* CLogWriterInterfaceThreadWrapper::CurrentForThread() {
  return t_currentWrapper;
}
