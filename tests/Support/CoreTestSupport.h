// Helpers shared by the suites of the scan core: the events raised to the job while a test runs.
#pragma once

#include <mutex>
#include <ostream>
#include <string>
#include <vector>

#include "Platform/SendEventInterface.h"

// CEventCapture: a recording sink is the process event sink while it lives. It keeps every event
// raised, from any thread: its id, its message and its arguments rendered on one line
// (ISendEventInterface::ArgumentsAsString).
class CEventCapture {
 public:
  struct SEvent {
    uint32_t uId;
    std::string strText;
    std::string strArgs;
    bool operator==(const SEvent&) const = default;
    friend void PrintTo(const SEvent& e, std::ostream* os) {
      *os << std::hex << e.uId << std::dec << " [" << e.strText << "] (" << e.strArgs << ")";
    }
  };
  CEventCapture() : m_pSink(std::make_shared<CSink>()) { ISendEventInterface::SetProcessEventSink(m_pSink); }
  ~CEventCapture() { ISendEventInterface::SetProcessEventSink(nullptr); }
  CEventCapture(const CEventCapture&) = delete;
  CEventCapture& operator=(const CEventCapture&) = delete;

  std::vector<SEvent> Events() const {
    std::lock_guard<std::mutex> lock(m_pSink->mutex);
    return m_pSink->events;
  }

 private:
  struct CSink : ISendEventInterface {
    CQiError SendEvent(const CQiError& event, const CEventArgumentList& args) override {
      std::lock_guard<std::mutex> lock(mutex);
      events.push_back({event.GetCode(), event.GetMessage(), ArgumentsAsString(args)});
      return CQiError();
    }
    std::mutex mutex;
    std::vector<SEvent> events;
  };
  std::shared_ptr<CSink> m_pSink;
};
