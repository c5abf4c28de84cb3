#include <gtest/gtest.h>

#include <any>
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Platform/Bag.h"
#include "Platform/FXErrorUtil.h"
#include "Scan/AbortOperationCheck.h"
#include "Scan/ConsumerOutputHandler.h"
#include "Scan/ItemConsumer.h"
#include "Scan/ItemEvaluator.h"
#include "Scan/ScannerCallback.h"

namespace {

// ---------------------------------------------------------------------------------------------
// Abort.

TEST(ScannerCallbackAbort, IsAbortedOnceAbortIsCalledAndForEver) {
  CScannerCallback callback;
  EXPECT_FALSE(callback.IsAborted());
  EXPECT_FALSE(callback.IsAborted());
  EXPECT_TRUE(callback.Abort().IsSuccess());
  EXPECT_TRUE(callback.IsAborted());
  EXPECT_TRUE(callback.Abort().IsSuccess());
  EXPECT_TRUE(callback.IsAborted());
  // Through the abort check that the loops poll.
  const CAbortOperationCheck& check = callback;
  EXPECT_TRUE(check.IsAborted());
}

TEST(ScannerCallbackAbort, PollingThreadsSeeAnAbortFromAnotherThread) {
  auto callback = std::make_shared<CScannerCallback>();
  constexpr int kPollers = 4;
  std::atomic<int> started{0};
  std::vector<int> sawAbort(kPollers, 0);
  std::vector<std::thread> pollers;
  for (int i = 0; i < kPollers; ++i) {
    pollers.emplace_back([&, i] {
      ++started;
      // Poll as the work loops do; the deadline is only a safety net against a hang.
      const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
      while (!callback->IsAborted() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::yield();
      }
      sawAbort[i] = callback->IsAborted() ? 1 : 0;
    });
  }
  std::thread aborter([&] {
    while (started.load() < kPollers) std::this_thread::yield();
    EXPECT_TRUE(callback->Abort().IsSuccess());
  });
  aborter.join();
  for (std::thread& t : pollers) t.join();
  for (int i = 0; i < kPollers; ++i) EXPECT_EQ(1, sawAbort[i]) << "poller " << i;
}

// ---------------------------------------------------------------------------------------------
// OnScannerError: no abort, try the next engine, skip untouched.

struct SOnErrorCase {
  bool abort, skip, tryNext;
};

class ScannerCallbackOnError : public ::testing::TestWithParam<SOnErrorCase> {};

TEST_P(ScannerCallbackOnError, AsksForTheNextEngineAndLeavesSkip) {
  CScannerCallback callback;
  bool abort = GetParam().abort;
  bool skip = GetParam().skip;
  bool tryNext = GetParam().tryNext;
  CQiError engineError = QI_ERROR_WIN32(1627, "engine failed");
  EXPECT_TRUE(callback.OnScannerError(nullptr, engineError, abort, skip, tryNext).IsSuccess());
  EXPECT_FALSE(abort);
  EXPECT_TRUE(tryNext);
  EXPECT_EQ(GetParam().skip, skip);
}

INSTANTIATE_TEST_SUITE_P(Flags, ScannerCallbackOnError,
                         ::testing::Values(SOnErrorCase{false, false, false},
                                           SOnErrorCase{true, false, false},
                                           SOnErrorCase{false, true, false},
                                           SOnErrorCase{true, true, true},
                                           SOnErrorCase{false, false, true}));

// ---------------------------------------------------------------------------------------------
// Reading parameters.

enum class EBag { None, Empty, Filled };
enum class EStored { Bool, Int, UInt, Int64, UInt64, String };

struct SParameterCase {
  const char* name;
  EBag bag;
  EStored stored;  // what "Key" holds in a filled bag
  bool required;
  // Reads the parameter "Key" into a variable that starts at its default; returns the value
  // rendered as text.
  std::function<CQiError(CScannerCallback&, bool, std::string&)> read;
  uint32_t expectCode;     // 0: success
  const char* expectValue;  // the variable after the call
  const char* expectMessage;  // the error's message, null: not checked
};

void PrintTo(const SParameterCase& c, std::ostream* out) { *out << c.name; }

template <typename T>
std::string Render(const T& value) {
  if constexpr (std::is_same_v<T, std::string>) {
    return value;
  } else if constexpr (std::is_same_v<T, bool>) {
    return value ? "true" : "false";
  } else {
    return std::to_string(value);
  }
}

// A reader of type T whose variable starts at `initial`.
template <typename T>
std::function<CQiError(CScannerCallback&, bool, std::string&)> Reader(T initial) {
  return [initial](CScannerCallback& callback, bool required, std::string& rendered) {
    T value = initial;
    CQiError error = callback.GetParameter("Key", value, required);
    rendered = Render(value);
    return error;
  };
}

class ScannerCallbackParameter : public ::testing::TestWithParam<SParameterCase> {};

TEST_P(ScannerCallbackParameter, ReadsFromTheConfigurationBag) {
  const SParameterCase& c = GetParam();
  CScannerCallback callback;
  if (c.bag != EBag::None) {
    auto bag = std::make_shared<CBag>();
    if (c.bag == EBag::Filled) {
      CQiError written;
      switch (c.stored) {
        case EStored::Bool: written = bag->Write("Key", true); break;
        case EStored::Int: written = bag->Write("Key", -42); break;
        case EStored::UInt: written = bag->Write("Key", 4000000000u); break;
        case EStored::Int64: written = bag->Write("Key", -9000000000LL); break;
        case EStored::UInt64: written = bag->Write("Key", 18000000000000000000ULL); break;
        case EStored::String: written = bag->Write("Key", "text value"); break;
      }
      ASSERT_TRUE(written.IsSuccess());
      ASSERT_TRUE(bag->Write("Other", 1).IsSuccess());
    }
    ASSERT_TRUE(callback.SetScannerConfigurationBag(bag).IsSuccess());
  }
  std::string rendered;
  CQiError error = c.read(callback, c.required, rendered);
  if (c.expectCode == 0) {
    EXPECT_TRUE(error.IsSuccess()) << error.AsString();
  } else {
    EXPECT_TRUE(error.IsWin32(c.expectCode)) << error.AsString();
  }
  if (c.expectMessage != nullptr) {
    bool found = false;
    for (const CQiError::SFrame& frame : error.GetFrames()) found |= frame.text == c.expectMessage;
    EXPECT_TRUE(found) << error.AsString();
  }
  EXPECT_EQ(c.expectValue, rendered);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, ScannerCallbackParameter,
    ::testing::Values(
        // Without a bag: the default stays; only a required read fails (13).
        SParameterCase{"NoBagOptional", EBag::None, EStored::Int, false, Reader<int>(7), 0, "7", nullptr},
        SParameterCase{"NoBagRequired", EBag::None, EStored::Int, true, Reader<int>(7), 13, "7", nullptr},
        // A missing name: the default stays; a required one gives the bag's not-found error.
        SParameterCase{"MissingOptionalInt", EBag::Empty, EStored::Int, false, Reader<int>(7), 0, "7", nullptr},
        SParameterCase{"MissingOptionalString", EBag::Empty, EStored::Int, false,
                       Reader<std::string>("dflt"), 0, "dflt", nullptr},
        SParameterCase{"MissingOptionalBool", EBag::Empty, EStored::Int, false, Reader<bool>(true), 0, "true",
                       nullptr},
        SParameterCase{"MissingRequired", EBag::Empty, EStored::Int, true, Reader<int>(7), 1168, "7",
                       "Key not found, Key=Key"},
        // Present with the asked type.
        SParameterCase{"BoolRead", EBag::Filled, EStored::Bool, true, Reader<bool>(false), 0, "true", nullptr},
        SParameterCase{"IntRead", EBag::Filled, EStored::Int, false, Reader<int>(0), 0, "-42", nullptr},
        SParameterCase{"UIntRead", EBag::Filled, EStored::UInt, false, Reader<unsigned int>(0), 0, "4000000000",
                       nullptr},
        SParameterCase{"Int64Read", EBag::Filled, EStored::Int64, false, Reader<long long>(0), 0, "-9000000000",
                       nullptr},
        SParameterCase{"LongReadAsInt64", EBag::Filled, EStored::Int64, false, Reader<int64_t>(0), 0,
                       "-9000000000", nullptr},
        SParameterCase{"UInt64Read", EBag::Filled, EStored::UInt64, false, Reader<uint64_t>(0), 0,
                       "18000000000000000000", nullptr},
        SParameterCase{"StringRead", EBag::Filled, EStored::String, true, Reader<std::string>(""), 0,
                       "text value", nullptr},
        // Present with another type: 13 and the property's name, the variable untouched.
        SParameterCase{"StringAskedAsInt", EBag::Filled, EStored::String, false, Reader<int>(5), 13, "5",
                       "PropertyName=[Key], error=[bad any_cast]"},
        SParameterCase{"IntAskedAsString", EBag::Filled, EStored::Int, true, Reader<std::string>("x"), 13, "x",
                       "PropertyName=[Key], error=[bad any_cast]"},
        SParameterCase{"IntAskedAsUInt", EBag::Filled, EStored::Int, false, Reader<unsigned int>(3), 13, "3",
                       "PropertyName=[Key], error=[bad any_cast]"},
        SParameterCase{"BoolAskedAsInt", EBag::Filled, EStored::Bool, false, Reader<int>(3), 13, "3",
                       "PropertyName=[Key], error=[bad any_cast]"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(ScannerCallbackParameterAny, ReadsAnyValueAndKeepsTheDefaultWhenMissing) {
  CScannerCallback callback;
  std::any value = std::string("default");
  EXPECT_TRUE(callback.GetParameterAny("Key", value, false).IsSuccess());
  EXPECT_EQ("default", std::any_cast<std::string>(value));
  EXPECT_TRUE(callback.GetParameterAny("Key", value, true).IsWin32(13));

  auto bag = std::make_shared<CBag>();
  ASSERT_TRUE(bag->WriteAny("Key", std::vector<int>{1, 2, 3}).IsSuccess());
  ASSERT_TRUE(callback.SetScannerConfigurationBag(bag).IsSuccess());
  EXPECT_EQ(bag, callback.GetScannerConfigurationBag());
  EXPECT_TRUE(callback.GetParameterAny("Missing", value, false).IsSuccess());
  EXPECT_EQ("default", std::any_cast<std::string>(value));
  EXPECT_TRUE(callback.GetParameterAny("Missing", value, true).IsWin32(1168));
  ASSERT_TRUE(callback.GetParameterAny("Key", value, true).IsSuccess());
  EXPECT_EQ((std::vector<int>{1, 2, 3}), std::any_cast<std::vector<int>>(value));
}

// Engines set the bag while other threads read parameters.
TEST(ScannerCallbackParameterAny, BagReplacedWhileOtherThreadsRead) {
  auto callback = std::make_shared<CScannerCallback>();
  auto bag = std::make_shared<CBag>();
  ASSERT_TRUE(bag->Write("MaxWorkers", 8).IsSuccess());
  std::atomic<bool> stop{false};
  std::atomic<int> wrongValues{0};
  std::vector<std::thread> readers;
  for (int i = 0; i < 3; ++i) {
    readers.emplace_back([&] {
      while (!stop.load()) {
        int workers = 8;
        if (callback->GetParameter("MaxWorkers", workers).IsError() || workers != 8) ++wrongValues;
      }
    });
  }
  for (int i = 0; i < 2000; ++i) {
    ASSERT_TRUE(callback->SetScannerConfigurationBag(i % 2 ? bag : std::make_shared<CBag>(*bag))
                    .IsSuccess());
  }
  stop = true;
  for (std::thread& t : readers) t.join();
  EXPECT_EQ(0, wrongValues.load());
}

}  // namespace
