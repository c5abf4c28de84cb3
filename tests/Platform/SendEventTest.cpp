#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <thread>

#include "Platform/FXErrorUtil.h"
#include "Platform/LogEventSink.h"
#include "Platform/SendEventInterface.h"
#include "Support/LogCapture.h"
#include "Support/PlatformTestSupport.h"

namespace {

// A sink that keeps what it is given; optionally fails every send.
class CRecordingSink : public ISendEventInterface {
 public:
  struct SEvent {
    uint32_t id;
    std::string message;
    CEventArgumentList args;
  };

  explicit CRecordingSink(bool fail = false) : m_bFail(fail) {}

  CQiError SendEvent(const CQiError& eventMessage, const CEventArgumentList& args) override {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_vEvents.push_back(SEvent{eventMessage.GetCode(), eventMessage.GetMessage(), args});
    if (m_bFail) return QI_ERROR_WIN32(QiErrorCode::InvalidHandle, "Event channel closed");
    return CQiError();
  }

  std::vector<SEvent> Events() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_vEvents;
  }

 private:
  const bool m_bFail;
  mutable std::mutex m_mutex;
  std::vector<SEvent> m_vEvents;
};

class SendEventFixture : public ::testing::Test {
 protected:
  void TearDown() override { ISendEventInterface::SetProcessEventSink(nullptr); }
  CLogCapture m_pCapture;
};

// The events the scan raises, as the raising code builds them.
struct SEventCase {
  const char* name;
  uint32_t id;
  const char* appendedText;  // appended with AppendText after the event is built; may be empty
  CEventArgumentList args;
  const char* expectedLogLine;  // default sink's line, without the origin
};

void PrintTo(const SEventCase& c, std::ostream* out) { *out << c.name; }

class SendEventTable : public SendEventFixture, public ::testing::WithParamInterface<SEventCase> {};

// Without a sink of the job's the event is logged at level -1 with its origin; a sink set for
// the job gets the id, the arguments and the text, and nothing reaches the log.
TEST_P(SendEventTable, DefaultSinkLogsTheEventAndASetSinkGetsIt) {
  const SEventCase& c = GetParam();
  auto sink = std::make_shared<CRecordingSink>();
  for (bool bOwnSink : {false, true}) {
    if (bOwnSink) ISendEventInterface::SetProcessEventSink(sink);
    int line = __LINE__ + 1;
    CQiError event = QI_ERROR_EVENT(c.id);
    if (c.appendedText[0] != '\0') event.AppendText("%s", c.appendedText);
    ASSERT_TRUE(event.IsEvent(c.id));
    ASSERT_TRUE(ISendEventInterface::SendEventMessage(event, c.args).IsSuccess());
    if (bOwnSink) break;
    const std::string expected = std::string(c.expectedLogLine) +
                                 ", Origin=[SendEventTest.cpp:" + std::to_string(line) + "]";
    ASSERT_EQ(m_pCapture->GetEntries().size(), 1u);
    EXPECT_EQ(m_pCapture->Count(expected, -1), 1u) << m_pCapture->GetEntries()[0].text;
  }
  std::vector<CRecordingSink::SEvent> events = sink->Events();
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].id, c.id);
  EXPECT_EQ(events[0].message, c.appendedText);
  EXPECT_EQ(events[0].args, c.args);
  EXPECT_EQ(m_pCapture->GetEntries().size(), 1u);
}

INSTANTIATE_TEST_SUITE_P(
    ScanEvents, SendEventTable,
    ::testing::Values(
        SEventCase{"OutOfMemory", 0x11000002,
                   "File Scan: Memory allocation error while proccessing the directory", {},
                   "Event 0x11000002, Arguments=[], Text=[File Scan: Memory allocation error "
                   "while proccessing the directory]"},
        SEventCase{"FailuresFileOpen", 0x600001E, "", {std::string("/jr/fail\nures.txt")},
                   "Event 0x600001E, Arguments=[\"/jr/fail\\nures.txt\"], Text=[]"},
        SEventCase{"MixedArguments", 0x11000079, "", {std::string("a, b"), -5LL},
                   "Event 0x11000079, Arguments=[\"a, b\", -5], Text=[]"}),
    [](const ::testing::TestParamInfo<SEventCase>& info) { return info.param.name; });

TEST_F(SendEventFixture, TextsOfLaterFramesFollowTheRaisingText) {
  int line = __LINE__ + 1;
  CQiError event = QI_ERROR_EVENT(0x11000027, "Failures file not open");
  QI_PUSH(event, "Process failed, Item=%s", "/data/a");
  ASSERT_TRUE(ISendEventInterface::SendEventMessage(event, {std::string("/jr/failures")})
                  .IsSuccess());
  EXPECT_EQ(m_pCapture->Count("Event 0x11000027, Arguments=[\"/jr/failures\"], Text=[Failures "
                              "file not open; Process failed, Item=/data/a], Origin=[SendEventTest"
                              ".cpp:" + std::to_string(line) + "]",
                              -1),
            1u);
}

TEST_F(SendEventFixture, AnErrorThatIsNotAnEventIsRefused) {
  auto sink = std::make_shared<CRecordingSink>();
  ISendEventInterface::SetProcessEventSink(sink);
  CQiError result = ISendEventInterface::SendEventMessage(
      QI_ERROR_WIN32(QiErrorCode::NotSupported, "Engine refuses"), {1});
  ASSERT_TRUE(result.IsWin32(QiErrorCode::InvalidParameter));
  EXPECT_EQ(result.GetMessage().rfind("Not an event message: Win32 error 50 (not supported)", 0),
            0u)
      << result.GetMessage();
  EXPECT_TRUE(ISendEventInterface::SendEventMessage(CQiError(), {}).IsWin32(
      QiErrorCode::InvalidParameter));
  EXPECT_TRUE(sink->Events().empty());
}

TEST_F(SendEventFixture, AFailingSinkReportsToTheRaiser) {
  ISendEventInterface::SetProcessEventSink(std::make_shared<CRecordingSink>(true));
  CQiError result = ISendEventInterface::SendEventMessage(QI_ERROR_EVENT(0x11000077));
  ASSERT_TRUE(result.IsWin32(QiErrorCode::InvalidHandle));
  EXPECT_EQ(result.GetMessage(), "Event channel closed");
  ASSERT_EQ(result.GetFrames().size(), 2u);
  EXPECT_EQ(result.GetFrames()[1].text, "SendEvent failed, Event=0x11000077");
}

// Many threads raise events while another replaces the sink: every event reaches exactly one
// of the sinks, and no sink is freed while in use (checked under the sanitizers).
TEST_F(SendEventFixture, ConcurrentSendersAndSinkReplacement) {
  constexpr int kThreads = 6;
  constexpr int kEventsPerThread = 300;
  std::vector<std::shared_ptr<CRecordingSink>> sinks;
  for (int i = 0; i < 4; ++i) sinks.push_back(std::make_shared<CRecordingSink>());
  ISendEventInterface::SetProcessEventSink(sinks[0]);

  std::atomic<int> failures{0};
  size_t swaps = 0;
  auto swap = [&](int) {
    ISendEventInterface::SetProcessEventSink(sinks[++swaps % sinks.size()]);
    std::this_thread::yield();
  };
  WhileReading(1, swap, [&] {
    RunOnThreads(kThreads, [&](int t) {
      for (int i = 0; i < kEventsPerThread; ++i)
        if (ISendEventInterface::SendEventMessage(QI_ERROR_EVENT(0x11000002), {t, i}).IsError())
          ++failures;
    });
  });

  EXPECT_EQ(failures.load(), 0);
  size_t total = 0;
  for (const auto& sink : sinks) total += sink->Events().size();
  EXPECT_EQ(total, static_cast<size_t>(kThreads * kEventsPerThread));
  EXPECT_TRUE(m_pCapture->GetEntries().empty());
}

}  // namespace
