// CScanDatabasePath: how the scan-database store turns paths into keys.
//
//  - Normalize: a key is the path without trailing '/' ("/" stays "/"); an empty path or one
//    holding a NUL byte is Win32 87. Nothing else is required: relative paths, paths longer than
//    PATH_MAX and names that are not UTF-8 are stored byte for byte.
//  - Split: "/a/b" -> ("/a", "b"), "/a" -> ("/", "a"), "/" -> ("", "/"), "a" -> ("", "a").
//  - Subtrees: everything below folder F lies in the byte range [SubtreePrefix(F),
//    SubtreeBound(F)) = [F + "/", F + "0") ('0' is the byte after '/'); for "/", ["/", "0").
//  - GetWaitingParentId: the parent id of a record whose parent folder P is not stored, a
//    negative number derived from P (FNV-1a, stable across runs and builds), so that the
//    children of P can be found, and linked when P is added, through the (parent id, name)
//    index. Different folders may share a number; users check the parent path too.
//
// Stateless; safe from any thread.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "Platform/QiError.h"

class CScanDatabasePath {
 public:
  // pszRole names the path in messages ("file", "folder", "old", ...).
  // The key is a view into strPath (a prefix of it): it stays valid while strPath does.
  static CQiError Normalize(const std::string& strPath, std::string_view& key, const char* pszRole);
  static void Split(std::string_view path, std::string_view& parent, std::string_view& name);
  static std::string SubtreePrefix(std::string_view folder);
  static std::string SubtreeBound(std::string_view folder);
  // True when path lies below folder (not when it is folder).
  static bool IsBelow(std::string_view path, std::string_view folder);
  static int64_t GetWaitingParentId(std::string_view parentPath);
};
