#include "Platform/SortRunWriter.h"

#include <algorithm>

namespace {

inline size_t PutVarint(char* target, uint64_t value) {
  size_t count = 0;
  while (value >= 0x80) {
    target[count++] = static_cast<char>((value & 0x7f) | 0x80);
    value >>= 7;
  }
  target[count++] = static_cast<char>(value);
  return count;
}

}  // namespace

size_t CSortRunWriter::CommonPrefix(const char* pA, const char* pB, size_t uMax) {
  size_t i = 0;
  for (; i + 8 <= uMax; i += 8) {
    uint64_t a;
    uint64_t b;
    memcpy(&a, pA + i, 8);
    memcpy(&b, pB + i, 8);
    if (a != b) return i + static_cast<size_t>(__builtin_ctzll(a ^ b)) / 8;
  }
  while (i < uMax && pA[i] == pB[i]) ++i;
  return i;
}

CQiError CSortRunWriter::AddLine(const char* pData, size_t uLength) {
  size_t shared = CommonPrefix(m_strPrevious.data(), pData, std::min(m_strPrevious.size(), uLength));
  size_t rest = uLength - shared;
  char* target = nullptr;
  CQiError error = m_writer.Reserve(20 + rest, target);
  if (error.IsError()) return error;
  size_t used = PutVarint(target, shared);
  used += PutVarint(target + used, rest);
  memcpy(target + used, pData + shared, rest);
  m_writer.Commit(used + rest);
  m_strPrevious.resize(shared);
  m_strPrevious.append(pData + shared, rest);
  return CQiError();
}
