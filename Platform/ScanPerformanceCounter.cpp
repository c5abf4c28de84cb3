#include "Platform/ScanPerformanceCounter.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "Platform/ScanPerformanceCounterSet.h"

namespace {

constexpr const char* kTypeNames[kScanPerfCounterTypeCount] = {
    "TIME_TOTAL_SCAN",
    "TIME_VOLUME_SCAN",
    "TIME_TRAVERSE_FOLDER",
    "TIME_SCANNER_RUN",
    "TIME_FINDFIRST",
    "TIME_FINDNEXT",
    "TIME_STAT",
    "TIME_GET_ITEM_BY_PATH",
    "TIME_ISFILTERED",
    "TIME_PROCESS_ITEM",
    "TIME_SCAN_QUERY_CALLBACK",
    "TIME_OUTPUT_HANDLER",
    "TIME_OPEN_OUTPUT_HANDLER",
    "TIME_CLOSE_OUTPUT_HANDLER",
    "TIME_DELETED_ITEM",
    "TIME_FAILED_CONTENT",
    "TIME_WAIT_FOR_FOLDER",
    "TIME_ITEMEVALUATOR_ISSELECTED",
    "TIME_ADD_TO_COLLECT",
    "TIME_ANCESTOR_PROCESSING",
    "TIME_ADD_TO_DIRCHANGE",
    "TIME_COLLECT_FILE_WRITE",
    "TIME_DB_LOOKUP",
    "TIME_DB_INSERT",
    "TIME_POLICY_SCAN",
    "TIME_CHANGELOG_READ",
    "TIME_SORT",
    "TIME_ENUMERATE_CHANGES",
    "TIME_LONG_PATH",
};

// The process-wide registry. Never destroyed: threads may still end (and unregister) while
// static objects are being torn down at exit.
struct SRegistry {
  CScanPerformanceCounterSet processSet;
  std::mutex mutex;  // guards threadSets
  std::vector<std::shared_ptr<CScanPerformanceCounterSet>> threadSets;
};

SRegistry& Registry() {
  static SRegistry* pRegistry = new SRegistry();
  return *pRegistry;
}

// A thread's own sets, by volume, with the last one used in front: a traversal worker asks for
// the same volume on every folder, so the usual call is one string compare.
struct SThreadSets {
  std::string strLastVolume;
  CScanPerformanceCounterSet* pLast = nullptr;
  std::unordered_map<std::string, std::shared_ptr<CScanPerformanceCounterSet>> mapByVolume;

  ~SThreadSets() {
    if (mapByVolume.empty()) return;
    SRegistry& registry = Registry();
    std::lock_guard<std::mutex> lock(registry.mutex);
    std::erase_if(registry.threadSets, [this](const auto& pSet) {
      auto it = mapByVolume.find(pSet->GetVolumeName());
      return it != mapByVolume.end() && it->second == pSet;
    });
  }
};

thread_local SThreadSets t_threadSets;

}  // namespace

uint64_t CScanPerformanceCounter::GetTotalNanoseconds() const {
  uint64_t ullTotal = 0;
  for (const SStripe& stripe : m_aStripes) ullTotal += stripe.ullTotalNs.load(std::memory_order_relaxed);
  return ullTotal;
}

uint64_t CScanPerformanceCounter::GetSamples() const {
  uint64_t ullSamples = 0;
  for (const SStripe& stripe : m_aStripes) ullSamples += stripe.ullSamples.load(std::memory_order_relaxed);
  return ullSamples;
}

void CScanPerformanceCounter::Reset() {
  for (SStripe& stripe : m_aStripes) {
    stripe.ullTotalNs.store(0, std::memory_order_relaxed);
    stripe.ullSamples.store(0, std::memory_order_relaxed);
  }
}

const char* CScanPerformanceCounter::GetTypeName(EScanPerfCounterType eType) {
  const size_t uIndex = static_cast<size_t>(eType);
  return uIndex < kScanPerfCounterTypeCount ? kTypeNames[uIndex] : "TIME_UNKNOWN";
}

bool CScanPerformanceCounter::FindType(std::string_view strName, EScanPerfCounterType& eType) {
  for (size_t i = 0; i < kScanPerfCounterTypeCount; ++i) {
    if (strName == kTypeNames[i]) {
      eType = static_cast<EScanPerfCounterType>(i);
      return true;
    }
  }
  return false;
}

CScanPerformanceCounter& CScanPerformanceCounter::GetCounter(EScanPerfCounterType eType) {
  return Registry().processSet.Get(eType);
}

CScanPerformanceCounterSet& CScanPerformanceCounter::GetThreadCounter(
    const std::string& strVolumeName) {
  SThreadSets& sets = t_threadSets;
  if (sets.pLast != nullptr && sets.strLastVolume == strVolumeName) return *sets.pLast;

  auto it = sets.mapByVolume.find(strVolumeName);
  if (it == sets.mapByVolume.end()) {
    auto pSet = std::make_shared<CScanPerformanceCounterSet>(
        strVolumeName, static_cast<long>(syscall(SYS_gettid)));
    {
      SRegistry& registry = Registry();
      std::lock_guard<std::mutex> lock(registry.mutex);
      registry.threadSets.push_back(pSet);
    }
    it = sets.mapByVolume.emplace(strVolumeName, std::move(pSet)).first;
  }
  sets.strLastVolume = strVolumeName;
  sets.pLast = it->second.get();
  return *sets.pLast;
}

void CScanPerformanceCounter::LogAllCounters() { Registry().processSet.LogCounters(); }

void CScanPerformanceCounter::LogThreadCounters() {
  // Copied out so that logging does not hold the registry's lock; the shared pointers keep the
  // sets alive even if their threads end meanwhile.
  std::vector<std::shared_ptr<CScanPerformanceCounterSet>> lstSets;
  {
    SRegistry& registry = Registry();
    std::lock_guard<std::mutex> lock(registry.mutex);
    lstSets = registry.threadSets;
  }
  std::sort(lstSets.begin(), lstSets.end(), [](const auto& a, const auto& b) {
    if (a->GetVolumeName() != b->GetVolumeName()) return a->GetVolumeName() < b->GetVolumeName();
    return a->GetThreadId() < b->GetThreadId();
  });
  for (const auto& pSet : lstSets) pSet->LogCounters();
}

void CScanPerformanceCounter::ResetAll() {
  SRegistry& registry = Registry();
  registry.processSet.Reset();
  std::lock_guard<std::mutex> lock(registry.mutex);
  for (const auto& pSet : registry.threadSets) pSet->Reset();
}
