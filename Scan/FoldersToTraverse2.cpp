#include "Scan/FoldersToTraverse2.h"

#include <utility>

CFoldersToTraverse2::CFoldersToTraverse2(std::string strInput, std::string strOutput)
    : m_strInputFolder(std::move(strInput)), m_strOutputFolder(std::move(strOutput)) {}

CFoldersToTraverse2::CFoldersToTraverse2(std::string strInput, std::string strOutput,
                                         CItemPtr pItem)
    : m_strInputFolder(std::move(strInput)),
      m_strOutputFolder(std::move(strOutput)),
      m_pFolderItem(std::move(pItem)) {}

CFoldersToTraverse2::CFoldersToTraverse2(std::string strInput, std::string strEndSubstituteName,
                                         std::string strOutput, unsigned int uAttributes,
                                         std::string strNextSubstituteName)
    : m_strInputFolder(std::move(strInput)),
      m_strOutputFolder(std::move(strOutput)),
      m_strEndSubstituteName(std::move(strEndSubstituteName)),
      m_strNextSubstituteName(std::move(strNextSubstituteName)),
      m_uAttributes(uAttributes),
      m_bReparsePoint(true) {}
