// FXPath: path helpers. Paths are byte strings with '/' as the delimiter; nothing assumes UTF-8.
//
// Ancestor and descendant tests compare whole components ("/a" is an ancestor of "/a/b" but not
// of "/ab") and ignore trailing delimiters. Splitting keeps "/" whole as the name with an empty
// parent. Functions that reach the file system return a CQiError: Win32 87 for an empty path or
// one holding a NUL byte, the errno of the failed call otherwise (ENAMETOOLONG for a path the
// kernel will not take whole). All functions are stateless and safe from any thread.
#pragma once

#include <string>
#include <string_view>

#include "Platform/QiError.h"

class FXPath {
 public:
  static constexpr char kDelimiter = '/';

  // True when `ancestor` is a proper ancestor of `path`, or equal to it when bCountSelf is set.
  static bool IsAncestorOf(std::string_view ancestor, std::string_view path,
                           bool bCountSelf = false, bool bCaseInsensitive = false);
  // True when `path` lies below `ancestor` (or equals it when bCountSelf is set).
  static bool IsDescendantOf(std::string_view path, std::string_view ancestor,
                             bool bCountSelf = false, bool bCaseInsensitive = false);

  // Joins with exactly one delimiter between the parts. An empty base gives the name alone.
  static std::string Append(std::string_view base, std::string_view name);
  static void AppendInPlace(std::string& base, std::string_view name);

  // Splits into parent folder and last component, after trailing delimiters are removed:
  // "/a/b" -> ("/a", "b"), "/a" -> ("/", "a"), "/" -> ("", "/"), "a" -> ("", "a").
  // Win32 87 for an empty path.
  static CQiError SplitParent(std::string_view path, std::string& parent, std::string& name);
  static std::string GetParent(std::string_view path);
  static std::string GetName(std::string_view path);

  // Removes trailing '/' and '\' delimiters; a path made only of delimiters becomes "/".
  static std::string RemoveTrailingDelimiters(std::string_view path);
  static void RemoveTrailingDelimitersInPlace(std::string& path);
  static bool HasTrailingDelimiter(std::string_view path);
  static std::string AddTrailingDelimiter(std::string_view path);

  static bool IsAbsolute(std::string_view path) { return !path.empty() && path[0] == '/'; }

  // Win32 87 for an empty path or one with a NUL byte; success otherwise.
  static CQiError ValidatePath(std::string_view path);

  // The canonical absolute path (links resolved, "." and ".." removed) through realpath.
  static CQiError MakeRealPath(const std::string& path, std::string& realPath);

  // True when lstat finds the path.
  static bool DoesPathExist(const std::string& path);
  // Tests the path without following a final link: success with bMissing false when it exists,
  // success with bMissing true when it or a folder on its way does not exist (ENOENT, ENOTDIR),
  // the errno error for any other failure.
  static CQiError DoesPathExist(const std::string& path, bool& bMissing);
};
