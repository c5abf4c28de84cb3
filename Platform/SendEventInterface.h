// ISendEventInterface: the sink of events raised to the job.
//
// An event is a CQiError in the Event code space (built with QI_ERROR_EVENT, see
// FXErrorUtil::ErrorEventMessage): its code is the numeric id from the job's event catalogue,
// its frames carry the raising place and any text appended to it. Beside the error an event
// carries a list of arguments, strings or numbers, that the catalogue's text refers to (the
// file name of a failures file, a device name, the numbers 9 and 0 of the open-files event).
//
//   CQiError event = QI_ERROR_EVENT(0x11000002, "File Scan: No space left on device");
//   (void)ISendEventInterface::SendEventMessage(event);
//   (void)ISendEventInterface::SendEventMessage(QI_ERROR_EVENT(0x1100008B), {9, 0});
//
// One sink is process-wide. The caller (the job) sets its own with SetProcessEventSink; until it
// does, or after it sets an empty pointer, events go to a CLogEventSink, which writes them to the
// log at level -1. A failure to send is returned to the raiser, who usually only logs it: an
// event never changes the outcome of the operation that raised it.
//
// Threads: the static functions may be called from any thread at once. Implementations of
// SendEvent are called from many threads at once and must guard their own state. The
// process-wide sink is held by shared pointer, so a sink replaced while another thread is
// sending through it lives until that send returns.
#pragma once

#include <memory>
#include <string>
#include <variant>
#include <vector>

#include "Platform/QiError.h"

// One argument of an event: a string or a signed number.
using CEventArgument = std::variant<std::string, long long>;
using CEventArgumentList = std::vector<CEventArgument>;

class ISendEventInterface;
using ISendEventInterfacePtr = std::shared_ptr<ISendEventInterface>;

class ISendEventInterface {
 public:
  virtual ~ISendEventInterface() = default;

  // Delivers one event. eventMessage is always in the Event code space when called through
  // SendEventMessage. Returns the failure to deliver, if any.
  virtual CQiError SendEvent(const CQiError& eventMessage, const CEventArgumentList& args) = 0;

  // Sets the process-wide sink; an empty pointer restores the default log sink.
  static void SetProcessEventSink(ISendEventInterfacePtr sink);
  // The process-wide sink: the one set last, else the default log sink. Never empty.
  static ISendEventInterfacePtr GetProcessEventSink();

  // Sends an event through the process-wide sink. An error that is not an event message is
  // refused with Win32 87; a failure of the sink is returned with this place pushed.
  static CQiError SendEventMessage(const CQiError& eventMessage,
                                   const CEventArgumentList& args = {});

  // "9, 0" / "\"gpfs0\", 3": numbers in decimal, strings in double quotes with control bytes
  // escaped, so that the rendering stays on one line.
  static std::string ArgumentsAsString(const CEventArgumentList& args);
};
