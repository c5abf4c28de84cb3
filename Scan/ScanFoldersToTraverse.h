// CScanFoldersToTraverse: one queued unit of work of a folder traversal (CScanTraverseFolder).
//
// An entry names a folder to list: its local path (the input folder, read through), the path under
// which its content is reported (the output folder) and, when the folder was met in a listing, its
// item (so that listing it needs no second status read). A reparse-point entry also carries the
// end substitute name (the folder that is really listed), the next substitute name and the
// attributes of the reparse point. A top-level entry is a content root to be reported itself first.
//
// A small value type: copied into and out of the traversal's queue under the queue's mutex; one
// thread uses one copy.
#pragma once

#include <cstdint>
#include <string>

#include "Scan/Item.h"

class CScanFoldersToTraverse {
 public:
  CScanFoldersToTraverse() = default;
  CScanFoldersToTraverse(CItemPtr pFolderItem, std::string strInputFolder,
                         std::string strOutputFolder);
  // A reparse-point entry.
  CScanFoldersToTraverse(CItemPtr pFolderItem, std::string strInputFolder,
                         std::string strEndSubstituteName, std::string strOutputFolder,
                         uint32_t uAttributes, std::string strNextSubstituteName);

  const CItemPtr& GetFolderItem() const { return m_pFolderItem; }
  const std::string& GetInputFolder() const { return m_strInputFolder; }
  const std::string& GetOutputFolder() const { return m_strOutputFolder; }
  const std::string& GetEndSubstituteName() const { return m_strEndSubstituteName; }
  const std::string& GetNextSubstituteName() const { return m_strNextSubstituteName; }
  uint32_t GetAttributes() const { return m_uAttributes; }
  bool IsReparsePointEntry() const { return m_bReparsePointEntry; }
  // A content root still to be reported itself (top-level content processing) before it is
  // listed: the worker that takes it does both.
  bool IsTopLevel() const { return m_bTopLevel; }
  void SetTopLevel(bool bTopLevel) { m_bTopLevel = bTopLevel; }

 private:
  CItemPtr m_pFolderItem;
  std::string m_strInputFolder;
  std::string m_strOutputFolder;
  std::string m_strEndSubstituteName;
  std::string m_strNextSubstituteName;
  uint32_t m_uAttributes = 0;
  bool m_bReparsePointEntry = false;
  bool m_bTopLevel = false;
};
