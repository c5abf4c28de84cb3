// The scanner callback's parameters, read from the configuration bag (also while the bag is being
// replaced).
#include <gtest/gtest.h>

#include <any>
#include <atomic>
#include <functional>
#include <thread>

#include "Platform/Bag.h"
#include "Platform/FXErrorUtil.h"
#include "Scan/ScannerCallback.h"

namespace {

enum class EBag { None, Empty, Filled };

struct SParameterCase {
  const char* name;
  EBag bag;
  std::any stored;  // what "Key" holds in a filled bag
  bool required;
  // Reads "Key" into a variable that starts at its default; gives the value rendered as text.
  std::function<CQiError(CScannerCallback&, bool, std::string&)> read;
  uint32_t expectCode;        // 0: success
  const char* expectValue;    // the variable after the call
  const char* expectMessage;  // a frame of the error, null: not checked
};

// A reader of type T whose variable starts at `initial`.
template <typename T>
std::function<CQiError(CScannerCallback&, bool, std::string&)> Reader(T initial) {
  return [initial](CScannerCallback& callback, bool required, std::string& rendered) {
    T value = initial;
    CQiError error = callback.GetParameter("Key", value, required);
    if constexpr (std::is_same_v<T, std::string>) rendered = value;
    else rendered = std::to_string(value);
    return error;
  };
}

class ScannerCallbackParameter : public ::testing::TestWithParam<SParameterCase> {};

TEST_P(ScannerCallbackParameter, ReadsFromTheConfigurationBag) {
  const SParameterCase& c = GetParam();
  CScannerCallback callback;
  if (c.bag != EBag::None) {
    auto bag = std::make_shared<CBag>();
    ASSERT_TRUE(c.bag == EBag::Empty || (bag->WriteAny("Key", c.stored).IsSuccess() && bag->Write("Other", 1).IsSuccess()));
    ASSERT_TRUE(callback.SetScannerConfigurationBag(bag).IsSuccess());
  }
  std::string rendered;
  CQiError error = c.read(callback, c.required, rendered);
  EXPECT_TRUE(c.expectCode == 0 ? error.IsSuccess() : error.IsWin32(c.expectCode)) << error.AsString();
  bool found = c.expectMessage == nullptr;
  for (const CQiError::SFrame& frame : error.GetFrames()) found |= !found && frame.text == c.expectMessage;
  EXPECT_TRUE(found) << error.AsString();
  EXPECT_EQ(c.expectValue, rendered);
}

const char* const kBadCast = "PropertyName=[Key], error=[bad any_cast]";
INSTANTIATE_TEST_SUITE_P(
    Cases, ScannerCallbackParameter,
    ::testing::Values(
        // Without a bag: the default stays; only a required read fails (13).
        SParameterCase{"NoBagOptional", EBag::None, {}, false, Reader<int>(7), 0, "7", nullptr},
        SParameterCase{"NoBagRequired", EBag::None, {}, true, Reader<int>(7), 13, "7", nullptr},
        // A missing name: the default stays; a required one gives the bag's not-found error.
        SParameterCase{"MissingOptional", EBag::Empty, {}, false, Reader<std::string>("dflt"), 0, "dflt", nullptr},
        SParameterCase{"MissingRequired", EBag::Empty, {}, true, Reader<int>(7), 1168, "7", "Key not found, Key=Key"},
        // Present with the asked type.
        SParameterCase{"IntRead", EBag::Filled, -42, false, Reader<int>(0), 0, "-42", nullptr},
        SParameterCase{"LongReadAsInt64", EBag::Filled, -9000000000LL, false, Reader<int64_t>(0), 0, "-9000000000",
                       nullptr},
        SParameterCase{"UInt64Read", EBag::Filled, 18000000000000000000ULL, false, Reader<uint64_t>(0), 0,
                       "18000000000000000000", nullptr},
        SParameterCase{"StringRead", EBag::Filled, std::string("text value"), true, Reader<std::string>(""), 0,
                       "text value", nullptr},
        // Present with another type: 13 and the property's name, the variable untouched.
        SParameterCase{"StringAskedAsInt", EBag::Filled, std::string("x"), false, Reader<int>(5), 13, "5", kBadCast},
        SParameterCase{"IntAskedAsString", EBag::Filled, -42, true, Reader<std::string>("x"), 13, "x", kBadCast}),
    [](const auto& info) { return std::string(info.param.name); });

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
  for (int i = 0; i < 2000; ++i)
    ASSERT_TRUE(callback->SetScannerConfigurationBag(i % 2 ? bag : std::make_shared<CBag>(*bag)).IsSuccess());
  stop = true;
  for (std::thread& t : readers) t.join();
  EXPECT_EQ(0, wrongValues.load());
}

}  // namespace
