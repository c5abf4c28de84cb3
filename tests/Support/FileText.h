// Reading and writing whole files as bytes, for tests that compare what the code wrote.
#pragma once

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

// The file's bytes; empty when it cannot be read.
inline std::string ReadFileText(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// The file's lines without their '\n'; a last line without one counts too.
inline std::vector<std::string> ReadFileLines(const std::string& path) {
  std::vector<std::string> lines;
  std::ifstream in(path, std::ios::binary);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

inline bool WriteFileText(const std::string& path, const std::string& text) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
  return static_cast<bool>(out.flush());
}

// The NUL-terminated fields of a text (as find -print0 writes them); a last unterminated one is
// left out.
inline std::vector<std::string> SplitNul(const std::string& text) {
  std::vector<std::string> fields;
  for (size_t start = 0, end; (end = text.find('\0', start)) != std::string::npos; start = end + 1)
    fields.push_back(text.substr(start, end - start));
  return fields;
}
