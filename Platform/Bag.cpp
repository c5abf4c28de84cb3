#include "Platform/Bag.h"

#include <mutex>

#include "Platform/FXErrorUtil.h"

CBag::CBag(const CBag& other) {
  std::shared_lock<std::shared_mutex> lock(other.m_mutex);
  m_mapValues = other.m_mapValues;
}

CBag& CBag::operator=(const CBag& other) {
  if (this == &other) return *this;
  std::map<std::string, std::any> copy;
  {
    std::shared_lock<std::shared_mutex> lock(other.m_mutex);
    copy = other.m_mapValues;
  }
  std::unique_lock<std::shared_mutex> lock(m_mutex);
  m_mapValues.swap(copy);
  return *this;
}

CQiError CBag::WriteAny(const std::string& key, std::any value) {
  if (key.empty()) return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "Empty bag key");
  std::unique_lock<std::shared_mutex> lock(m_mutex);
  m_mapValues[key] = std::move(value);
  return CQiError();
}

CQiError CBag::Write(const std::string& key, bool value) { return WriteAny(key, value); }
CQiError CBag::Write(const std::string& key, int value) { return WriteAny(key, value); }
CQiError CBag::Write(const std::string& key, unsigned int value) { return WriteAny(key, value); }
CQiError CBag::Write(const std::string& key, long long value) { return WriteAny(key, value); }
CQiError CBag::Write(const std::string& key, unsigned long long value) {
  return WriteAny(key, value);
}
CQiError CBag::Write(const std::string& key, const std::string& value) {
  return WriteAny(key, value);
}
CQiError CBag::Write(const std::string& key, const char* value) {
  return WriteAny(key, std::string(value ? value : ""));
}

template <typename T>
CQiError CBag::ReadTyped(const std::string& key, T& value) const {
  std::shared_lock<std::shared_mutex> lock(m_mutex);
  auto it = m_mapValues.find(key);
  if (it == m_mapValues.end())
    return QI_ERROR_WIN32(QiErrorCode::NotFound, "Key not found, Key=%s", key.c_str());
  const T* typed = std::any_cast<T>(&it->second);
  if (typed == nullptr)
    return QI_ERROR_WIN32(QiErrorCode::InvalidData, "Wrong value type, Key=%s, Stored=%s",
                          key.c_str(), it->second.type().name());
  value = *typed;
  return CQiError();
}

CQiError CBag::Read(const std::string& key, bool& value) const { return ReadTyped(key, value); }
CQiError CBag::Read(const std::string& key, int& value) const { return ReadTyped(key, value); }
CQiError CBag::Read(const std::string& key, unsigned int& value) const {
  return ReadTyped(key, value);
}
CQiError CBag::Read(const std::string& key, long long& value) const {
  return ReadTyped(key, value);
}
CQiError CBag::Read(const std::string& key, unsigned long long& value) const {
  return ReadTyped(key, value);
}
CQiError CBag::Read(const std::string& key, long& value) const {
  long long v = value;
  CQiError error = ReadTyped(key, v);
  if (error.IsSuccess()) value = static_cast<long>(v);
  return error;
}
CQiError CBag::Read(const std::string& key, unsigned long& value) const {
  unsigned long long v = value;
  CQiError error = ReadTyped(key, v);
  if (error.IsSuccess()) value = static_cast<unsigned long>(v);
  return error;
}
CQiError CBag::Read(const std::string& key, std::string& value) const {
  return ReadTyped(key, value);
}

CQiError CBag::ReadAny(const std::string& key, std::any& value) const {
  std::shared_lock<std::shared_mutex> lock(m_mutex);
  auto it = m_mapValues.find(key);
  if (it == m_mapValues.end())
    return QI_ERROR_WIN32(QiErrorCode::NotFound, "Key not found, Key=%s", key.c_str());
  value = it->second;
  return CQiError();
}

bool CBag::Contains(const std::string& key) const {
  std::shared_lock<std::shared_mutex> lock(m_mutex);
  return m_mapValues.count(key) != 0;
}

bool CBag::Remove(const std::string& key) {
  std::unique_lock<std::shared_mutex> lock(m_mutex);
  return m_mapValues.erase(key) != 0;
}

std::vector<std::string> CBag::GetKeys() const {
  std::shared_lock<std::shared_mutex> lock(m_mutex);
  std::vector<std::string> keys;
  keys.reserve(m_mapValues.size());
  for (const auto& entry : m_mapValues) keys.push_back(entry.first);
  return keys;
}

size_t CBag::Size() const {
  std::shared_lock<std::shared_mutex> lock(m_mutex);
  return m_mapValues.size();
}
