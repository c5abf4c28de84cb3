#include "Platform/LogEventSink.h"

#include <cstring>

#include "Platform/FXString.h"
#include "Platform/LogWriterInterface.h"

CQiError CLogEventSink::SendEvent(const CQiError& eventMessage, const CEventArgumentList& args) {
  if (ZRLOG_ON(CLogWriterInterface::kLevelAlways)) {
    ZRLOG(CLogWriterInterface::kLevelAlways, "%s", FormatEvent(eventMessage, args).c_str());
  }
  return CQiError();
}

std::string CLogEventSink::FormatEvent(const CQiError& eventMessage,
                                       const CEventArgumentList& args) {
  std::string text;
  for (const CQiError::SFrame& frame : eventMessage.GetFrames()) {
    if (frame.text.empty()) continue;
    if (!text.empty()) text += "; ";
    text += frame.text;
  }
  std::string origin;
  if (!eventMessage.GetFrames().empty()) {
    const CQiError::SFrame& first = eventMessage.GetFrames().front();
    const char* base = std::strrchr(first.file, '/');
    origin = FXString::Format("%s:%d", base ? base + 1 : first.file, first.line);
  }
  return FXString::Format("%s, Arguments=[%s], Text=[%s], Origin=[%s]",
                          eventMessage.CodeAsString().c_str(),
                          ISendEventInterface::ArgumentsAsString(args).c_str(), text.c_str(),
                          origin.c_str());
}
