#include "Scan/VolumeOutputHandler.h"

#include <utility>

#include "Platform/FXErrorUtil.h"
#include "Platform/FXString.h"
#include "Platform/LogWriterInterface.h"

CVolumeOutputHandler::~CVolumeOutputHandler() {
  if (!m_pHandler) return;
  CQiError error = Close();
  if (error.IsError())
    ZRLOG(-1, "Output handler Complete failed, Volume=[%s], error=%s",
          FXString::EscapeControl(m_strVolume).c_str(), error.AsString().c_str());
}

CQiError CVolumeOutputHandler::Open(const CScannerCallbackPtr& pCallback,
                                    const std::string& strVolume) {
  if (m_pHandler)
    return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "Output handler already open, Volume=[%s]",
                          FXString::EscapeControl(m_strVolume).c_str());
  if (!pCallback) return CQiError();
  COutputHandlerPtr pHandler;
  QI_RETURN_IF_ERROR(pCallback->GetOutputHandler(strVolume, pHandler),
                     "GetOutputHandler failed, Volume=[%s]", FXString::EscapeControl(strVolume).c_str());
  if (!pHandler) {
    // The traversals still run; their items are dropped.
    ZRLOG(0, "Output handler is unconfigured");
    return CQiError();
  }
  QI_RETURN_IF_ERROR(pHandler->Initialize(), "Output handler Initialize failed, Volume=[%s]",
                     FXString::EscapeControl(strVolume).c_str());
  m_pHandler = std::move(pHandler);
  m_strVolume = strVolume;
  return CQiError();
}

CQiError CVolumeOutputHandler::Close() {
  if (!m_pHandler) return CQiError();
  // Forgotten before Complete: a failed Complete is not tried again.
  COutputHandlerPtr pHandler = std::move(m_pHandler);
  m_pHandler.reset();
  QI_RETURN_IF_ERROR(pHandler->Complete(), "Output handler Complete failed, Volume=[%s]",
                     FXString::EscapeControl(m_strVolume).c_str());
  return CQiError();
}
