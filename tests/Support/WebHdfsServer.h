// CWebHdfsServer: a recorded Hadoop tree served over WebHDFS by a small HTTP/1.1 server on
// 127.0.0.1 (an ephemeral port), for the tests and the benchmark of the WebHDFS client.
//
// GETFILESTATUS, LISTSTATUS and LISTSTATUS_BATCH (pages of iBatchSize, after "startAfter") are
// answered for the folders and files added, 404 FileNotFoundException for anything else. A reply
// set for a path (SetReply) answers every request on it and may misbehave on purpose: close the
// connection, send bytes that are no HTTP, stall until the client gives up, announce more body
// than it sends. An older server (bOldServer) leaves out "childrenNum", "fileId" and
// "storagePolicy" and refuses LISTSTATUS_BATCH. A lister (SetLister) produces every listing page
// instead of the recorded tree (the benchmark's million entries).
//
// Connections are served one after another on one thread, each kept alive across requests.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

class CWebHdfsServer {
 public:
  enum class EAction { Answer, Close, Garbage, Stall, Truncate };
  struct SReply {
    SReply(int iStatus_ = 200, std::string strBody_ = {}, EAction eAction_ = EAction::Answer, std::string strLocation_ = {})
        : iStatus(iStatus_), strBody(std::move(strBody_)), eAction(eAction_), strLocation(std::move(strLocation_)) {}
    int iStatus;
    std::string strBody;
    EAction eAction;
    std::string strLocation;  // sent as Location (redirects)
  };
  // Appends the FileStatus objects of one page of a folder after strStartAfter; the count that
  // remains after the page.
  using Lister = std::function<long(const std::string& strFolder, const std::string& strStartAfter,
                                    std::string& strEntries)>;

  explicit CWebHdfsServer(int iBatchSize = 1000, bool bOldServer = false);
  ~CWebHdfsServer();

  void AddFile(const std::string& strPath, int64_t llLength = 0, const std::string& strType = "FILE");
  void AddFolder(const std::string& strPath) { AddFile(strPath, 0, "DIRECTORY"); }
  void SetReply(const std::string& strPath, SReply reply) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_mapReplies[strPath] = std::move(reply);
  }
  void SetLister(Lister fnLister) { m_fnLister = std::move(fnLister); }

  int Port() const { return m_iPort; }
  std::string Url(const std::string& strPath) const { return "webhdfs://127.0.0.1:" + std::to_string(m_iPort) + strPath; }
  unsigned long Connections() const { return m_ulConnections.load(); }
  std::vector<std::string> Targets() const {  // every request target, as sent
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_lstTargets;
  }

  // One FileStatus object as a name node writes it (times: modification 1700000000123 ms).
  static std::string StatusJson(const std::string& strSuffix, const std::string& strType, int64_t llLength,
                                int64_t llFileId, bool bOldServer);
  static std::string RemoteException(const std::string& strException, const std::string& strMessage);

 private:
  struct SNode {
    std::string strType = "DIRECTORY";
    int64_t llLength = 0;
    std::set<std::string> setChildren;
  };
  void Serve(int iFd);
  SReply Answer(const std::string& strTarget);

  const int m_iBatchSize;
  const bool m_bOldServer;
  mutable std::mutex m_mutex;
  std::map<std::string, SNode> m_mapNodes;
  std::map<std::string, SReply> m_mapReplies;
  std::vector<std::string> m_lstTargets;
  Lister m_fnLister;
  int m_iListenFd = -1;
  int m_iPort = 0;
  std::atomic<bool> m_bStop{false};
  std::atomic<unsigned long> m_ulConnections{0};
  std::thread m_thread;
};
