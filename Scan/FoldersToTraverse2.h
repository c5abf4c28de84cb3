// CFoldersToTraverse2: one queued unit of work of the second-generation folder traversal
// (CTraverseFolder2): the folder to list (input, a local path), the path under which its content
// is reported (output), the folder's item when it is already known (a folder met in a listing),
// and, for a reparse-point entry, the end substitute name, attributes and next substitute name.
// A content root queued before the traversal started is marked top-level when the traversal
// reports its roots' own items (CTraverseFolder2::SetProcessTopLevelContentItem).
//
// A plain copyable value; the queue that holds it (CTraverseFolderPrivate2) guards it.
#pragma once

#include <string>

#include "Scan/Item.h"

class CFoldersToTraverse2 {
 public:
  CFoldersToTraverse2() = default;
  CFoldersToTraverse2(std::string strInput, std::string strOutput);
  CFoldersToTraverse2(std::string strInput, std::string strOutput, CItemPtr pItem);
  CFoldersToTraverse2(std::string strInput, std::string strEndSubstituteName,
                      std::string strOutput, unsigned int uAttributes,
                      std::string strNextSubstituteName);

  const std::string& GetInputFolder() const { return m_strInputFolder; }
  const std::string& GetOutputFolder() const { return m_strOutputFolder; }
  const CItemPtr& GetFolderItem() const { return m_pFolderItem; }
  const std::string& GetEndSubstituteName() const { return m_strEndSubstituteName; }
  const std::string& GetNextSubstituteName() const { return m_strNextSubstituteName; }
  unsigned int GetAttributes() const { return m_uAttributes; }
  bool IsReparsePointEntry() const { return m_bReparsePoint; }
  // A content root whose own item is to be reported before it is listed.
  bool IsTopLevel() const { return m_bTopLevel; }
  void SetTopLevel(bool bTopLevel) { m_bTopLevel = bTopLevel; }


 private:
  std::string m_strInputFolder;
  std::string m_strOutputFolder;
  CItemPtr m_pFolderItem;
  std::string m_strEndSubstituteName;
  std::string m_strNextSubstituteName;
  unsigned int m_uAttributes = 0;
  bool m_bReparsePoint = false;
  bool m_bTopLevel = false;
};
