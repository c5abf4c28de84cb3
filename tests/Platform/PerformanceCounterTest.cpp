#include <gtest/gtest.h>

#include <unistd.h>

#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "Platform/AutoTimeCounter.h"
#include "Platform/FXEvent.h"
#include "Platform/FXString.h"
#include "Platform/ScanPerformanceCounter.h"
#include "Platform/ScanPerformanceCounterSet.h"
#include "Support/LogCapture.h"
#include "Support/PlatformTestSupport.h"

namespace {
using EType = EScanPerfCounterType;

class PerformanceCounterTest : public ::testing::Test {
 protected:
  void SetUp() override { CScanPerformanceCounter::ResetAll(); }
  void TearDown() override { CScanPerformanceCounter::ResetAll(); }
  std::vector<std::string> Texts() const {
    std::vector<std::string> lst;
    for (const auto& e : writer->GetEntries()) lst.push_back(e.text);
    return lst;
  }
  CLogCapture writer{1};
};
}  // namespace

// Every counter has a distinct name that finds it again; the names go into the scan's log.
TEST(PerformanceCounterNamesTest, All29NamesAreDistinctAndFound) {
  std::set<std::string> setNames;
  for (size_t i = 0; i < kScanPerfCounterTypeCount; ++i) {
    const auto eType = static_cast<EType>(i);
    const std::string strName = CScanPerformanceCounter::GetTypeName(eType);
    EType eFound = EType::TIME_TOTAL_SCAN;
    EXPECT_TRUE(strName.starts_with("TIME_") &&
                CScanPerformanceCounter::FindType(strName, eFound) && eFound == eType)
        << strName;
    setNames.insert(strName);
  }
  EXPECT_EQ(setNames.size(), 29u);
  EType eFound = EType::TIME_SORT;
  EXPECT_FALSE(CScanPerformanceCounter::FindType("TIME_NOTHING", eFound));
  EXPECT_EQ(eFound, EType::TIME_SORT);
}

TEST_F(PerformanceCounterTest, CountersAccumulateFromManyThreads) {
  CScanPerformanceCounter& counter = CScanPerformanceCounter::GetCounter(EType::TIME_STAT);
  RunOnThreads(8, [&](int) {
    for (int i = 0; i < 10000; ++i) {
      counter.Add(3);
      CAutoTimeCounter timer(EType::TIME_PROCESS_ITEM);
    }
  });
  EXPECT_EQ(
      std::make_tuple(counter.GetSamples(), counter.GetTotalNanoseconds(),
                      CScanPerformanceCounter::GetCounter(EType::TIME_PROCESS_ITEM).GetSamples()),
      std::make_tuple(uint64_t{80000}, uint64_t{240000}, uint64_t{80000}));
}

TEST_F(PerformanceCounterTest, AutoTimeCounterAddsOneSampleOnce) {
  CScanPerformanceCounter counter(EType::TIME_SORT);
  {
    CAutoTimeCounter timer(counter);
    timer.Stop();
    timer.Stop();
  }  // nothing more at scope exit
  { CAutoTimeCounter timer(counter); }
  { CAutoTimeCounter noOp(static_cast<CScanPerformanceCounter*>(nullptr)); }
  EXPECT_EQ(counter.GetSamples(), 2u);
}

TEST_F(PerformanceCounterTest, ThreadSetsAreSeparatePerThreadAndVolume) {
  CScanPerformanceCounterSet& mainData = CScanPerformanceCounter::GetThreadCounter("/data");
  CScanPerformanceCounterSet& mainHome = CScanPerformanceCounter::GetThreadCounter("/home");
  EXPECT_NE(&mainData, &mainHome);
  EXPECT_EQ(&CScanPerformanceCounter::GetThreadCounter("/data"), &mainData);

  CScanPerformanceCounterSet* pOtherData = nullptr;
  std::thread other([&] {
    pOtherData = &CScanPerformanceCounter::GetThreadCounter("/data");
    pOtherData->Get(EType::TIME_FINDFIRST).Add(5);
  });
  other.join();
  EXPECT_NE(pOtherData, &mainData);

  mainData[EType::TIME_FINDFIRST].Add(7);
  mainHome[EType::TIME_FINDFIRST].Add(11, 2);
  // Per-thread timers do not touch the per-scan ones.
  EXPECT_EQ(std::make_tuple(mainData.Get(EType::TIME_FINDFIRST).GetTotalNanoseconds(),
                            mainHome.Get(EType::TIME_FINDFIRST).GetSamples(),
                            CScanPerformanceCounter::GetCounter(EType::TIME_FINDFIRST).GetSamples(),
                            mainHome.GetThreadId()),
            std::make_tuple(uint64_t{7}, uint64_t{2}, uint64_t{0}, static_cast<long>(gettid())));
}

TEST_F(PerformanceCounterTest, LogAllCountersWritesOneLinePerUsedTimerUntilReset) {
  CScanPerformanceCounter::GetCounter(EType::TIME_ADD_TO_COLLECT).Add(1000000, 1);
  CScanPerformanceCounter::GetCounter(EType::TIME_ADD_TO_COLLECT).Add(2000000, 1);
  CScanPerformanceCounter::GetCounter(EType::TIME_SCANNER_RUN).Add(4500000000ULL, 1);
  CScanPerformanceCounter::GetCounter(EType::TIME_STAT).Add(999, 3);
  CScanPerformanceCounter::LogAllCounters();
  EXPECT_EQ(Texts(), (std::vector<std::string>{
                         "Counter=TIME_SCANNER_RUN, Total=4500 ms, Samples=1, Average=4500000 us",
                         "Counter=TIME_STAT, Total=0 ms, Samples=3, Average=0 us",
                         "Counter=TIME_ADD_TO_COLLECT, Total=3 ms, Samples=2, Average=1500 us"}));
  for (const auto& e : writer->GetEntries()) EXPECT_EQ(e.level, 1);
  // ResetAll zeroes the scan's and the threads' timers.
  CScanPerformanceCounterSet& set = CScanPerformanceCounter::GetThreadCounter("/vol");
  set[EType::TIME_DB_INSERT].Add(10);
  CScanPerformanceCounter::ResetAll();
  EXPECT_EQ(set.Get(EType::TIME_DB_INSERT).GetTotalNanoseconds(), 0u);
  writer->Clear();
  CScanPerformanceCounter::LogAllCounters();
  CScanPerformanceCounter::LogThreadCounters();
  EXPECT_TRUE(Texts().empty());
}

TEST_F(PerformanceCounterTest, LogThreadCountersNamesVolumeAndThread) {
  FXEvent logged(FXEvent::EResetMode::Manual), used(FXEvent::EResetMode::Manual);
  long lWorkerTid = 0;
  std::thread worker([&] {
    lWorkerTid = static_cast<long>(gettid());
    CScanPerformanceCounter::GetThreadCounter("/export")[EType::TIME_WAIT_FOR_FOLDER].Add(6000000,
                                                                                          4);
    used.Set();
    (void)logged.Wait(30000);  // alive while the test logs its counters
  });
  ASSERT_EQ(used.Wait(30000), FXEvent::EWaitResult::Signalled);
  CScanPerformanceCounter::GetThreadCounter("/data")[EType::TIME_FINDNEXT].Add(2000000, 1);
  CScanPerformanceCounter::LogThreadCounters();
  logged.Set();
  worker.join();

  const std::string szWorker = FXString::Format(
      "Volume=/export, ThreadId=%ld, Counter=TIME_WAIT_FOR_FOLDER, Total=6 ms, Samples=4, "
      "Average=1500 us",
      lWorkerTid);
  const std::string szMain = FXString::Format(
      "Volume=/data, ThreadId=%ld, Counter=TIME_FINDNEXT, Total=2 ms, Samples=1, Average=2000 us",
      static_cast<long>(gettid()));
  EXPECT_EQ(Texts(), (std::vector<std::string>{szMain, szWorker}));  // ordered by volume

  // The worker's set went away with its thread.
  writer->Clear();
  CScanPerformanceCounter::LogThreadCounters();
  EXPECT_EQ(Texts(), (std::vector<std::string>{szMain}));
}
