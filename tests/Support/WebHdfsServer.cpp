#include "Support/WebHdfsServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>

namespace {
constexpr char kApi[] = "/webhdfs/v1";

bool Readable(int iFd) {
  struct pollfd pfd {iFd, POLLIN, 0};
  return poll(&pfd, 1, 20) > 0;
}

void SendAll(int iFd, const std::string& strData) {
  for (ssize_t n = 0, nSent = 0; n < static_cast<ssize_t>(strData.size()); n += nSent)
    if ((nSent = send(iFd, strData.data() + n, strData.size() - n, MSG_NOSIGNAL)) <= 0) return;
}

std::string Decode(const std::string& strText) {
  std::string strResult;
  for (size_t i = 0; i < strText.size(); ++i) {
    const bool bEscape = strText[i] == '%' && i + 2 < strText.size();
    strResult.push_back(bEscape ? static_cast<char>(std::stoi(strText.substr(i + 1, 2), nullptr, 16)) : strText[i]);
    if (bEscape) i += 2;
  }
  return strResult;
}

std::string Quote(const std::string& strText) {
  std::string strResult = "\"";
  for (char c : strText) strResult += c == '"' || c == '\\' ? std::string{'\\', c} : std::string(1, c);
  return strResult + "\"";
}
}  // namespace

CWebHdfsServer::CWebHdfsServer(int iBatchSize, bool bOldServer) : m_iBatchSize(iBatchSize), m_bOldServer(bOldServer) {
  m_mapNodes["/"];
  m_iListenFd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  struct sockaddr_in addr {};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof(addr);
  if (bind(m_iListenFd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 || listen(m_iListenFd, 16) != 0 ||
      getsockname(m_iListenFd, reinterpret_cast<sockaddr*>(&addr), &len) != 0)
    perror("CWebHdfsServer");
  m_iPort = ntohs(addr.sin_port);
  m_thread = std::thread([this] {
    while (!m_bStop) {
      const int iFd = Readable(m_iListenFd) ? accept4(m_iListenFd, nullptr, nullptr, SOCK_CLOEXEC) : -1;
      if (iFd < 0) continue;
      ++m_ulConnections;
      Serve(iFd);
      close(iFd);
    }
  });
}

CWebHdfsServer::~CWebHdfsServer() {
  m_bStop = true;
  m_thread.join();
  close(m_iListenFd);
}

void CWebHdfsServer::AddFile(const std::string& strPath, int64_t llLength, const std::string& strType) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_mapNodes[strPath] = SNode{strType, llLength, {}};
  for (std::string strChild = strPath; strChild != "/";) {
    const size_t nSlash = strChild.rfind('/');
    const std::string strParent = nSlash == 0 ? "/" : strChild.substr(0, nSlash);
    m_mapNodes[strParent].setChildren.insert(strChild.substr(nSlash + 1));
    strChild = strParent;
  }
}

std::string CWebHdfsServer::RemoteException(const std::string& strException, const std::string& strMessage) {
  return "{\"RemoteException\":{\"exception\":" + Quote(strException) + ",\"javaClassName\":\"java.io." + strException +
         "\",\"message\":" + Quote(strMessage) + "}}";
}

std::string CWebHdfsServer::StatusJson(const std::string& strSuffix, const std::string& strType, int64_t llLength,
                                       int64_t llFileId, bool bOldServer) {
  return "{\"accessTime\":1700000001123,\"blockSize\":134217728," + std::string(bOldServer ? "" : "\"childrenNum\":0,") +
         "\"group\":\"supergroup\",\"length\":" + std::to_string(llLength) + ",\"modificationTime\":1700000000123,\"owner\":\"hdfs\","
         "\"permission\":\"" + (strType == "DIRECTORY" ? "755" : "644") + "\",\"replication\":3," +
         (bOldServer ? "" : "\"storagePolicy\":0,\"fileId\":" + std::to_string(llFileId) + ",") +
         (strType == "SYMLINK" ? "\"symlink\":\"/target\"," : "") + "\"pathSuffix\":" + Quote(strSuffix) + ",\"type\":\"" + strType + "\"}";
}

void CWebHdfsServer::Serve(int iFd) {
  std::string strBuffer;
  char szChunk[16384];
  while (!m_bStop) {
    const size_t nEnd = strBuffer.find("\r\n\r\n");
    if (!strBuffer.empty() && strBuffer[0] == '\x16')  // a TLS handshake: what a plain server answers
      return SendAll(iFd, "HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\nConnection: close\r\n\r\n");
    if (nEnd == std::string::npos) {
      if (!Readable(iFd)) continue;
      const ssize_t n = recv(iFd, szChunk, sizeof(szChunk), 0);
      if (n <= 0) return;
      strBuffer.append(szChunk, static_cast<size_t>(n));
      continue;
    }
    const size_t nStart = strBuffer.find(' ') + 1;  // "GET <target> HTTP/1.1"
    const SReply reply = Answer(strBuffer.substr(nStart, strBuffer.find(' ', nStart) - nStart));
    strBuffer.erase(0, nEnd + 4);
    if (reply.eAction == EAction::Close) return;
    if (reply.eAction == EAction::Garbage) return SendAll(iFd, "\x01\x02 no HTTP \xff\r\n\r\n");
    while (reply.eAction == EAction::Stall)  // until the client gives up and closes
      if (m_bStop || (Readable(iFd) && recv(iFd, szChunk, sizeof(szChunk), 0) <= 0)) return;
    const size_t nAnnounced = reply.strBody.size() + (reply.eAction == EAction::Truncate ? 100 : 0);
    SendAll(iFd, "HTTP/1.1 " + std::to_string(reply.iStatus) + " X\r\nContent-Type: application/json\r\n" +
                     (reply.strLocation.empty() ? "" : "Location: " + reply.strLocation + "\r\n") +
                     "Content-Length: " + std::to_string(nAnnounced) + "\r\n\r\n" + reply.strBody);
    if (reply.eAction == EAction::Truncate) return;
  }
}

CWebHdfsServer::SReply CWebHdfsServer::Answer(const std::string& strTarget) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_lstTargets.push_back(strTarget);
  const size_t nQuery = strTarget.find('?');
  std::string strPath = Decode(strTarget.substr(sizeof(kApi) - 1, nQuery - (sizeof(kApi) - 1)));
  if (strPath.empty()) strPath = "/";
  std::map<std::string, std::string> mapQuery;
  for (size_t n = nQuery, nNext; n != std::string::npos; n = nNext) {
    nNext = strTarget.find('&', n + 1);
    const std::string strPair = strTarget.substr(n + 1, nNext == std::string::npos ? nNext : nNext - n - 1);
    mapQuery[strPair.substr(0, strPair.find('='))] = Decode(strPair.substr(strPair.find('=') + 1));
  }
  if (auto it = m_mapReplies.find(strPath); it != m_mapReplies.end()) return it->second;
  const std::string& strOp = mapQuery["op"];
  const bool bBatch = strOp == "LISTSTATUS_BATCH";
  if (bBatch && m_bOldServer)
    return {400, RemoteException("IllegalArgumentException", "Invalid value for webhdfs parameter \"op\"")};
  std::string strEntries;
  long lRemaining = 0;
  auto itNode = m_mapNodes.find(strPath);
  if (m_fnLister && strOp != "GETFILESTATUS") {
    lRemaining = m_fnLister(strPath, mapQuery["startAfter"], strEntries);
  } else if (itNode == m_mapNodes.end()) {
    return {404, RemoteException("FileNotFoundException", "File " + strPath + " does not exist.")};
  } else if (strOp == "GETFILESTATUS") {
    return {200, "{\"FileStatus\":" + StatusJson("", itNode->second.strType, itNode->second.llLength, 1, m_bOldServer) + "}"};
  } else {
    const std::set<std::string>& setChildren = itNode->second.setChildren;
    auto it = bBatch ? setChildren.upper_bound(mapQuery["startAfter"]) : setChildren.begin();
    for (int i = 0; it != setChildren.end() && (!bBatch || i < m_iBatchSize); ++it, ++i) {
      const SNode& child = m_mapNodes[(strPath == "/" ? "" : strPath) + "/" + *it];
      strEntries += (strEntries.empty() ? "" : ",") + StatusJson(*it, child.strType, child.llLength, 1000 + i, m_bOldServer);
    }
    lRemaining = static_cast<long>(std::distance(it, setChildren.end()));
  }
  const std::string strStatuses = "{\"FileStatuses\":{\"FileStatus\":[" + strEntries + "]}}";
  if (!bBatch) return {200, strStatuses};
  return {200, "{\"DirectoryListing\":{\"partialListing\":" + strStatuses + ",\"remainingEntries\":" +
                   std::to_string(lRemaining) + "}}"};
}
