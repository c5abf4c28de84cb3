#include "Support/WebHdfsTestTree.h"

#include <cstdio>

namespace {
constexpr const char kApiPrefix[] = "/webhdfs/v1";

std::string ParentOf(const std::string& strPath) {
  const size_t nSlash = strPath.rfind('/');
  return nSlash == 0 ? "/" : strPath.substr(0, nSlash);
}
}  // namespace

CWebHdfsTestTree::CWebHdfsTestTree(int iBatchSize, bool bOldServer)
    : m_iBatchSize(iBatchSize), m_bOldServer(bOldServer) {
  m_mapNodes["/"].strType = "DIRECTORY";
  m_pServer = std::make_unique<CLocalHttpServer>([this](const CLocalHttpServer::SRequest& r) { return Answer(r); });
}

void CWebHdfsTestTree::AddFolder(const std::string& strPath) { AddFile(strPath, 0, "DIRECTORY"); }

void CWebHdfsTestTree::AddFile(const std::string& strPath, int64_t llLength, const std::string& strType) {
  std::lock_guard<std::mutex> lock(m_mutex);
  SNode& node = m_mapNodes[strPath];
  node.strType = strType;
  node.llLength = llLength;
  node.strPermission = strType == "DIRECTORY" ? "755" : "644";
  for (std::string strChild = strPath; strChild != "/"; strChild = ParentOf(strChild)) {
    SNode& parent = m_mapNodes[ParentOf(strChild)];
    if (parent.setChildren.empty() && parent.strType == "FILE") {
      parent.strType = "DIRECTORY";
      parent.strPermission = "755";
    }
    parent.setChildren.insert(strChild.substr(strChild.rfind('/') + 1));
  }
}

void CWebHdfsTestTree::SetReply(const std::string& strPath, CLocalHttpServer::SReply reply) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_mapReplies[strPath] = std::move(reply);
}

std::string CWebHdfsTestTree::Url(const std::string& strPath) const {
  return "webhdfs://127.0.0.1:" + std::to_string(Port()) + strPath;
}

std::string CWebHdfsTestTree::Quote(const std::string& strText) {
  std::string strResult = "\"";
  for (unsigned char c : strText) {
    if (c == '"' || c == '\\') {
      strResult.push_back('\\');
      strResult.push_back(static_cast<char>(c));
    } else if (c < 0x20) {
      char szEscape[8];
      snprintf(szEscape, sizeof(szEscape), "\\u%04x", c);
      strResult += szEscape;
    } else {
      strResult.push_back(static_cast<char>(c));
    }
  }
  return strResult + "\"";
}

std::string CWebHdfsTestTree::RemoteException(const std::string& strException, const std::string& strMessage) {
  return "{\"RemoteException\":{\"exception\":" + Quote(strException) +
         ",\"javaClassName\":\"java.io." + strException + "\",\"message\":" + Quote(strMessage) + "}}";
}

std::string CWebHdfsTestTree::StatusJson(const std::string& strSuffix, const SNode& node, int64_t llFileId,
                                         bool bOldServer) {
  char szNumbers[320];
  snprintf(szNumbers, sizeof(szNumbers),
           "\"accessTime\":%lld,\"blockSize\":134217728,\"group\":\"supergroup\",\"length\":%lld,"
           "\"modificationTime\":%lld,\"owner\":\"hdfs\",\"permission\":\"%s\",\"replication\":3,",
           static_cast<long long>(node.llModificationTime + 1000), static_cast<long long>(node.llLength),
           static_cast<long long>(node.llModificationTime), node.strPermission.c_str());
  std::string strJson = "{";
  strJson += szNumbers;
  if (!bOldServer)
    strJson += "\"childrenNum\":" + std::to_string(node.setChildren.size()) + ",\"fileId\":" +
               std::to_string(llFileId) + ",\"storagePolicy\":0,";
  if (node.strType == "SYMLINK") strJson += "\"symlink\":\"/target\",";
  return strJson + "\"pathSuffix\":" + Quote(strSuffix) + ",\"type\":\"" + node.strType + "\"}";
}

CLocalHttpServer::SReply CWebHdfsTestTree::Answer(const CLocalHttpServer::SRequest& request) {
  std::lock_guard<std::mutex> lock(m_mutex);
  CLocalHttpServer::SReply reply;
  if (request.strPath.rfind(kApiPrefix, 0) != 0) {
    reply.iStatus = 404;
    return reply;
  }
  std::string strPath = request.strPath.substr(sizeof(kApiPrefix) - 1);
  if (strPath.empty()) strPath = "/";
  if (auto it = m_mapReplies.find(strPath); it != m_mapReplies.end()) return it->second;
  auto itNode = m_mapNodes.find(strPath);
  const auto itOp = request.mapQuery.find("op");
  const std::string strOp = itOp == request.mapQuery.end() ? std::string() : itOp->second;
  if (strOp == "LISTSTATUS_BATCH" && m_bOldServer) {
    reply.iStatus = 400;
    reply.strBody = RemoteException("IllegalArgumentException",
                                    "Invalid value for webhdfs parameter \"op\": No enum constant LISTSTATUS_BATCH");
    return reply;
  }
  if (itNode == m_mapNodes.end()) {
    reply.iStatus = 404;
    reply.strBody = RemoteException("FileNotFoundException", "File " + strPath + " does not exist.");
    return reply;
  }
  const SNode& node = itNode->second;
  const int64_t llFileId = 16386 + static_cast<int64_t>(std::distance(m_mapNodes.begin(), itNode));
  if (strOp == "GETFILESTATUS") {
    reply.strBody = "{\"FileStatus\":" + StatusJson("", node, llFileId, m_bOldServer) + "}";
    return reply;
  }
  // A listing: every child, or one page after "startAfter".
  const bool bBatch = strOp == "LISTSTATUS_BATCH";
  auto itChild = node.setChildren.begin();
  if (auto itAfter = request.mapQuery.find("startAfter"); bBatch && itAfter != request.mapQuery.end())
    itChild = node.setChildren.upper_bound(itAfter->second);
  std::string strEntries;
  int iCount = 0;
  for (; itChild != node.setChildren.end() && (!bBatch || iCount < m_iBatchSize); ++itChild, ++iCount) {
    const std::string strChild = (strPath == "/" ? "" : strPath) + "/" + *itChild;
    auto itChildNode = m_mapNodes.find(strChild);
    if (!strEntries.empty()) strEntries.push_back(',');
    strEntries += StatusJson(*itChild, itChildNode->second,
                             16386 + static_cast<int64_t>(std::distance(m_mapNodes.begin(), itChildNode)),
                             m_bOldServer);
  }
  if (node.strType != "DIRECTORY") strEntries = StatusJson("", node, llFileId, m_bOldServer);
  const std::string strStatuses = "{\"FileStatuses\":{\"FileStatus\":[" + strEntries + "]}";
  if (!bBatch) {
    reply.strBody = strStatuses + "}";
  } else {
    const long lRemaining = static_cast<long>(std::distance(itChild, node.setChildren.end()));
    reply.strBody = "{\"DirectoryListing\":{\"partialListing\":" + strStatuses +
                    "},\"remainingEntries\":" + std::to_string(lRemaining) + "}}";
  }
  return reply;
}
