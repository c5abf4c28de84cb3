#include "Platform/FilterSet.h"

#include <algorithm>
#include <unordered_map>

#include "Platform/FXErrorUtil.h"
#include "Platform/FXString.h"

// The plain items of one node state and one case mode: whole paths, their proper ancestors (to
// answer "does an item lie below F") and names (items without '/').
class CFilterSet::CPlainIndex {
 public:
  struct SInfo {
    std::string strVolume;
    FVBasePtr pContext;
  };

  explicit CPlainIndex(bool bFold)
      : m_bFold(bFold),
        m_mapPaths(16, SHash{bFold}, SEqual{bFold}),
        m_setAncestors(16, SHash{bFold}, SEqual{bFold}),
        m_mapNames(16, SHash{bFold}, SEqual{bFold}) {}

  // Adds a normalized item; false when it was already there.
  bool Add(const std::string& item, const std::string& volume, const FVBasePtr& context) {
    if (item.find('/') == std::string::npos)
      return m_mapNames.emplace(item, SInfo{volume, context}).second;
    if (!m_mapPaths.emplace(item, SInfo{volume, context}).second) return false;
    CFilterTermTestString levels(item);
    for (size_t i = 0; i + 1 < levels.GetLevelCount(); ++i)
      m_setAncestors.emplace(levels.GetPrefix(i));
    m_uDepthMask |= DepthBit(levels.GetLevelCount() - 1);
    m_nMaxPathLength = std::max(m_nMaxPathLength, item.size());
    return true;
  }

  // Whether an item matches T itself (kMatchSelf) or an ancestor of T (kMatchBelow).
  bool Matches(const CFilterTermTestString& test, unsigned matchBits) const {
    const size_t levels = test.GetLevelCount();
    if (!m_mapPaths.empty()) {
      for (size_t i = 0; i < levels; ++i) {
        const CFilterTermTestString::SLevel& level = test.GetLevel(i);
        if (level.end > m_nMaxPathLength) break;          // no item is that long
        if ((m_uDepthMask & DepthBit(i)) == 0) continue;  // no item has that many levels
        const unsigned need =
            (i + 1 == levels) ? CFilterTerm::kMatchSelf : CFilterTerm::kMatchBelow;
        if ((matchBits & need) == 0) continue;
        if (m_mapPaths.find(SKey{test.GetPrefix(i), level.hash, !m_bFold}) != m_mapPaths.end())
          return true;
      }
    }
    if (!m_mapNames.empty()) {
      for (size_t i = 0; i < levels; ++i) {
        const unsigned need =
            (i + 1 == levels) ? CFilterTerm::kMatchSelf : CFilterTerm::kMatchBelow;
        if ((matchBits & need) == 0) continue;
        std::string_view name = test.GetName(i);
        if (!name.empty() && m_mapNames.find(SKey{name, 0, false}) != m_mapNames.end()) return true;
      }
    }
    return false;
  }

  // Whether an item lies strictly below F. A name item may turn up anywhere.
  bool HasItemBelow(const CFilterTermTestString& folder) const {
    if (!m_mapNames.empty()) return true;
    const size_t levels = folder.GetLevelCount();
    if (levels == 0 || m_setAncestors.empty()) return false;
    const CFilterTermTestString::SLevel& level = folder.GetLevel(levels - 1);
    return m_setAncestors.find(SKey{folder.GetString(), level.hash, !m_bFold}) !=
           m_setAncestors.end();
  }

  size_t Count() const { return m_mapPaths.size() + m_mapNames.size(); }

  // The items in byte order, names after paths.
  std::vector<std::pair<std::string, const SInfo*>> Sorted() const {
    std::vector<std::pair<std::string, const SInfo*>> out;
    for (const auto& [item, info] : m_mapPaths) out.emplace_back(item, &info);
    for (const auto& [item, info] : m_mapNames) out.emplace_back(item, &info);
    std::sort(out.begin(), out.end(), [](const auto& a, const auto& b) {
      const bool aName = a.first.find('/') == std::string::npos;
      const bool bName = b.first.find('/') == std::string::npos;
      if (aName != bName) return bName;
      return std::string_view(a.first) < std::string_view(b.first);
    });
    return out;
  }

 private:
  // A lookup key with the hash the test string already computed (valid only for the
  // case-sensitive hash).
  struct SKey {
    std::string_view bytes;
    uint64_t hash;
    bool bHashed;
  };
  static std::string_view View(const std::string& s) { return s; }
  static std::string_view View(const SKey& k) { return k.bytes; }

  struct SHash {
    bool bFold;
    using is_transparent = void;
    size_t operator()(const std::string& s) const { return FilterPathHash(s, bFold); }
    size_t operator()(const SKey& k) const {
      return (k.bHashed && !bFold) ? k.hash : FilterPathHash(k.bytes, bFold);
    }
  };
  struct SEqual {
    bool bFold;
    using is_transparent = void;
    template <typename A, typename B>
    bool operator()(const A& a, const B& b) const {
      return bFold ? FXString::EqualsNoCase(View(a), View(b)) : View(a) == View(b);
    }
  };

  // Bit n is set when some path item has n + 1 levels (the last bit stands for all deeper ones),
  // so that levels of T at which no item can sit cost no lookup.
  static uint64_t DepthBit(size_t levelIndex) {
    return uint64_t{1} << std::min<size_t>(levelIndex, 63);
  }

  bool m_bFold;
  uint64_t m_uDepthMask = 0;
  size_t m_nMaxPathLength = 0;
  std::unordered_map<std::string, SInfo, SHash, SEqual> m_mapPaths;
  std::unordered_set<std::string, SHash, SEqual> m_setAncestors;
  std::unordered_map<std::string, SInfo, SHash, SEqual> m_mapNames;
};

namespace {
bool StateIndex(BFilterNodeState state, size_t& index) {
  switch (state) {
    case BFilterNodeState::Include:
      index = 0;
      return true;
    case BFilterNodeState::Exception:
      index = 1;
      return true;
  }
  return false;
}

const char* kStateNames[] = {"Include", "Exception"};
}  // namespace

CFilterSet::CFilterSet() = default;
CFilterSet::~CFilterSet() = default;

CQiError CFilterSet::AddFilterItem(BFilterNodeState state, const std::string& path,
                                   const std::string& volume) {
  QI_RETURN_IF_ERROR(AddFilterItem(state, path, volume, FVBasePtr()));
  return CQiError();
}

CQiError CFilterSet::AddFilterItem(BFilterNodeState state, const std::string& path,
                                   const std::string& volume, const FVBasePtr& context) {
  size_t index = 0;
  if (!StateIndex(state, index))
    return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "Invalid filter node state %u",
                          static_cast<unsigned>(state));
  auto term = std::make_shared<CFilterTerm>(BFilterTermOptions::None);
  QI_RETURN_IF_ERROR(term->LoadRaw(path), "Failed to add filter item, State=%s, Item=[%s]",
                     kStateNames[index], FXString::EscapeControl(path).c_str());
  QI_RETURN_IF_ERROR(AddTerm(index, term, volume, context));
  return CQiError();
}

CQiError CFilterSet::AddFilterTerm(BFilterNodeState state, const CFilterTermPtr& term) {
  size_t index = 0;
  if (!StateIndex(state, index))
    return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "Invalid filter node state %u",
                          static_cast<unsigned>(state));
  if (!term) return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "Empty filter term");
  if (!term->IsLoaded())
    return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "Filter term is not loaded");
  QI_RETURN_IF_ERROR(AddTerm(index, term, std::string(), FVBasePtr()));
  return CQiError();
}

CQiError CFilterSet::AddTerm(size_t stateIndex, const CFilterTermPtr& term,
                             const std::string& volume, const FVBasePtr& context) {
  if (!term->IsWildcard()) {
    // Plain terms go to the index of their case mode; only the term's own options can fold case.
    const size_t fold = term->IsCaseInsensitive(false) ? 1 : 0;
    std::unique_ptr<CPlainIndex>& index = m_aPlain[stateIndex][fold];
    if (!index) index = std::make_unique<CPlainIndex>(fold != 0);
    index->Add(term->GetItem(), volume, context);
    return CQiError();
  }
  std::string key;
  key.reserve(term->GetItem().size() + 8);
  key.push_back(static_cast<char>('0' + stateIndex));
  key += FXString::Format("%x:", static_cast<unsigned>(term->GetOptions()));
  key += term->GetItem();
  if (!m_setWildcardKeys.insert(std::move(key)).second) return CQiError();
  m_vWildcards[stateIndex].push_back(SWildcardEntry{term, volume, context});
  return CQiError();
}

bool CFilterSet::MatchesAny(size_t stateIndex, const CFilterTermTestString& test,
                            unsigned matchBits) const {
  for (const auto& index : m_aPlain[stateIndex])
    if (index && index->Matches(test, matchBits)) return true;
  for (const SWildcardEntry& entry : m_vWildcards[stateIndex])
    if (entry.pTerm->Matches(test, matchBits, m_bInsensitiveWildcards)) return true;
  return false;
}

bool CFilterSet::CouldMatchAtOrBelow(size_t stateIndex, const CFilterTermTestString& folder) const {
  for (const auto& index : m_aPlain[stateIndex]) {
    if (index &&
        (index->Matches(folder, CFilterTerm::kMatchAtOrBelow) || index->HasItemBelow(folder)))
      return true;
  }
  for (const SWildcardEntry& entry : m_vWildcards[stateIndex])
    if (entry.pTerm->CouldMatchAtOrBelow(folder, m_bInsensitiveWildcards)) return true;
  return false;
}

bool CFilterSet::IsIn(const CFilterTermTestString& test, unsigned appliesMode) const {
  const unsigned matchBits = appliesMode & CFilterTerm::kMatchAtOrBelow;
  if (matchBits == 0 || test.IsEmpty()) return false;
  if (!MatchesAny(0, test, matchBits)) return false;
  if ((appliesMode & kAppliesExceptions) && MatchesAny(1, test, matchBits)) return false;
  return true;
}

bool CFilterSet::IsMatchPossibleInFolder(const CFilterTermTestString& folder) const {
  if (folder.IsEmpty()) return false;
  // An exception on the folder or above it takes the folder's whole subtree out.
  if (MatchesAny(1, folder, CFilterTerm::kMatchAtOrBelow)) return false;
  return CouldMatchAtOrBelow(0, folder);
}

bool CFilterSet::IsMatchEntireFolder(const CFilterTermTestString& folder) const {
  if (folder.IsEmpty()) return false;
  // An include on the folder or above it reaches everything below the folder ...
  if (!MatchesAny(0, folder, CFilterTerm::kMatchAtOrBelow)) return false;
  // ... unless an exception could take something at or below the folder back out.
  return !CouldMatchAtOrBelow(1, folder);
}

// Asked for every entry of a scan: stops at the first item instead of counting them all.
bool CFilterSet::IsEmpty() const {
  for (size_t index = 0; index < kStates; ++index) {
    if (!m_vWildcards[index].empty()) return false;
    for (const auto& plain : m_aPlain[index])
      if (plain && plain->Count() != 0) return false;
  }
  return true;
}

size_t CFilterSet::GetItemCount() const {
  return GetItemCount(BFilterNodeState::Include) + GetItemCount(BFilterNodeState::Exception);
}

size_t CFilterSet::GetItemCount(BFilterNodeState state) const {
  size_t index = 0;
  if (!StateIndex(state, index)) return 0;
  size_t count = m_vWildcards[index].size();
  for (const auto& plain : m_aPlain[index])
    if (plain) count += plain->Count();
  return count;
}

size_t CFilterSet::GetWildcardItemCount() const {
  return m_vWildcards[0].size() + m_vWildcards[1].size();
}

void CFilterSet::DumpDiagnosticData(const CLineWriterPtr& writer, const std::string& prefix) const {
  if (!writer) return;
  auto write = [&](const std::string& line) { return writer->WriteLine(line).IsSuccess(); };
  if (!write(FXString::Format("%sFilterSet=0x%p, Includes=%zu, Exceptions=%zu, Wildcards=%zu, "
                              "InsensitiveWildcards=%u",
                              prefix.c_str(), static_cast<const void*>(this),
                              GetItemCount(BFilterNodeState::Include),
                              GetItemCount(BFilterNodeState::Exception), GetWildcardItemCount(),
                              m_bInsensitiveWildcards ? 1u : 0u)))
    return;
  auto context = [](const FVBasePtr& p) {
    return p ? FXString::Format(", Context=0x%p", static_cast<const void*>(p.get()))
             : std::string();
  };
  for (size_t state = 0; state < kStates; ++state) {
    for (size_t fold = 0; fold < 2; ++fold) {
      if (!m_aPlain[state][fold]) continue;
      for (const auto& [item, info] : m_aPlain[state][fold]->Sorted()) {
        const bool bName = item.find('/') == std::string::npos;
        if (!write(FXString::Format(
                "%s  %s %s=[%s], Options=0x%x, Volume=[%s]%s", prefix.c_str(), kStateNames[state],
                bName ? "Name" : "Path", FXString::EscapeControl(item).c_str(),
                static_cast<unsigned>(fold ? BFilterTermOptions::CaseInsensitive
                                           : BFilterTermOptions::None),
                FXString::EscapeControl(info->strVolume).c_str(), context(info->pContext).c_str())))
          return;
      }
    }
    for (const SWildcardEntry& entry : m_vWildcards[state]) {
      if (!write(FXString::Format(
              "%s  %s Pattern=[%s], Prefix=[%s], Options=0x%x, Volume=[%s]%s", prefix.c_str(),
              kStateNames[state], FXString::EscapeControl(entry.pTerm->GetItem()).c_str(),
              FXString::EscapeControl(entry.pTerm->GetFilterPrefix()).c_str(),
              static_cast<unsigned>(entry.pTerm->GetOptions()),
              FXString::EscapeControl(entry.strVolume).c_str(), context(entry.pContext).c_str())))
        return;
    }
  }
}
