// CPathCacheUnorderedT: a tree of path components that maps full paths to a value and tells,
// for any path, whether the path itself, its parent folder or a farther ancestor carries one.
//
// The path enumerators keep the mount points they must not enter in it ("ignoreFS" rule) and
// look every listed entry up; the engines that build enumerators create the cache and hand it
// over. The class is a template over the value type; insertion is a template over an insert
// policy that decides what to store when the path already has a value (LeaveDataAlone keeps the
// first value, ReplaceData takes the new one). The library instantiates it with std::string.
//
// Paths are byte strings split at the delimiter ('/'); runs of delimiters never make empty
// components, a trailing delimiter (or run of them) is ignored, and components compare
// case-sensitively byte by byte (strcmp order). Embedded NUL bytes are ordinary bytes of a
// component; nothing is validated, so a search never fails and absence is the answer NotFound.
//
// Ownership: the cache holds the root node; each node owns its children through shared
// pointers and knows its parent through a weak pointer. Copies are shallow on purpose: a copy
// (copy constructor or assignment) shares the same root, so inserts through one copy are seen
// by every other.
//
// Threads: no lock. Searches through any number of copies may run at once; an insert must not
// run while the same tree is searched or changed through any copy.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <new>
#include <string>
#include <string_view>

#include "Platform/FXErrorUtil.h"
#include "Platform/QiError.h"
#include "Platform/StringCompare.h"

// Platform code of a write-protected container ("Container is write-protected").
inline constexpr uint32_t kPathCacheWriteProtected = 19;

// Flags of one node.
enum class BPathCacheNodeFlags : uint32_t {
  None = 0,
  ContentPresent = 0x1,  // the node carries a value
};

constexpr BPathCacheNodeFlags operator|(BPathCacheNodeFlags a, BPathCacheNodeFlags b) {
  return static_cast<BPathCacheNodeFlags>(static_cast<uint32_t>(a) | static_cast<uint32_t>(b));
}

constexpr BPathCacheNodeFlags operator&(BPathCacheNodeFlags a, BPathCacheNodeFlags b) {
  return static_cast<BPathCacheNodeFlags>(static_cast<uint32_t>(a) & static_cast<uint32_t>(b));
}

// The answer of a search: where the nearest value was found.
enum class EPathCacheResult : int {
  NotFound = 0,  // neither the path nor any ancestor has a value
  Exact = 1,     // the path itself has a value
  Parent = 2,    // the path's parent folder has the value
  Ancestor = 3,  // a farther ancestor has the value
};

// Insert policy: a second insert of a path leaves the first value in place.
struct LeaveDataAlone {
  template <typename TValue>
  static const TValue& OnExists(const TValue& oldValue, const TValue& /*newValue*/) {
    return oldValue;
  }
};

// Insert policy: a second insert of a path replaces the value.
struct ReplaceData {
  template <typename TValue>
  static const TValue& OnExists(const TValue& /*oldValue*/, const TValue& newValue) {
    return newValue;
  }
};

// One component of the tree. The data is meaningful only when content is present.
template <typename TValue>
class CPathCacheUnorderedTNode {
 public:
  using NodePtr = std::shared_ptr<CPathCacheUnorderedTNode>;
  using ChildMap = std::map<std::string, NodePtr, __less_fscase_cmp>;

  CPathCacheUnorderedTNode() = default;
  explicit CPathCacheUnorderedTNode(const NodePtr& parent) : m_pParent(parent) {}

  const TValue& GetData() const { return m_data; }
  void SetData(const TValue& value) {
    m_data = value;
    SetContentPresent();
  }
  void SetContentPresent() { m_bFlags = m_bFlags | BPathCacheNodeFlags::ContentPresent; }
  bool IsContentPresent() const {
    return (m_bFlags & BPathCacheNodeFlags::ContentPresent) != BPathCacheNodeFlags::None;
  }
  BPathCacheNodeFlags GetFlags() const { return m_bFlags; }
  ChildMap& GetChildren() { return m_mapChildren; }
  const ChildMap& GetChildren() const { return m_mapChildren; }
  // The parent node, empty for the root (or when the tree above was dropped).
  NodePtr GetParent() const { return m_pParent.lock(); }

 private:
  BPathCacheNodeFlags m_bFlags = BPathCacheNodeFlags::None;
  std::weak_ptr<CPathCacheUnorderedTNode> m_pParent;
  TValue m_data{};
  ChildMap m_mapChildren;
};

template <typename TValue>
class CPathCacheUnorderedT {
 public:
  using Node = CPathCacheUnorderedTNode<TValue>;
  using NodePtr = typename Node::NodePtr;

  CPathCacheUnorderedT() { Initialize(); }
  virtual ~CPathCacheUnorderedT() = default;

  // Shallow: the copy shares the root node, so both see each other's inserts.
  CPathCacheUnorderedT(const CPathCacheUnorderedT& other) = default;
  CPathCacheUnorderedT& operator=(const CPathCacheUnorderedT& other) = default;

  // Default settings and a fresh, empty tree.
  void Initialize() {
    m_cDelimiter = '/';
    m_bAcceptBothSlashes = false;
    m_bSkipLeadingDelimiters = true;
    m_pRoot = std::make_shared<Node>();
    m_bWriteProtected = false;
  }

  // Stores the value unless the path already has one (LeaveDataAlone); the result is dropped.
  void Insert(std::string_view path, const TValue& value) {
    (void)InsertOrUpdate<LeaveDataAlone>(path, value);
  }

  // Stores the value for the path, creating the components on the way (they carry no value).
  // When the path already has a value, TPolicy::OnExists(old, new) decides what is stored.
  // An empty path or one made only of delimiters addresses the root.
  // Fails with 19 "Container is write-protected" (tree unchanged) or 14 when a node cannot be
  // allocated (the nodes made before stay, without value).
  template <typename TPolicy = LeaveDataAlone>
  CQiError InsertOrUpdate(std::string_view path, const TValue& value);

  // Finds the nearest carrier of a value: the path itself (Exact), its parent folder (Parent)
  // or a farther ancestor (Ancestor); node is the carrier, empty for NotFound.
  EPathCacheResult Search(std::string_view path, NodePtr& node) const;
  // Same, copying the carrier's value; the value is left untouched for NotFound.
  EPathCacheResult Search(std::string_view path, TValue& value) const;

  bool IsWriteProtected() const { return m_bWriteProtected; }
  bool IsDelimiter(char c) const {
    if (c == m_cDelimiter) return true;
    return m_bAcceptBothSlashes && (m_cDelimiter == '/' || m_cDelimiter == '\\') &&
           (c == '/' || c == '\\');
  }

  // Moves position past delimiters (at the start of the path only when leading delimiters
  // are skipped; otherwise they become part of the first component) and returns the index of
  // the next delimiter at or after it, or npos at the end of the path.
  size_t FindDelimiter(size_t& position, std::string_view path) const;

  // Settings; nothing in the library changes them from their defaults.
  void SetWriteProtected(bool bProtected) { m_bWriteProtected = bProtected; }
  void SetAcceptBothSlashes(bool bAccept) { m_bAcceptBothSlashes = bAccept; }
  void SetSkipLeadingDelimiters(bool bSkip) { m_bSkipLeadingDelimiters = bSkip; }
  void SetDelimiter(char cDelimiter) { m_cDelimiter = cDelimiter; }
  char GetDelimiter() const { return m_cDelimiter; }
  bool GetAcceptBothSlashes() const { return m_bAcceptBothSlashes; }
  bool GetSkipLeadingDelimiters() const { return m_bSkipLeadingDelimiters; }

  const NodePtr& GetRoot() const { return m_pRoot; }

 private:
  // One step of a walk: the component at [begin, end) and whether it is the last one.
  struct SComponent {
    std::string_view text;
    bool bLast = true;
    size_t next = 0;  // position of the following component (when not last)
  };
  SComponent NextComponent(size_t position, std::string_view path) const;

  template <typename TPolicy>
  static void Store(Node& node, const TValue& value) {
    if (node.IsContentPresent()) {
      TValue chosen = TPolicy::OnExists(node.GetData(), value);
      node.SetData(chosen);
    } else {
      node.SetData(value);
    }
  }

  char m_cDelimiter = '/';
  bool m_bAcceptBothSlashes = false;
  bool m_bSkipLeadingDelimiters = true;
  NodePtr m_pRoot;
  bool m_bWriteProtected = false;
};

template <typename TValue>
size_t CPathCacheUnorderedT<TValue>::FindDelimiter(size_t& position, std::string_view path) const {
  size_t search = position;
  if (position == 0 && !m_bSkipLeadingDelimiters) {
    // The leading delimiters stay part of the first component; only the search passes them.
    while (search < path.size() && IsDelimiter(path[search])) ++search;
  } else {
    while (position < path.size() && IsDelimiter(path[position])) ++position;
    search = position;
  }
  for (; search < path.size(); ++search) {
    if (IsDelimiter(path[search])) return search;
  }
  return std::string_view::npos;
}

template <typename TValue>
typename CPathCacheUnorderedT<TValue>::SComponent CPathCacheUnorderedT<TValue>::NextComponent(
    size_t position, std::string_view path) const {
  SComponent component;
  size_t delimiter = FindDelimiter(position, path);
  if (delimiter == std::string_view::npos) {
    component.text = path.substr(position);
    return component;
  }
  component.text = path.substr(position, delimiter - position);
  // A delimiter (or a run of them) that ends the path counts as the end: trailing delimiters
  // are ignored and never give an empty last component.
  size_t after = delimiter;
  while (after < path.size() && IsDelimiter(path[after])) ++after;
  component.bLast = after >= path.size();
  component.next = delimiter + 1;
  return component;
}

template <typename TValue>
template <typename TPolicy>
CQiError CPathCacheUnorderedT<TValue>::InsertOrUpdate(std::string_view path, const TValue& value) {
  if (m_bWriteProtected) {
    return QI_ERROR_WIN32(kPathCacheWriteProtected, "Container is write-protected");
  }
  if (path.empty() || (path.size() == 1 && IsDelimiter(path[0]))) {
    Store<TPolicy>(*m_pRoot, value);
    return CQiError();
  }
  NodePtr current = m_pRoot;
  size_t position = 0;
  for (;;) {
    SComponent component = NextComponent(position, path);
    if (component.text.empty() && component.bLast && current == m_pRoot) {
      break;  // a path made only of delimiters: the root
    }
    auto& children = current->GetChildren();
    auto found = children.find(component.text);
    if (found == children.end()) {
      try {
        NodePtr child = std::make_shared<Node>(current);
        found = children.emplace(std::string(component.text), std::move(child)).first;
      } catch (const std::bad_alloc&) {
        return QI_ERROR_WIN32(QiErrorCode::OutOfMemory,
                              "Failed to allocate a path cache node, Path=%.*s",
                              static_cast<int>(path.size()), path.data());
      }
    }
    current = found->second;
    if (component.bLast) break;
    position = component.next;
  }
  Store<TPolicy>(*current, value);
  return CQiError();
}

template <typename TValue>
EPathCacheResult CPathCacheUnorderedT<TValue>::Search(std::string_view path, NodePtr& node) const {
  node.reset();
  size_t position = 0;
  if (!m_bSkipLeadingDelimiters && path.size() == 1 && IsDelimiter(path[0])) position = 1;

  NodePtr current = m_pRoot;
  NodePtr parent = m_pRoot;
  NodePtr lastWithValue = m_pRoot;
  auto answer = [&node](EPathCacheResult result, const NodePtr& carrier) {
    node = carrier;
    return result;
  };

  for (;;) {
    SComponent component = NextComponent(position, path);
    const auto& children = current->GetChildren();
    auto found = children.find(component.text);
    if (found != children.end()) {
      parent = current;
      current = found->second;
      if (!component.bLast) {
        if (current->IsContentPresent()) lastWithValue = current;
        position = component.next;
        continue;
      }
      if (current->IsContentPresent()) return answer(EPathCacheResult::Exact, current);
      if (parent->IsContentPresent()) return answer(EPathCacheResult::Parent, parent);
      if (lastWithValue->IsContentPresent()) {
        return answer(EPathCacheResult::Ancestor, lastWithValue);
      }
      return EPathCacheResult::NotFound;
    }
    if (!component.bLast) {
      if (current->IsContentPresent()) return answer(EPathCacheResult::Ancestor, current);
      if (lastWithValue->IsContentPresent()) {
        return answer(EPathCacheResult::Ancestor, lastWithValue);
      }
      return EPathCacheResult::NotFound;
    }
    if (current == m_pRoot && component.text.empty() && m_pRoot->IsContentPresent()) {
      return answer(EPathCacheResult::Exact, m_pRoot);
    }
    if (current->IsContentPresent()) return answer(EPathCacheResult::Parent, current);
    if (lastWithValue->IsContentPresent()) {
      return answer(EPathCacheResult::Ancestor, lastWithValue);
    }
    return EPathCacheResult::NotFound;
  }
}

template <typename TValue>
EPathCacheResult CPathCacheUnorderedT<TValue>::Search(std::string_view path, TValue& value) const {
  NodePtr node;
  EPathCacheResult result = Search(path, node);
  if (node) value = node->GetData();
  return result;
}

// The library's instantiation, compiled once in PathCacheUnorderedT.cpp.
extern template class CPathCacheUnorderedTNode<std::string>;
extern template class CPathCacheUnorderedT<std::string>;

using CPathCache = CPathCacheUnorderedT<std::string>;
using CPathCachePtr = std::shared_ptr<CPathCache>;
