#include "Scan/Unix/LustreChangelogRecord.h"

#include <chrono>

#include "Platform/FXErrorUtil.h"
#include "Platform/FXString.h"
#include "Scan/Unix/LustreAPI.h"

namespace {
struct STypeToken {
  const char* szName;  // the name part after the two digits
  LustreChangelogType eType;
};
// Index = the token's number; types 10-18 are modifications of one kind or another.
constexpr STypeToken kTokens[] = {
    {"MARK", kLustreMark},         {"CREAT", kLustreCreate},    {"MKDIR", kLustreMkdir},
    {"HLINK", kLustreHardlink},    {"SLINK", kLustreSoftlink},  {"MKNOD", kLustreMknod},
    {"UNLNK", kLustreUnlink},      {"RMDIR", kLustreRmdir},     {"RENME", kLustreRename},
    {"RNMTO", kLustreRenameTo},    {"OPEN", LustreChangelogType(10)},
    {"CLOSE", LustreChangelogType(11)}, {"LYOUT", LustreChangelogType(12)},
    {"TRUNC", LustreChangelogType(13)}, {"SATTR", LustreChangelogType(14)},
    {"XATTR", LustreChangelogType(15)}, {"HSM", LustreChangelogType(16)},
    {"MTIME", LustreChangelogType(17)}, {"CTIME", LustreChangelogType(18)},
    {"ATIME", kLustreAtime},       {"MIGRT", kLustreMigrate}};

// A number of 1 to nDigits decimal digits, at most ullMax, with nothing else.
bool TakeNumber(std::string_view text, size_t nDigits, unsigned long long ullMax, unsigned long long& ullValue) {
  if (text.empty() || text.size() > nDigits) return false;
  ullValue = 0;
  for (const char c : text) {
    if (c < '0' || c > '9') return false;
    ullValue = ullValue * 10 + static_cast<unsigned long long>(c - '0');
  }
  return ullValue <= ullMax;
}

// Splits "A<sep>B<sep>C" into three parts; false when the count differs.
bool Split3(std::string_view text, char cSep, std::string_view (&parts)[3]) {
  for (int i = 0; i < 2; ++i) {
    const size_t pos = text.find(cSep);
    if (pos == std::string_view::npos) return false;
    parts[i] = text.substr(0, pos);
    text.remove_prefix(pos + 1);
  }
  parts[2] = text;
  return text.find(cSep) == std::string_view::npos;
}

bool IsBlank(char c) { return c == ' ' || c == '\t'; }

// The next blank-delimited word, leading blanks skipped; empty at the end of the line.
std::string_view NextWord(std::string_view& rest) {
  size_t i = 0;
  while (i < rest.size() && IsBlank(rest[i])) ++i;
  size_t j = i;
  while (j < rest.size() && !IsBlank(rest[j])) ++j;
  std::string_view word = rest.substr(i, j - i);
  rest.remove_prefix(j);
  return word;
}

// A bracketed FID at the start of text, canonical form into strFid; the length taken, 0 if none.
size_t TakeFid(std::string_view text, std::string& strFid) {
  const size_t end = text.find(']');
  if (end == std::string_view::npos) return 0;
  LustreAPI::CLustreFID fid;
  if (!LustreAPI::CLustreFID::FromText(text.substr(0, end + 1), fid)) return 0;
  strFid = fid.ToString();
  return end + 1;
}

CQiError Invalid(const char* szWhy, std::string_view line) {
  return QI_ERROR_WIN32(QiErrorCode::InvalidData, "Invalid changelog record (%s): [%s]", szWhy,
                        FXString::EscapeControl(line).c_str());
}

// Splits "NEW s=[FID] sp=[FID] OLD" at the first marker that parses whole.
bool SplitRename(std::string_view section, CLustreChangelogRecord& record) {
  for (size_t pos = section.find(" s=["); pos != std::string_view::npos; pos = section.find(" s=[", pos + 1)) {
    std::string_view rest = section.substr(pos + 3);
    const size_t nSource = TakeFid(rest, record.m_strSourceFID);
    if (nSource == 0) continue;
    rest.remove_prefix(nSource);
    if (rest.substr(0, 5) != " sp=[") continue;
    rest.remove_prefix(4);
    const size_t nParent = TakeFid(rest, record.m_strSourceParentFID);
    if (nParent == 0 || rest.size() < nParent + 2 || rest[nParent] != ' ') continue;
    record.m_strName.assign(section.substr(0, pos));
    record.m_strOldName.assign(rest.substr(nParent + 1));
    return !record.m_strName.empty();
  }
  record.m_strSourceFID.clear();
  record.m_strSourceParentFID.clear();
  return false;
}
}  // namespace

LustreChangelogType CLustreChangelogRecord::TypeOfToken(std::string_view token) {
  while (!token.empty() && IsBlank(token.back())) token.remove_suffix(1);
  if (token.size() < 3 || token[0] < '0' || token[0] > '9' || token[1] < '0' || token[1] > '9')
    return kLustreUnknownType;
  const size_t uNumber = static_cast<size_t>((token[0] - '0') * 10 + (token[1] - '0'));
  if (uNumber >= sizeof(kTokens) / sizeof(kTokens[0]) || token.substr(2) != kTokens[uNumber].szName)
    return kLustreUnknownType;
  return kTokens[uNumber].eType;
}

LustreChangeType CLustreChangelogRecord::ChangeOfType(LustreChangelogType eType) {
  switch (eType) {
    case kLustreCreate:
    case kLustreSoftlink: return kLustreFileCreated;
    case kLustreMkdir:
    case kLustreMknod: return kLustreFolderCreated;  // a device node is taken as a folder creation
    case kLustreHardlink: return kLustreHardlinkAdded;
    case kLustreUnlink: return kLustreFileRemoved;
    case kLustreRmdir: return kLustreFolderRemoved;
    case kLustreRename: return kLustreRenamed;
    default: break;
  }
  return eType >= 10 && eType <= 18 ? kLustreModified : kLustreChangeNone;
}

CQiError CLustreChangelogRecord::ParseTime(std::string_view time, std::string_view date, int64_t& llTime) {
  const std::string_view whole = time;
  std::string_view clock[3], calendar[3];
  unsigned long long ullHour = 0, ullMinute = 0, ullSecond = 0, ullNano = 0, ullYear = 0, ullMonth = 0, ullDay = 0;
  const size_t dot = time.find('.');
  const std::string_view fraction = dot == std::string_view::npos ? std::string_view() : time.substr(dot + 1);
  if (dot != std::string_view::npos) time = time.substr(0, dot);
  const bool bTime = Split3(time, ':', clock) && TakeNumber(clock[0], 2, 23, ullHour) &&
                     TakeNumber(clock[1], 2, 59, ullMinute) && TakeNumber(clock[2], 2, 60, ullSecond) &&
                     (dot == std::string_view::npos || TakeNumber(fraction, 9, 999999999, ullNano));
  const bool bDate = Split3(date, '.', calendar) && TakeNumber(calendar[0], 4, 9999, ullYear) &&
                     TakeNumber(calendar[1], 2, 12, ullMonth) && TakeNumber(calendar[2], 2, 31, ullDay);
  const std::chrono::year_month_day ymd{std::chrono::year(static_cast<int>(ullYear)),
                                        std::chrono::month(static_cast<unsigned>(ullMonth)),
                                        std::chrono::day(static_cast<unsigned>(ullDay))};
  // Nanoseconds since 1970 fit 64 bits up to 2262; earlier years than 1970 do not occur.
  if (!bTime || !bDate || !ymd.ok() || ullYear < 1970 || ullYear > 2261)
    return QI_ERROR_WIN32(QiErrorCode::InvalidData, "Invalid changelog record time [%s %s]",
                          FXString::EscapeControl(whole).c_str(), FXString::EscapeControl(date).c_str());
  const int64_t llDays = std::chrono::sys_days(ymd).time_since_epoch().count();
  llTime = ((llDays * 24 + static_cast<int64_t>(ullHour)) * 60 + static_cast<int64_t>(ullMinute)) * 60 +
           static_cast<int64_t>(ullSecond);
  llTime = llTime * 1000000000LL + static_cast<int64_t>(ullNano);
  return CQiError();
}

CQiError CLustreChangelogRecord::Parse(std::string_view line, CLustreChangelogRecord& record) {
  if (!line.empty() && line.back() == '\n') line.remove_suffix(1);
  record.m_strTargetParentFID.clear();
  record.m_strName.clear();
  record.m_strSourceFID.clear();
  record.m_strSourceParentFID.clear();
  record.m_strOldName.clear();
  std::string_view rest = line;
  const std::string_view index = NextWord(rest);
  unsigned long long ullIndex = 0;
  if (index.empty() || FXString::ToUInt64(index, ullIndex).IsError() || ullIndex > INT64_MAX)
    return Invalid("index", line);
  record.m_llIndex = static_cast<int64_t>(ullIndex);
  const std::string_view type = NextWord(rest);
  record.m_strTypeToken.assign(type);
  record.m_eType = TypeOfToken(type);
  if (record.m_eType == kLustreUnknownType &&
      (type.size() < 3 || type[0] < '0' || type[0] > '9' || type[1] < '0' || type[1] > '9'))
    return Invalid("type", line);
  record.m_eChange = ChangeOfType(record.m_eType);
  const std::string_view time = NextWord(rest), date = NextWord(rest);
  if (ParseTime(time, date, record.m_llTime).IsError()) return Invalid("time or date", line);
  if (NextWord(rest).empty()) return Invalid("flags", line);
  std::string_view target = NextWord(rest);
  if (target.substr(0, 2) != "t=" || TakeFid(target.substr(2), record.m_strTargetFID) != target.size() - 2)
    return Invalid("t=", line);
  for (;;) {
    size_t i = 0;
    while (i < rest.size() && IsBlank(rest[i])) ++i;
    if (i == rest.size()) break;
    if (rest.substr(i, 3) == "p=[") {
      rest.remove_prefix(i + 2);
      const size_t n = TakeFid(rest, record.m_strTargetParentFID);
      if (n == 0 || rest.size() < n + 2 || rest[n] != ' ') return Invalid("p= and name", line);
      const std::string_view section = rest.substr(n + 1);
      if (record.m_eType == kLustreRename) {
        if (!SplitRename(section, record)) return Invalid("rename", line);
      } else {
        record.m_strName.assign(section);
      }
      break;
    }
    const std::string_view word = NextWord(rest);
    const size_t eq = word.find('=');
    const std::string_view key = word.substr(0, eq == std::string_view::npos ? 0 : eq);
    if (key != "j" && key != "ef" && key != "u" && key != "nid" && key != "m" && key != "x")
      return Invalid("field", line);
  }
  if (record.m_eType == kLustreRename && !record.HasSource()) return Invalid("rename without s=", line);
  return CQiError();
}
