#include "Platform/SendEventInterface.h"

#include <mutex>

#include "Platform/FXErrorUtil.h"
#include "Platform/FXString.h"
#include "Platform/LogEventSink.h"

namespace {
// The process-wide sink and its lock. Held in heap objects that are never freed, so that an
// event raised while the process exits still finds a sink.
struct SProcessSink {
  std::mutex mutex;
  ISendEventInterfacePtr sink;
  ISendEventInterfacePtr defaultSink = std::make_shared<CLogEventSink>();
};

SProcessSink& ProcessSink() {
  static SProcessSink* s_pSink = new SProcessSink();
  return *s_pSink;
}
}  // namespace

void ISendEventInterface::SetProcessEventSink(ISendEventInterfacePtr sink) {
  SProcessSink& state = ProcessSink();
  ISendEventInterfacePtr previous;
  {
    std::lock_guard<std::mutex> lock(state.mutex);
    previous.swap(state.sink);
    state.sink = std::move(sink);
  }
  // The previous sink is released outside the lock: its destructor may do anything.
}

ISendEventInterfacePtr ISendEventInterface::GetProcessEventSink() {
  SProcessSink& state = ProcessSink();
  std::lock_guard<std::mutex> lock(state.mutex);
  return state.sink ? state.sink : state.defaultSink;
}

CQiError ISendEventInterface::SendEventMessage(const CQiError& eventMessage,
                                               const CEventArgumentList& args) {
  if (!eventMessage.IsEvent()) {
    return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "Not an event message: %s",
                          eventMessage.AsString().c_str());
  }
  // The sink is called outside the lock, so that a slow sink never holds up other threads.
  ISendEventInterfacePtr sink = GetProcessEventSink();
  CQiError error = sink->SendEvent(eventMessage, args);
  if (error.IsError()) {
    return QI_PUSH(error, "SendEvent failed, Event=0x%X", eventMessage.GetCode());
  }
  return CQiError();
}

std::string ISendEventInterface::ArgumentsAsString(const CEventArgumentList& args) {
  std::string out;
  for (const CEventArgument& arg : args) {
    if (!out.empty()) out += ", ";
    if (const long long* number = std::get_if<long long>(&arg)) {
      out += std::to_string(*number);
    } else {
      out += '"';
      out += FXString::EscapeControl(std::get<std::string>(arg));
      out += '"';
    }
  }
  return out;
}
