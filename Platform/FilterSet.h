// CFilterSet: a set of include and exception filter items, asked whether a path is in it.
//
// Each work unit holds three sets (scan content, filters, system filters); the scan asks them
// about every file and folder it meets, so the questions are answered without scanning the
// items one by one:
//   - plain items (no wildcard) sit in hash tables; "is T or an ancestor of T an item" costs one
//     lookup per level of T, using the hashes CFilterTermTestString computed once;
//   - plain items without '/' (names) sit in a hash table of names, tested once per component;
//   - wildcard items are kept in a list and matched one after another (CFilterTerm).
// Item syntax and matching rules: CFilterTerm and docs/filters.md.
//
// Questions:
//   IsIn(T, mode)              some include matches T and no exception does (mode 7); see the
//                              applies-mode bits below.
//   IsMatchPossibleInFolder(F) something at or below F could be in the set: an include matches
//                              F or an ancestor of F, or an include could match below F; and no
//                              exception matches F or an ancestor of F (which would take F's
//                              whole subtree out). An exception below F does not make F
//                              impossible.
//   IsMatchEntireFolder(F)     F and everything below F is in the set: an include matches F or
//                              an ancestor of F, and no exception could match at or below F.
// Both folder questions err on the safe side for pruning a traversal: "possible" may say yes
// when nothing below turns out to match, "entire" may say no when everything does.
//
// Case: plain items compare case-sensitively (this platform's file systems are); wildcard items
// too, unless SetUseInsensitiveFilterForWildCard(true) asks for ASCII case folding. Terms can
// override both through BFilterTermOptions.
//
// Duplicates: an item is stored once per node state; "/data/" and "/data" are the same item
// after normalization. The same item may be both an include and an exception (the exception
// wins).
//
// Threads: filling (AddFilterItem, AddFilterTerm, SetUseInsensitiveFilterForWildCard) is done
// by one thread before the set is shared; afterwards any number of threads may call the const
// operations at once without a lock. Filling while others read is not allowed.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <unordered_set>
#include <vector>

#include "Platform/FVBase.h"
#include "Platform/FilterNodeState.h"
#include "Platform/FilterTerm.h"
#include "Platform/FilterTermTestString.h"
#include "Platform/LineWriter.h"
#include "Platform/QiError.h"

class CFilterSet {
 public:
  // Applies-mode bits of IsIn. Bits 1 and 2 say how an item may reach T, for includes and
  // exceptions alike; bit 4 says whether exceptions are applied at all.
  static constexpr unsigned kAppliesToItem = 1;      // an item matches T itself
  static constexpr unsigned kAppliesBelowItem = 2;   // an item matches an ancestor of T
  static constexpr unsigned kAppliesExceptions = 4;  // exceptions take matches back out
  static constexpr unsigned kAppliesAll = 7;         // the ordinary question, used everywhere

  CFilterSet();
  ~CFilterSet();
  CFilterSet(const CFilterSet&) = delete;
  CFilterSet& operator=(const CFilterSet&) = delete;

  // Adds a plain or wildcard item (parsed as a term with options 0). The volume and context are
  // kept for the diagnostic dump only. Errors: Win32 87 for a bad node state and for the items
  // CFilterTerm::LoadRaw refuses, Win32 13 for malformed patterns; nothing is added then.
  CQiError AddFilterItem(BFilterNodeState state, const std::string& path,
                         const std::string& volume = std::string());
  CQiError AddFilterItem(BFilterNodeState state, const std::string& path, const std::string& volume,
                         const FVBasePtr& context);
  // Adds a loaded term; its options decide its case handling. Win32 87 for a bad node state, an
  // empty pointer or a term that was not loaded.
  CQiError AddFilterTerm(BFilterNodeState state, const CFilterTermPtr& term);

  bool IsIn(const CFilterTermTestString& test, unsigned appliesMode = kAppliesAll) const;
  bool IsMatchPossibleInFolder(const CFilterTermTestString& folder) const;
  bool IsMatchEntireFolder(const CFilterTermTestString& folder) const;

  void SetUseInsensitiveFilterForWildCard(bool bInsensitive) {
    m_bInsensitiveWildcards = bInsensitive;
  }
  bool IsUseInsensitiveFilterForWildCardSet() const { return m_bInsensitiveWildcards; }

  bool IsEmpty() const;
  size_t GetItemCount() const;
  size_t GetItemCount(BFilterNodeState state) const;
  size_t GetWildcardItemCount() const;

  // Writes a header line and one line per item, each starting with the prefix. Plain items come
  // in byte order, wildcard items in the order added. An empty writer writes nothing; the first
  // failing write ends the dump.
  void DumpDiagnosticData(const CLineWriterPtr& writer, const std::string& prefix) const;

 private:
  class CPlainIndex;
  struct SWildcardEntry {
    CFilterTermPtr pTerm;
    std::string strVolume;
    FVBasePtr pContext;
  };
  static constexpr size_t kStates = 2;

  CQiError AddTerm(size_t stateIndex, const CFilterTermPtr& term, const std::string& volume,
                   const FVBasePtr& context);
  bool MatchesAny(size_t stateIndex, const CFilterTermTestString& test, unsigned matchBits) const;
  bool CouldMatchAtOrBelow(size_t stateIndex, const CFilterTermTestString& folder) const;

  // Plain items per node state, case-sensitive [0] and case-folded [1]; made when first needed.
  std::unique_ptr<CPlainIndex> m_aPlain[kStates][2];
  std::vector<SWildcardEntry> m_vWildcards[kStates];
  std::unordered_set<std::string> m_setWildcardKeys;  // node state, options and pattern
  bool m_bInsensitiveWildcards = false;
};

using CFilterSetPtr = std::shared_ptr<CFilterSet>;
