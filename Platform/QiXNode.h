// CQiXNode: a handle to one element of a CQiXDocument.
//
// A node is a light handle (one pointer), copied freely. It does not own the element: the
// document does. A handle stays valid while its document lives and until the document's content
// is replaced (CreateRootElement, LoadFromString, Clear); using it after that is undefined, as
// with any dangling pointer. A default-constructed handle is empty: every operation on it fails
// with Win32 6 (queries answer empty / false).
//
// Attribute values are text; the numeric accessors write decimal numbers and read them back
// strictly (optional '-' for the signed kinds, digits only, whole value, in range). Reading
// fails with
//   Win32 1168  "Attribute [%s] not found on element [%s]"
//   Win32 13    "Attribute [%s] of element [%s] is not a <kind>: [%s]"
// and leaves the output untouched on failure, so a caller can pass its default in it.
//
// Names must be XML names (a letter, '_' or ':' first, then letters, digits, '.', '-', '_',
// ':'; bytes of UTF-8 characters beyond ASCII count as letters), and every text must be valid
// UTF-8 without control characters other than tab, line feed and carriage return, so that a
// saved document is always well-formed XML; anything else is refused with Win32 87.
// Attribute values keep tab, line feed and carriage return exactly (they are written as character
// references); element text read back from saved text has its CR LF line ends turned into LF,
// as XML's end-of-line rule requires.
//
// Threads: a document and its nodes are used by one thread at a time.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Platform/QiError.h"

namespace pugi {
struct xml_node_struct;
}

class CQiXNode {
 public:
  CQiXNode() = default;

  bool IsValid() const { return m_pNode != nullptr; }
  // The element's name; empty for an empty handle.
  std::string GetName() const;

  // Appends a new child element at the end of this element's children.
  CQiError AddChildElement(const std::string& name, CQiXNode& child);
  // The first child element of that name; Win32 1168 when there is none.
  CQiError GetChildElement(const std::string& name, CQiXNode& child) const;
  // The child elements in document order (text, comments and the like are skipped).
  std::vector<CQiXNode> GetChildElements() const;

  bool HasAttribute(const std::string& name) const;
  // Attribute names in document order.
  std::vector<std::string> GetAttributeNames() const;

  // Setting an attribute that exists replaces its value.
  CQiError SetAttribute(const std::string& name, const std::string& value);
  CQiError SetAttributeInt(const std::string& name, int32_t value);
  CQiError SetAttributeUInt(const std::string& name, uint32_t value);
  CQiError SetAttributeInt64(const std::string& name, int64_t value);
  CQiError SetAttributeUInt64(const std::string& name, uint64_t value);

  CQiError GetAttribute(const std::string& name, std::string& value) const;
  CQiError GetAttributeInt(const std::string& name, int32_t& value) const;
  CQiError GetAttributeUInt(const std::string& name, uint32_t& value) const;
  CQiError GetAttributeInt64(const std::string& name, int64_t& value) const;
  CQiError GetAttributeUInt64(const std::string& name, uint64_t& value) const;

  // The element's text content (its first text child); SetText replaces it.
  CQiError SetText(const std::string& text);
  CQiError GetText(std::string& text) const;

  // Same element of the same document.
  bool operator==(const CQiXNode& other) const { return m_pNode == other.m_pNode; }

  // Checks an element or attribute name, and a text or attribute value (see above).
  static CQiError ValidateName(const std::string& name);
  static CQiError ValidateText(const std::string& text);

 private:
  friend class CQiXDocument;
  explicit CQiXNode(pugi::xml_node_struct* node) : m_pNode(node) {}

  CQiError CheckValid() const;
  // The attribute's text, or the 1168 error.
  CQiError FindAttribute(const std::string& name, const char*& value) const;
  template <typename T>
  CQiError SetNumber(const std::string& name, T value);
  template <typename T>
  CQiError GetNumber(const std::string& name, T& value, const char* kind) const;

  pugi::xml_node_struct* m_pNode = nullptr;
};
