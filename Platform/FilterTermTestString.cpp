#include "Platform/FilterTermTestString.h"

#include "Platform/FXString.h"

std::string CFilterTermTestString::NormalizePath(std::string_view path) {
  // Most paths are normalized already: copy them whole.
  if (path.find("//") == std::string_view::npos && (path.size() <= 1 || path.back() != '/'))
    return std::string(path);
  std::string out;
  out.reserve(path.size());
  for (char c : path) {
    if (c == '/' && !out.empty() && out.back() == '/') continue;
    out.push_back(c);
  }
  if (out.size() > 1 && out.back() == '/') out.pop_back();
  return out;
}

CFilterTermTestString::CFilterTermTestString(std::string_view path)
    : m_strPath(NormalizePath(path)) {
  const std::string& p = m_strPath;
  if (p.empty()) return;

  // Walk the path once, hashing as we go: the hash at each level boundary is the hash of that
  // ancestor's bytes.
  uint64_t hash = kFilterPathHashSeed;
  size_t pos = 0;
  uint32_t nameStart = 0;
  if (p[0] == '/') {
    hash = FilterPathHashAppend(hash, std::string_view(p.data(), 1));
    AddLevel(SLevel{1, 1, hash});  // the root; its name is empty
    pos = 1;
    nameStart = 1;
  }
  while (pos < p.size()) {
    size_t slash = p.find('/', pos);
    size_t end = slash == std::string::npos ? p.size() : slash;
    hash = FilterPathHashAppend(hash, std::string_view(p.data() + pos, end - pos));
    AddLevel(SLevel{static_cast<uint32_t>(end), nameStart, hash});
    if (slash == std::string::npos) break;
    hash = FilterPathHashAppend(hash, std::string_view("/", 1));
    pos = slash + 1;
    nameStart = static_cast<uint32_t>(pos);
  }
}

void CFilterTermTestString::AddLevel(const SLevel& level) {
  if (m_nLevels < kInlineLevels)
    m_aInline[m_nLevels] = level;
  else
    m_vOverflow.push_back(level);
  ++m_nLevels;
}

std::string CFilterTermTestString::GetStringWithLeadingBackslash() const {
  std::string out(1, '\\');
  out += FXString::EscapeControl(m_strPath);
  return out;
}
