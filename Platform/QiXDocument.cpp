#include "Platform/QiXDocument.h"

#include <pugixml.hpp>

#include <new>

#include "Platform/FXErrorUtil.h"

namespace {
// Collects pugixml's output into a string.
class CStringWriter : public pugi::xml_writer {
 public:
  explicit CStringWriter(std::string& text) : m_strText(text) {}
  void write(const void* data, size_t size) override {
    m_strText.append(static_cast<const char*>(data), size);
  }

 private:
  std::string& m_strText;
};

unsigned int ToPugiFlags(uint32_t flags) {
  unsigned int pugiFlags = 0;
  if (flags & BQiXFormatIndent) pugiFlags |= pugi::format_indent;
  if (flags & BQiXFormatWriteBom) pugiFlags |= pugi::format_write_bom;
  if (flags & BQiXFormatRaw) pugiFlags |= pugi::format_raw;
  if (flags & BQiXFormatNoDeclaration) pugiFlags |= pugi::format_no_declaration;
  return pugiFlags;
}

size_t CountRootElements(const pugi::xml_document& document) {
  size_t count = 0;
  for (pugi::xml_node node : document.children()) {
    if (node.type() == pugi::node_element) ++count;
  }
  return count;
}
}  // namespace

CQiXDocument::CQiXDocument() : m_pDocument(std::make_unique<pugi::xml_document>()) {}

CQiXDocument::~CQiXDocument() = default;

void CQiXDocument::Clear() { m_pDocument->reset(); }

bool CQiXDocument::IsEmpty() const { return !m_pDocument->document_element(); }

CQiError CQiXDocument::CreateRootElement(const std::string& name, CQiXNode& root) {
  QI_RETURN_IF_ERROR(CQiXNode::ValidateName(name));
  m_pDocument->reset();
  pugi::xml_node element = m_pDocument->append_child(name.c_str());
  if (!element) {
    return QI_ERROR_WIN32(QiErrorCode::OutOfMemory, "Cannot create root element [%s]",
                          name.c_str());
  }
  root = CQiXNode(element.internal_object());
  return CQiError();
}

CQiError CQiXDocument::GetRootElement(CQiXNode& root) const {
  pugi::xml_node element = m_pDocument->document_element();
  if (!element) return QI_ERROR_WIN32(QiErrorCode::NotFound, "XML document has no root element");
  root = CQiXNode(element.internal_object());
  return CQiError();
}

CQiError CQiXDocument::LoadFromString(const std::string& text) {
  m_pDocument->reset();
  size_t nul = text.find('\0');
  if (nul != std::string::npos) {
    return QI_ERROR_WIN32(QiErrorCode::InvalidData, "Malformed XML at offset %zu: NUL byte", nul);
  }
  pugi::xml_parse_result result = m_pDocument->load_buffer(text.data(), text.size(),
                                                           pugi::parse_default,
                                                           pugi::encoding_utf8);
  if (!result) {
    m_pDocument->reset();
    if (result.status == pugi::status_out_of_memory) {
      return QI_ERROR_WIN32(QiErrorCode::OutOfMemory, "Out of memory parsing XML of %zu bytes",
                            text.size());
    }
    return QI_ERROR_WIN32(QiErrorCode::InvalidData, "Malformed XML at offset %lld: %s",
                          static_cast<long long>(result.offset), result.description());
  }
  // The parser accepts fragments; a document has exactly one root element.
  if (CountRootElements(*m_pDocument) > 1) {
    m_pDocument->reset();
    return QI_ERROR_WIN32(QiErrorCode::InvalidData,
                          "Malformed XML: more than one root element");
  }
  return CQiError();
}

CQiError CQiXDocument::SaveToString(std::string& text, uint32_t formatFlags) const {
  if ((formatFlags & ~static_cast<uint32_t>(BQiXFormatAll)) != 0) {
    return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "Unknown XML format flags 0x%X",
                          formatFlags & ~static_cast<uint32_t>(BQiXFormatAll));
  }
  if (IsEmpty()) {
    return QI_ERROR_WIN32(QiErrorCode::NotFound, "XML document has no root element to save");
  }
  std::string out;
  try {
    CStringWriter writer(out);
    m_pDocument->save(writer, "  ", ToPugiFlags(formatFlags), pugi::encoding_utf8);
  } catch (const std::bad_alloc&) {
    return QI_ERROR_WIN32(QiErrorCode::OutOfMemory, "Out of memory saving an XML document");
  }
  text.swap(out);
  return CQiError();
}
