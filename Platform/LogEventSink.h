// CLogEventSink: the default event sink; writes every event to the log at level -1.
//
// The line reads
//   Event 0x11000002, Arguments=[9, 0], Text=[File Scan: No space left on device], Origin=[Scanner.cpp:210]
// with the event id in hex, the arguments as ISendEventInterface::ArgumentsAsString renders them,
// the texts of the event's frames in the order they were added (joined by "; ") and the file and
// line of the place that raised it. An error that is not an event message is logged the same way
// with its code rendering ("Win32 error 5 (...)") in place of the event id.
//
// Stateless: safe from any thread; the log writer guards itself.
#pragma once

#include <string>

#include "Platform/SendEventInterface.h"

class CLogEventSink : public ISendEventInterface {
 public:
  CQiError SendEvent(const CQiError& eventMessage, const CEventArgumentList& args) override;

  // The log line for one event, without the logger's own prefix.
  static std::string FormatEvent(const CQiError& eventMessage, const CEventArgumentList& args);
};
