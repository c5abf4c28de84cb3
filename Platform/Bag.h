// CBag: a key/value configuration bag.
//
// Values are typed: bool, int, unsigned int, long long, unsigned long long, std::string, or any
// other value through WriteAny/ReadAny. A typed Read of a missing key returns Win32 1168 and
// leaves the caller's variable (its default) untouched; a Read whose type differs from the
// stored value's returns Win32 13. Reads and writes take a reader/writer lock, so one bag may be
// read by many threads while another writes.
#pragma once

#include <any>
#include <map>
#include <memory>
#include <shared_mutex>
#include <string>
#include <vector>

#include "Platform/QiError.h"

class CBag {
 public:
  CBag() = default;
  CBag(const CBag& other);
  CBag& operator=(const CBag& other);

  CQiError Write(const std::string& key, bool value);
  CQiError Write(const std::string& key, int value);
  CQiError Write(const std::string& key, unsigned int value);
  CQiError Write(const std::string& key, long long value);
  CQiError Write(const std::string& key, unsigned long long value);
  CQiError Write(const std::string& key, long value) { return Write(key, static_cast<long long>(value)); }
  CQiError Write(const std::string& key, unsigned long value) {
    return Write(key, static_cast<unsigned long long>(value));
  }
  CQiError Write(const std::string& key, const std::string& value);
  CQiError Write(const std::string& key, const char* value);
  CQiError WriteAny(const std::string& key, std::any value);

  CQiError Read(const std::string& key, bool& value) const;
  CQiError Read(const std::string& key, int& value) const;
  CQiError Read(const std::string& key, unsigned int& value) const;
  CQiError Read(const std::string& key, long long& value) const;
  CQiError Read(const std::string& key, unsigned long long& value) const;
  CQiError Read(const std::string& key, long& value) const;
  CQiError Read(const std::string& key, unsigned long& value) const;
  CQiError Read(const std::string& key, std::string& value) const;
  CQiError ReadAny(const std::string& key, std::any& value) const;

  bool Contains(const std::string& key) const;
  bool Remove(const std::string& key);
  std::vector<std::string> GetKeys() const;
  size_t Size() const;
  bool Empty() const { return Size() == 0; }

 private:
  template <typename T>
  CQiError ReadTyped(const std::string& key, T& value) const;

  mutable std::shared_mutex m_mutex;
  std::map<std::string, std::any> m_mapValues;
};

using CBagPtr = std::shared_ptr<CBag>;
