// EScanPerfCounterType: the 29 timers of the scan performance counters.
//
// Each counter accumulates the time spent in one kind of step (total nanoseconds and number of
// samples). The same 29 timers exist once per scan (process-wide, CScanPerformanceCounter::
// GetCounter) and once per volume and thread (CScanPerformanceCounter::GetThreadCounter). The
// values are indexes: do not reorder; TIME_SCANNER_RUN must stay 3 (the arbiter times its run on
// counter type 3).
#pragma once

#include <cstddef>
#include <cstdint>

enum class EScanPerfCounterType : uint8_t {
  TIME_TOTAL_SCAN = 0,                 // a whole scan, from the facade's start to its completion
  TIME_VOLUME_SCAN = 1,                // one volume work unit in an arbiter scanner
  TIME_TRAVERSE_FOLDER = 2,            // listing one queued folder in a traversal
  TIME_SCANNER_RUN = 3,                // the arbiter's Run: all its scanner threads
  TIME_FINDFIRST = 4,                  // starting a folder listing (ZRFindFirstFile)
  TIME_FINDNEXT = 5,                   // the next entry of a folder listing (ZRFindNextFile)
  TIME_STAT = 6,                       // reading an entry's status (lstat/fstatat)
  TIME_GET_ITEM_BY_PATH = 7,           // building an item from a path alone
  TIME_ISFILTERED = 8,                 // the filter decision of CEnumerateFiles::IsFiltered
  TIME_PROCESS_ITEM = 9,               // a traversal's ProcessItem: dispatch of one entry
  TIME_SCAN_QUERY_CALLBACK = 10,       // an engine's ScanQueryCallback for one selected item
  TIME_OUTPUT_HANDLER = 11,            // an output handler's OnItem
  TIME_OPEN_OUTPUT_HANDLER = 12,       // opening the callback's output handler for a volume
  TIME_CLOSE_OUTPUT_HANDLER = 13,      // closing it (Complete)
  TIME_DELETED_ITEM = 14,              // an output handler's OnDeletedItem
  TIME_FAILED_CONTENT = 15,            // reporting a path that could not be scanned
  TIME_WAIT_FOR_FOLDER = 16,           // a traversal worker idle, waiting for a queued folder
  TIME_ITEMEVALUATOR_ISSELECTED = 17,  // the item evaluator of a directory-change consumer
  TIME_ADD_TO_COLLECT = 18,            // handing a backed-up item to the collect consumer
  TIME_ANCESTOR_PROCESSING = 19,       // handing an item to the ancestor consumer
  TIME_ADD_TO_DIRCHANGE = 20,          // handing an item to the directory-change consumer
  TIME_COLLECT_FILE_WRITE = 21,        // writing a line of a collect file
  TIME_DB_LOOKUP = 22,                 // a scan-database look-up
  TIME_DB_INSERT = 23,                 // a scan-database insert or update
  TIME_POLICY_SCAN = 24,               // the GPFS policy engine run (mmapplypolicy)
  TIME_CHANGELOG_READ = 25,            // reading a batch of Lustre changelog records
  TIME_SORT = 26,                      // an external sort of a list file
  TIME_ENUMERATE_CHANGES = 27,         // enumerating changes reported by a file system
  TIME_LONG_PATH = 28,                 // handling a path longer than PATH_MAX
};

inline constexpr size_t kScanPerfCounterTypeCount = 29;
static_assert(static_cast<size_t>(EScanPerfCounterType::TIME_LONG_PATH) + 1 ==
              kScanPerfCounterTypeCount);
static_assert(static_cast<int>(EScanPerfCounterType::TIME_SCANNER_RUN) == 3);
