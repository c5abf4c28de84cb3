#include "Scan/ScanFoldersToTraverse.h"

#include <utility>

CScanFoldersToTraverse::CScanFoldersToTraverse(CItemPtr pFolderItem, std::string strInputFolder,
                                               std::string strOutputFolder)
    : m_pFolderItem(std::move(pFolderItem)),
      m_strInputFolder(std::move(strInputFolder)),
      m_strOutputFolder(std::move(strOutputFolder)) {}

CScanFoldersToTraverse::CScanFoldersToTraverse(CItemPtr pFolderItem, std::string strInputFolder,
                                               std::string strEndSubstituteName,
                                               std::string strOutputFolder, uint32_t uAttributes,
                                               std::string strNextSubstituteName)
    : m_pFolderItem(std::move(pFolderItem)),
      m_strInputFolder(std::move(strInputFolder)),
      m_strOutputFolder(std::move(strOutputFolder)),
      m_strEndSubstituteName(std::move(strEndSubstituteName)),
      m_strNextSubstituteName(std::move(strNextSubstituteName)),
      m_uAttributes(uAttributes),
      m_bReparsePointEntry(true) {}
