#include "Platform/ZRPlatformInfo.h"

#include <sys/stat.h>

#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <mutex>
#include <sstream>
#include <type_traits>

#include "Platform/FXErrorUtil.h"
#include "Platform/FXPath.h"
#include "Platform/FXString.h"
#include "Platform/LogWriterInterface.h"

namespace {
// Parses a whole decimal or "0x" hexadecimal integer of type T, with an optional sign.
template <typename T>
bool ParseInteger(std::string_view text, T& value) {
  bool negative = false;
  if (!text.empty() && (text[0] == '-' || text[0] == '+')) {
    negative = text[0] == '-';
    text.remove_prefix(1);
  }
  int base = 10;
  if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
    base = 16;
    text.remove_prefix(2);
  }
  if (text.empty() || text[0] == '-' || text[0] == '+') return false;
  unsigned long long magnitude = 0;
  auto [ptr, ec] = std::from_chars(text.data(), text.data() + text.size(), magnitude, base);
  if (ec != std::errc() || ptr != text.data() + text.size()) return false;
  if constexpr (std::is_signed_v<T>) {
    using U = std::make_unsigned_t<T>;
    U limit = static_cast<U>(std::numeric_limits<T>::max());
    if (negative) {
      if (magnitude > static_cast<unsigned long long>(limit) + 1) return false;
      // Two's complement: -magnitude computed in the unsigned type, then converted back.
      value = static_cast<T>(static_cast<U>(0) - static_cast<U>(magnitude));
    } else {
      if (magnitude > limit) return false;
      value = static_cast<T>(magnitude);
    }
  } else {
    if (negative && magnitude != 0) return false;
    if (magnitude > std::numeric_limits<T>::max()) return false;
    value = static_cast<T>(magnitude);
  }
  return true;
}

std::string Unquote(std::string value) {
  if (value.size() >= 2 && value.front() == '"' && value.back() == '"')
    return value.substr(1, value.size() - 2);
  return value;
}
}  // namespace

bool ZRPlatformInfo::SNoCaseLess::operator()(const std::string& a, const std::string& b) const {
  return FXString::CompareNoCase(a, b) < 0;
}

ZRPlatformInfo& ZRPlatformInfo::Instance() {
  // Never destroyed, so that code running during static destruction may still read settings.
  static ZRPlatformInfo* instance = [] {
    auto* info = new ZRPlatformInfo();
    CQiError error = info->Reload();
    if (error.IsErrNo(ENOENT))
      ZRLOG(1, "Settings file %s not found; built-in defaults apply",
            GetSettingsFilePath().c_str());
    else if (error.IsError())
      ZRLOG(-1, "Cannot load the settings file, error=%s", error.AsString().c_str());
    return info;
  }();
  return *instance;
}

std::string ZRPlatformInfo::GetSettingsFilePath() {
  const char* path = getenv(kSettingsFileEnv);
  return path != nullptr && *path != '\0' ? std::string(path) : std::string(kDefaultSettingsFile);
}

CQiError ZRPlatformInfo::Reload() {
  QI_RETURN_IF_ERROR(Load(GetSettingsFilePath()));
  return CQiError();
}

CQiError ZRPlatformInfo::Load(const std::string& path) {
  CQiError error = FXPath::ValidatePath(path);
  struct stat st;
  if (error.IsSuccess() && stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode))
    error = QI_ERROR_ERRNO(EISDIR, "Settings file is a folder, Path=%s", path.c_str());
  if (error.IsSuccess()) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
      int err = errno != 0 ? errno : ENOENT;
      error = err == ENOENT ? QI_ERROR_ERRNO(err, "Settings file not found, Path=%s", path.c_str())
                            : QI_ERROR_ERRNO(err, "Cannot open settings file, Path=%s", path.c_str());
    } else {
      std::ostringstream text;
      text << in.rdbuf();
      if (in.bad()) {
        error = QI_ERROR_ERRNO(EIO, "Cannot read settings file, Path=%s", path.c_str());
      } else {
        LoadFromText(text.str(), path);
        return CQiError();
      }
    }
  }
  // A file that cannot be read leaves no stale settings behind.
  std::unique_lock<std::shared_mutex> lock(m_mtxContent);
  m_mapSections.clear();
  m_strSource = path;
  return error;
}

void ZRPlatformInfo::LoadFromText(const std::string& text, const std::string& sourceName) {
  SectionMap sections;
  std::string section;
  sections[section];
  std::istringstream in(text);
  std::string raw;
  size_t lineNo = 0;
  while (std::getline(in, raw)) {
    ++lineNo;
    if (lineNo == 1 && FXString::StartsWith(raw, "\xEF\xBB\xBF")) raw.erase(0, 3);
    std::string line = FXString::Trim(raw);
    if (line.empty() || line[0] == '#' || line[0] == ';') continue;
    if (line[0] == '[') {
      if (line.back() != ']') {
        ZRLOG(-1, "Ignoring malformed line %zu in settings file %s: %s", lineNo, sourceName.c_str(),
              FXString::EscapeControl(line).c_str());
        continue;
      }
      section = FXString::Trim(std::string_view(line).substr(1, line.size() - 2));
      sections[section];
      continue;
    }
    size_t eq = line.find('=');
    std::string key = eq == std::string::npos ? std::string() : FXString::Trim(line.substr(0, eq));
    if (key.empty()) {
      ZRLOG(-1, "Ignoring malformed line %zu in settings file %s: %s", lineNo, sourceName.c_str(),
            FXString::EscapeControl(line).c_str());
      continue;
    }
    sections[section][key] = Unquote(FXString::Trim(line.substr(eq + 1)));
  }
  std::unique_lock<std::shared_mutex> lock(m_mtxContent);
  m_mapSections = std::move(sections);
  m_strSource = sourceName;
}

CQiError ZRPlatformInfo::Find(const std::string& section, const std::string& key,
                              std::string& raw) const {
  if (key.empty()) return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "Empty settings key");
  std::shared_lock<std::shared_mutex> lock(m_mtxContent);
  auto s = m_mapSections.find(section);
  if (s != m_mapSections.end()) {
    auto k = s->second.find(key);
    if (k != s->second.end()) {
      raw = k->second;
      return CQiError();
    }
  }
  return QI_ERROR_WIN32(QiErrorCode::NotFound, "Setting not found, Section=[%s], Key=[%s]",
                        section.c_str(), key.c_str());
}

template <typename T>
CQiError ZRPlatformInfo::GetNumber(const std::string& section, const std::string& key, T& value) const {
  std::string raw;
  QI_RETURN_IF_ERROR(Find(section, key, raw));
  T parsed{};
  if (!ParseInteger(std::string_view(raw), parsed))
    return QI_ERROR_WIN32(QiErrorCode::InvalidData,
                          "Setting is not a valid number, Section=[%s], Key=[%s], Value=[%s]",
                          section.c_str(), key.c_str(), FXString::EscapeControl(raw).c_str());
  value = parsed;
  return CQiError();
}

CQiError ZRPlatformInfo::GetValue(const std::string& section, const std::string& key,
                                  std::string& value) const {
  std::string raw;
  QI_RETURN_IF_ERROR(Find(section, key, raw));
  value = std::move(raw);
  return CQiError();
}

CQiError ZRPlatformInfo::GetValue(const std::string& section, const std::string& key,
                                  bool& value) const {
  std::string raw;
  QI_RETURN_IF_ERROR(Find(section, key, raw));
  std::string lower = FXString::ToLower(raw);
  if (lower == "true" || lower == "yes" || lower == "on" || lower == "1") {
    value = true;
  } else if (lower == "false" || lower == "no" || lower == "off" || lower == "0") {
    value = false;
  } else {
    return QI_ERROR_WIN32(QiErrorCode::InvalidData,
                          "Setting is not a valid boolean, Section=[%s], Key=[%s], Value=[%s]",
                          section.c_str(), key.c_str(), FXString::EscapeControl(raw).c_str());
  }
  return CQiError();
}

CQiError ZRPlatformInfo::GetValue(const std::string& section, const std::string& key,
                                  int& value) const {
  QI_RETURN_IF_ERROR(GetNumber(section, key, value));
  return CQiError();
}

CQiError ZRPlatformInfo::GetValue(const std::string& section, const std::string& key,
                                  unsigned int& value) const {
  QI_RETURN_IF_ERROR(GetNumber(section, key, value));
  return CQiError();
}

CQiError ZRPlatformInfo::GetValue(const std::string& section, const std::string& key,
                                  long long& value) const {
  QI_RETURN_IF_ERROR(GetNumber(section, key, value));
  return CQiError();
}

CQiError ZRPlatformInfo::GetValue(const std::string& section, const std::string& key,
                                  unsigned long long& value) const {
  QI_RETURN_IF_ERROR(GetNumber(section, key, value));
  return CQiError();
}

bool ZRPlatformInfo::Contains(const std::string& section, const std::string& key) const {
  std::string raw;
  return Find(section, key, raw).IsSuccess();
}

std::string ZRPlatformInfo::GetSource() const {
  std::shared_lock<std::shared_mutex> lock(m_mtxContent);
  return m_strSource;
}
