// CQiXDocument: an XML document held in memory, read from and written to strings.
//
// A document holds at most one root element; build it with CreateRootElement and the
// CQiXNode operations, or parse it with LoadFromString, and write it with SaveToString and
// BQiXFormat flags:
//
//   CQiXDocument document;
//   CQiXNode root, filesystem;
//   QI_RETURN_IF_ERROR(document.CreateRootElement("Metadata", root));
//   QI_RETURN_IF_ERROR(root.AddChildElement("Filesystem", filesystem));
//   QI_RETURN_IF_ERROR(filesystem.SetAttributeInt64("CreationTime", ctime));
//   QI_RETURN_IF_ERROR(document.SaveToString(text, BQiXFormatRaw | BQiXFormatNoDeclaration));
//
// Errors: parsing text that is not well-formed XML (or holds no root element, several root
// elements, or a NUL byte) is Win32 13 "Malformed XML at offset %lld: %s" with the parser's
// description; a document without a root element has nothing to save or return (Win32 1168);
// unknown format bits are Win32 87.
//
// Ownership: the document owns every element. CQiXNode handles point into it and are valid
// while the document lives and until its content is replaced (CreateRootElement,
// LoadFromString, Clear). The document cannot be copied or moved, so that handles never follow a
// moved-from object; share it through CQiXDocumentPtr when needed.
//
// Threads: one thread at a time per document (including its nodes); different documents are
// independent.
#pragma once

#include <memory>
#include <string>

#include "Platform/QiError.h"
#include "Platform/QiXFormat.h"
#include "Platform/QiXNode.h"

namespace pugi {
class xml_document;
}

class CQiXDocument {
 public:
  CQiXDocument();
  ~CQiXDocument();
  CQiXDocument(const CQiXDocument&) = delete;
  CQiXDocument& operator=(const CQiXDocument&) = delete;

  // Replaces the whole content by one empty root element of that name.
  CQiError CreateRootElement(const std::string& name, CQiXNode& root);
  // The root element; Win32 1168 when the document is empty.
  CQiError GetRootElement(CQiXNode& root) const;

  // Parses UTF-8 text (a leading byte order mark and an XML declaration are accepted) and
  // replaces the content with it. On failure the document is left empty.
  CQiError LoadFromString(const std::string& text);
  // Writes the document as UTF-8 text; formatFlags combines BQiXFormat bits.
  CQiError SaveToString(std::string& text, uint32_t formatFlags = BQiXFormatDefault) const;

  void Clear();
  bool IsEmpty() const;

 private:
  std::unique_ptr<pugi::xml_document> m_pDocument;
};

using CQiXDocumentPtr = std::shared_ptr<CQiXDocument>;
