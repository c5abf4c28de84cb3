#include "Scan/Unix/LustreAPI.h"

#include <mutex>

#include "Scan/Unix/LustreToolsAPI.h"

namespace {
std::mutex g_mutexCurrent;
LustreAPIPtr g_pCurrent;

// One hex number ("0x" optional) up to the delimiter; false on anything else or overflow.
bool ParseHex(std::string_view& text, char cEnd, uint64_t ullMax, uint64_t& ullValue) {
  if (text.size() >= 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) text.remove_prefix(2);
  ullValue = 0;
  size_t n = 0;
  for (; n < text.size() && text[n] != cEnd; ++n) {
    const char c = text[n];
    int iDigit;
    if (c >= '0' && c <= '9') iDigit = c - '0';
    else if (c >= 'a' && c <= 'f') iDigit = c - 'a' + 10;
    else if (c >= 'A' && c <= 'F') iDigit = c - 'A' + 10;
    else return false;
    if (ullValue > (ullMax >> 4)) return false;
    ullValue = (ullValue << 4) | static_cast<uint64_t>(iDigit);
  }
  if (n == 0 || n == text.size()) return false;
  text.remove_prefix(n + 1);
  return true;
}
}  // namespace

bool LustreAPI::CLustreFID::FromText(std::string_view text, CLustreFID& fid) {
  if (text.size() < 7 || text.front() != '[') return false;
  text.remove_prefix(1);
  uint64_t ullSeq = 0, ullOid = 0, ullVer = 0;
  if (!ParseHex(text, ':', UINT64_MAX, ullSeq) || !ParseHex(text, ':', UINT32_MAX, ullOid) ||
      !ParseHex(text, ']', UINT32_MAX, ullVer) || !text.empty())
    return false;
  fid = CLustreFID(ullSeq, static_cast<uint32_t>(ullOid), static_cast<uint32_t>(ullVer));
  return true;
}

std::string LustreAPI::CLustreFID::ToString() const {
  // "[0x%llx:0x%x:0x%x]", formatted by hand: every changelog record formats two or more.
  char szText[64];
  char* p = szText;
  auto hex = [&p](uint64_t ullValue) {
    *p++ = '0';
    *p++ = 'x';
    char szDigits[16];
    int n = 0;
    do {
      szDigits[n++] = "0123456789abcdef"[ullValue & 0xf];
      ullValue >>= 4;
    } while (ullValue != 0);
    while (n > 0) *p++ = szDigits[--n];
  };
  *p++ = '[';
  hex(m_ullSeq);
  *p++ = ':';
  hex(m_uOid);
  *p++ = ':';
  hex(m_uVer);
  *p++ = ']';
  return std::string(szText, static_cast<size_t>(p - szText));
}

CQiError LustreAPI::GetFIDsFromPaths(const std::vector<std::string>& lstPaths, std::vector<CLustreFID>& lstFids,
                                     std::vector<CQiError>& lstErrors) {
  lstFids.assign(lstPaths.size(), CLustreFID());
  lstErrors.assign(lstPaths.size(), CQiError());
  for (size_t i = 0; i < lstPaths.size(); ++i) lstErrors[i] = GetFIDFromPath(lstPaths[i], lstFids[i]);
  return CQiError();
}

LustreAPIPtr LustreAPI::Current() {
  std::lock_guard<std::mutex> lock(g_mutexCurrent);
  if (!g_pCurrent) g_pCurrent = std::make_shared<CLustreToolsAPI>();
  return g_pCurrent;
}

void LustreAPI::SetCurrent(LustreAPIPtr pApi) {
  std::lock_guard<std::mutex> lock(g_mutexCurrent);
  g_pCurrent = std::move(pApi);
}
