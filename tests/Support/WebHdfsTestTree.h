// CWebHdfsTestTree: a recorded Hadoop tree served over WebHDFS by a CLocalHttpServer.
//
// Folders and files are added by absolute path; the server answers GETFILESTATUS, LISTSTATUS
// and LISTSTATUS_BATCH (pages of iBatchSize entries, "startAfter" honoured) for them as a name
// node does, 404 FileNotFoundException for anything else. Answers recorded for a target path
// (SetReply) take precedence: a 403, garbage, a stalled or closed connection, a hand-written
// body. An older server (bOldServer) leaves out "childrenNum", "fileId" and "storagePolicy" and
// refuses LISTSTATUS_BATCH as such servers do.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "Support/LocalHttpServer.h"

class CWebHdfsTestTree {
 public:
  struct SNode {
    std::string strType = "FILE";  // FILE, DIRECTORY, SYMLINK
    int64_t llLength = 0;
    std::string strPermission = "644";
    int64_t llModificationTime = 1700000000123;
    std::set<std::string> setChildren;
  };

  explicit CWebHdfsTestTree(int iBatchSize = 1000, bool bOldServer = false);

  void AddFolder(const std::string& strPath);
  void AddFile(const std::string& strPath, int64_t llLength = 0, const std::string& strType = "FILE");
  // An answer for every request on the path, whatever the operation.
  void SetReply(const std::string& strPath, CLocalHttpServer::SReply reply);

  int Port() const { return m_pServer->Port(); }
  CLocalHttpServer& Server() { return *m_pServer; }
  std::string Url(const std::string& strPath) const;

  // One FileStatus object as a name node writes it.
  static std::string StatusJson(const std::string& strSuffix, const SNode& node, int64_t llFileId, bool bOldServer);
  // A JSON string literal of the text.
  static std::string Quote(const std::string& strText);
  static std::string RemoteException(const std::string& strException, const std::string& strMessage);

 private:
  CLocalHttpServer::SReply Answer(const CLocalHttpServer::SRequest& request);

  const int m_iBatchSize;
  const bool m_bOldServer;
  std::mutex m_mutex;
  std::map<std::string, SNode> m_mapNodes;
  std::map<std::string, CLocalHttpServer::SReply> m_mapReplies;
  std::unique_ptr<CLocalHttpServer> m_pServer;
};
