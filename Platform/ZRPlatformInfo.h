// ZRPlatformInfo: the agent's platform settings, read from an INI-style file.
//
// The file (path from the environment variable FSSCAN_SETTINGS_FILE, else
// /etc/fsscan/settings.ini) holds sections and key/value lines:
//
//   # comment            ; comment too (whole lines only: values may hold '#' and ';')
//   [FileSystemAgent]
//   sGpfsBin = /usr/lpp/mmfs/bin
//   nGlusterTimeout=30
//
// Blanks around section names, keys and values are trimmed; a value wrapped in double quotes
// loses the quotes (so it can keep leading or trailing blanks). Section and key names are
// compared without regard to ASCII case. Lines before the first section belong to the section
// "". A later line for the same key replaces the earlier one. A line that is neither a comment,
// a section nor key=value (or has an empty key) is skipped with a level -1 log line. A UTF-8
// byte-order mark and CR line ends are accepted.
//
// Typed reads follow CBag: the caller passes its default in the variable; an absent key returns
// Win32 1168 and an unparsable value Win32 13, both leaving the variable untouched. Numbers are
// decimal (a leading zero does not make them octal) or hexadecimal with "0x"; booleans are
// true/false, yes/no, on/off or 1/0 in any case.
//
// Instance() is the process-wide reader; it loads the file on first use (a missing file leaves
// it empty: every read is then 1168) and Reload() reads it again. Reads take a shared lock and a
// load swaps the whole content under an exclusive lock, so any thread may read while another
// reloads.
#pragma once

#include <map>
#include <shared_mutex>
#include <string>

#include "Platform/QiError.h"

class ZRPlatformInfo {
 public:
  static constexpr const char* kSettingsFileEnv = "FSSCAN_SETTINGS_FILE";
  static constexpr const char* kDefaultSettingsFile = "/etc/fsscan/settings.ini";
  static constexpr const char* kFileSystemAgentSection = "FileSystemAgent";

  ZRPlatformInfo() = default;
  ZRPlatformInfo(const ZRPlatformInfo&) = delete;
  ZRPlatformInfo& operator=(const ZRPlatformInfo&) = delete;

  // The process-wide settings, loaded from GetSettingsFilePath() on first use.
  static ZRPlatformInfo& Instance();
  // The environment variable's value when set and not empty, else the default path.
  static std::string GetSettingsFilePath();

  // Replaces the content with the file's. On failure (missing or unreadable file) the content
  // becomes empty and the error says which file: errno ENOENT "Settings file not found, Path=%s".
  CQiError Load(const std::string& path);
  // Loads from GetSettingsFilePath() again.
  CQiError Reload();
  // Replaces the content with the given text (used by Load).
  void LoadFromText(const std::string& text, const std::string& sourceName);

  CQiError GetValue(const std::string& section, const std::string& key, std::string& value) const;
  CQiError GetValue(const std::string& section, const std::string& key, bool& value) const;
  CQiError GetValue(const std::string& section, const std::string& key, int& value) const;
  CQiError GetValue(const std::string& section, const std::string& key, unsigned int& value) const;
  CQiError GetValue(const std::string& section, const std::string& key, long long& value) const;
  CQiError GetValue(const std::string& section, const std::string& key,
                    unsigned long long& value) const;

  bool Contains(const std::string& section, const std::string& key) const;
  // The file the content came from (empty before the first load).
  std::string GetSource() const;

 private:
  struct SNoCaseLess {
    bool operator()(const std::string& a, const std::string& b) const;
  };
  using SectionMap = std::map<std::string, std::map<std::string, std::string, SNoCaseLess>, SNoCaseLess>;

  CQiError Find(const std::string& section, const std::string& key, std::string& raw) const;
  template <typename T>
  CQiError GetNumber(const std::string& section, const std::string& key, T& value) const;

  mutable std::shared_mutex m_mtxContent;
  SectionMap m_mapSections;
  std::string m_strSource;
};
