#include "Platform/QiXNode.h"

#include <pugixml.hpp>

#include <charconv>
#include <cstring>

#include "Platform/FXErrorUtil.h"
#include "Platform/FXString.h"

namespace {
// Length of the valid UTF-8 sequence at text[i], or 0 when the bytes there are not one
// (overlong forms, surrogates and code points above U+10FFFF are refused).
size_t Utf8SequenceLength(const std::string& text, size_t i) {
  const auto byte = [&](size_t k) { return static_cast<unsigned char>(text[k]); };
  unsigned char lead = byte(i);
  if (lead < 0x80) return 1;
  size_t length;
  uint32_t codePoint;
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2;
    codePoint = lead & 0x1F;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3;
    codePoint = lead & 0x0F;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4;
    codePoint = lead & 0x07;
  } else {
    return 0;
  }
  if (i + length > text.size()) return 0;
  for (size_t k = 1; k < length; ++k) {
    if ((byte(i + k) & 0xC0) != 0x80) return 0;
    codePoint = (codePoint << 6) | (byte(i + k) & 0x3F);
  }
  static const uint32_t kMinimum[] = {0, 0, 0x80, 0x800, 0x10000};
  if (codePoint < kMinimum[length] || codePoint > 0x10FFFF) return 0;
  if (codePoint >= 0xD800 && codePoint <= 0xDFFF) return 0;
  return length;
}

bool IsNameStart(unsigned char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_' || c == ':' || c >= 0x80;
}

bool IsNameChar(unsigned char c) {
  return IsNameStart(c) || (c >= '0' && c <= '9') || c == '.' || c == '-';
}

const char* ElementName(pugi::xml_node_struct* node) {
  const char* name = pugi::xml_node(node).name();
  return name != nullptr ? name : "";
}
}  // namespace

CQiError CQiXNode::ValidateName(const std::string& name) {
  if (name.empty()) return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "XML name is empty");
  for (size_t i = 0; i < name.size();) {
    unsigned char c = static_cast<unsigned char>(name[i]);
    size_t length = Utf8SequenceLength(name, i);
    if (length == 0 || (i == 0 ? !IsNameStart(c) : !IsNameChar(c))) {
      return QI_ERROR_WIN32(QiErrorCode::InvalidParameter,
                            "Invalid XML name [%s]: character at offset %zu is not allowed",
                            FXString::EscapeControl(name).c_str(), i);
    }
    i += length;
  }
  return CQiError();
}

CQiError CQiXNode::ValidateText(const std::string& text) {
  for (size_t i = 0; i < text.size();) {
    unsigned char c = static_cast<unsigned char>(text[i]);
    if (c < 0x20 && c != '\t' && c != '\n' && c != '\r') {
      return QI_ERROR_WIN32(QiErrorCode::InvalidParameter,
                            "XML text cannot hold control character 0x%02X at offset %zu", c, i);
    }
    size_t length = Utf8SequenceLength(text, i);
    if (length == 0) {
      return QI_ERROR_WIN32(QiErrorCode::InvalidParameter,
                            "XML text is not valid UTF-8 at offset %zu", i);
    }
    i += length;
  }
  return CQiError();
}

CQiError CQiXNode::CheckValid() const {
  if (m_pNode == nullptr) {
    return QI_ERROR_WIN32(QiErrorCode::InvalidHandle, "XML node handle is empty");
  }
  return CQiError();
}

std::string CQiXNode::GetName() const {
  return m_pNode != nullptr ? std::string(ElementName(m_pNode)) : std::string();
}

CQiError CQiXNode::AddChildElement(const std::string& name, CQiXNode& child) {
  QI_RETURN_IF_ERROR(CheckValid());
  QI_RETURN_IF_ERROR(ValidateName(name));
  pugi::xml_node added = pugi::xml_node(m_pNode).append_child(name.c_str());
  if (!added) {
    return QI_ERROR_WIN32(QiErrorCode::OutOfMemory, "Cannot add element [%s] to [%s]",
                          name.c_str(), ElementName(m_pNode));
  }
  child = CQiXNode(added.internal_object());
  return CQiError();
}

CQiError CQiXNode::GetChildElement(const std::string& name, CQiXNode& child) const {
  QI_RETURN_IF_ERROR(CheckValid());
  for (pugi::xml_node node : pugi::xml_node(m_pNode).children()) {
    if (node.type() == pugi::node_element && name == node.name()) {
      child = CQiXNode(node.internal_object());
      return CQiError();
    }
  }
  return QI_ERROR_WIN32(QiErrorCode::NotFound, "Element [%s] not found in element [%s]",
                        name.c_str(), ElementName(m_pNode));
}

std::vector<CQiXNode> CQiXNode::GetChildElements() const {
  std::vector<CQiXNode> children;
  if (m_pNode == nullptr) return children;
  for (pugi::xml_node node : pugi::xml_node(m_pNode).children()) {
    if (node.type() == pugi::node_element) children.push_back(CQiXNode(node.internal_object()));
  }
  return children;
}

bool CQiXNode::HasAttribute(const std::string& name) const {
  return m_pNode != nullptr && pugi::xml_node(m_pNode).attribute(name.c_str());
}

std::vector<std::string> CQiXNode::GetAttributeNames() const {
  std::vector<std::string> names;
  if (m_pNode == nullptr) return names;
  for (pugi::xml_attribute attribute : pugi::xml_node(m_pNode).attributes()) {
    names.emplace_back(attribute.name());
  }
  return names;
}

CQiError CQiXNode::SetAttribute(const std::string& name, const std::string& value) {
  QI_RETURN_IF_ERROR(CheckValid());
  QI_RETURN_IF_ERROR(ValidateName(name));
  CQiError error = ValidateText(value);
  if (error.IsError()) {
    return QI_PUSH(error, "Value of attribute [%s] refused", name.c_str());
  }
  pugi::xml_node node(m_pNode);
  pugi::xml_attribute attribute = node.attribute(name.c_str());
  if (!attribute) attribute = node.append_attribute(name.c_str());
  if (!attribute || !attribute.set_value(value.c_str())) {
    return QI_ERROR_WIN32(QiErrorCode::OutOfMemory, "Cannot set attribute [%s] of element [%s]",
                          name.c_str(), ElementName(m_pNode));
  }
  return CQiError();
}

template <typename T>
CQiError CQiXNode::SetNumber(const std::string& name, T value) {
  char buffer[32];
  std::to_chars_result result = std::to_chars(buffer, buffer + sizeof buffer, value);
  return SetAttribute(name, std::string(buffer, result.ptr));
}

CQiError CQiXNode::SetAttributeInt(const std::string& name, int32_t value) {
  return SetNumber(name, value);
}
CQiError CQiXNode::SetAttributeUInt(const std::string& name, uint32_t value) {
  return SetNumber(name, value);
}
CQiError CQiXNode::SetAttributeInt64(const std::string& name, int64_t value) {
  return SetNumber(name, value);
}
CQiError CQiXNode::SetAttributeUInt64(const std::string& name, uint64_t value) {
  return SetNumber(name, value);
}

CQiError CQiXNode::FindAttribute(const std::string& name, const char*& value) const {
  QI_RETURN_IF_ERROR(CheckValid());
  pugi::xml_attribute attribute = pugi::xml_node(m_pNode).attribute(name.c_str());
  if (!attribute) {
    return QI_ERROR_WIN32(QiErrorCode::NotFound, "Attribute [%s] not found on element [%s]",
                          name.c_str(), ElementName(m_pNode));
  }
  value = attribute.value();
  return CQiError();
}

CQiError CQiXNode::GetAttribute(const std::string& name, std::string& value) const {
  const char* text = nullptr;
  QI_RETURN_IF_ERROR(FindAttribute(name, text));
  value = text;
  return CQiError();
}

template <typename T>
CQiError CQiXNode::GetNumber(const std::string& name, T& value, const char* kind) const {
  const char* text = nullptr;
  QI_RETURN_IF_ERROR(FindAttribute(name, text));
  const char* end = text + std::strlen(text);
  T parsed{};
  // from_chars takes no blanks and no '+', and refuses '-' for unsigned kinds.
  std::from_chars_result result = std::from_chars(text, end, parsed, 10);
  if (result.ec != std::errc() || result.ptr != end || text == end) {
    return QI_ERROR_WIN32(QiErrorCode::InvalidData,
                          "Attribute [%s] of element [%s] is not a %s: [%s]", name.c_str(),
                          ElementName(m_pNode), kind, text);
  }
  value = parsed;
  return CQiError();
}

CQiError CQiXNode::GetAttributeInt(const std::string& name, int32_t& value) const {
  return GetNumber(name, value, "signed 32-bit number");
}
CQiError CQiXNode::GetAttributeUInt(const std::string& name, uint32_t& value) const {
  return GetNumber(name, value, "unsigned 32-bit number");
}
CQiError CQiXNode::GetAttributeInt64(const std::string& name, int64_t& value) const {
  return GetNumber(name, value, "signed 64-bit number");
}
CQiError CQiXNode::GetAttributeUInt64(const std::string& name, uint64_t& value) const {
  return GetNumber(name, value, "unsigned 64-bit number");
}

CQiError CQiXNode::SetText(const std::string& text) {
  QI_RETURN_IF_ERROR(CheckValid());
  QI_RETURN_IF_ERROR(ValidateText(text));
  if (!pugi::xml_node(m_pNode).text().set(text.c_str())) {
    return QI_ERROR_WIN32(QiErrorCode::OutOfMemory, "Cannot set the text of element [%s]",
                          ElementName(m_pNode));
  }
  return CQiError();
}

CQiError CQiXNode::GetText(std::string& text) const {
  QI_RETURN_IF_ERROR(CheckValid());
  text = pugi::xml_node(m_pNode).text().get();
  return CQiError();
}
