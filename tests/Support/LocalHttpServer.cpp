#include "Support/LocalHttpServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

namespace {
// Waits up to 50 ms for the socket to become readable; false on timeout.
bool WaitReadable(int iFd) {
  struct pollfd pfd {iFd, POLLIN, 0};
  return poll(&pfd, 1, 50) > 0;
}

bool SendAll(int iFd, const std::string& strData) {
  for (size_t nSent = 0; nSent < strData.size();) {
    const ssize_t n = send(iFd, strData.data() + nSent, strData.size() - nSent, MSG_NOSIGNAL);
    if (n <= 0) return false;
    nSent += static_cast<size_t>(n);
  }
  return true;
}

const char* StatusText(int iStatus) {
  switch (iStatus) {
    case 200: return "OK";
    case 307: return "Temporary Redirect";
    case 400: return "Bad Request";
    case 401: return "Unauthorized";
    case 403: return "Forbidden";
    case 404: return "Not Found";
    default: return "Error";
  }
}
}  // namespace

CLocalHttpServer::CLocalHttpServer(Handler fnHandler) : m_fnHandler(std::move(fnHandler)) {
  m_iListenFd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  struct sockaddr_in addr {};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof(addr);
  if (m_iListenFd < 0 || bind(m_iListenFd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
      listen(m_iListenFd, 64) != 0 || getsockname(m_iListenFd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
    perror("CLocalHttpServer");
    return;
  }
  m_iPort = ntohs(addr.sin_port);
  m_acceptThread = std::thread([this] { AcceptLoop(); });
}

CLocalHttpServer::~CLocalHttpServer() {
  m_bStop = true;
  if (m_acceptThread.joinable()) m_acceptThread.join();
  for (std::thread& thread : m_lstThreads) thread.join();
  if (m_iListenFd >= 0) close(m_iListenFd);
}

std::vector<std::string> CLocalHttpServer::Targets() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_lstTargets;
}

std::string CLocalHttpServer::PercentDecode(const std::string& strText) {
  std::string strResult;
  for (size_t i = 0; i < strText.size(); ++i) {
    if (strText[i] == '%' && i + 2 < strText.size() && isxdigit(static_cast<unsigned char>(strText[i + 1])) &&
        isxdigit(static_cast<unsigned char>(strText[i + 2]))) {
      strResult.push_back(static_cast<char>(std::stoi(strText.substr(i + 1, 2), nullptr, 16)));
      i += 2;
    } else {
      strResult.push_back(strText[i]);
    }
  }
  return strResult;
}

void CLocalHttpServer::AcceptLoop() {
  while (!m_bStop) {
    if (!WaitReadable(m_iListenFd)) continue;
    const int iFd = accept4(m_iListenFd, nullptr, nullptr, SOCK_CLOEXEC);
    if (iFd < 0) continue;
    ++m_ulConnections;
    const int iOne = 1;
    setsockopt(iFd, IPPROTO_TCP, TCP_NODELAY, &iOne, sizeof(iOne));
    std::lock_guard<std::mutex> lock(m_mutex);
    m_lstThreads.emplace_back([this, iFd] { Serve(iFd); });
  }
}

void CLocalHttpServer::Serve(int iFd) {
  std::string strBuffer;
  char szChunk[65536];
  while (!m_bStop) {
    // A TLS handshake (it starts with byte 0x16) gets what a plain HTTP server answers to it.
    if (!strBuffer.empty() && strBuffer[0] == '\x16') {
      SendAll(iFd, "HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\nConnection: close\r\n\r\n");
      break;
    }
    const size_t nEnd = strBuffer.find("\r\n\r\n");
    if (nEnd == std::string::npos) {
      if (!WaitReadable(iFd)) continue;
      const ssize_t n = recv(iFd, szChunk, sizeof(szChunk), 0);
      if (n <= 0) break;
      strBuffer.append(szChunk, static_cast<size_t>(n));
      continue;
    }
    // "GET <target> HTTP/1.1"; requests carry no body.
    const std::string strLine = strBuffer.substr(0, strBuffer.find("\r\n"));
    strBuffer.erase(0, nEnd + 4);
    SRequest request;
    const size_t nSpace = strLine.find(' ');
    request.strTarget = strLine.substr(nSpace + 1, strLine.rfind(' ') - nSpace - 1);
    const size_t nQuery = request.strTarget.find('?');
    request.strPath = PercentDecode(request.strTarget.substr(0, nQuery));
    for (size_t start = nQuery; start != std::string::npos && start < request.strTarget.size();) {
      const size_t next = request.strTarget.find('&', start + 1);
      const std::string strPair = request.strTarget.substr(start + 1, next == std::string::npos ? next : next - start - 1);
      const size_t nEq = strPair.find('=');
      request.mapQuery[PercentDecode(strPair.substr(0, nEq))] =
          nEq == std::string::npos ? std::string() : PercentDecode(strPair.substr(nEq + 1));
      start = next;
    }
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_lstTargets.push_back(request.strTarget);
    }
    const SReply reply = m_fnHandler(request);
    if (reply.eAction == EAction::Close) break;
    if (reply.eAction == EAction::Garbage) {
      SendAll(iFd, "\x01\x02 this is no HTTP \xff\r\n\r\n");
      break;
    }
    if (reply.eAction == EAction::Stall) {
      // Never answers; waits until the client gives up (closes) or the server stops.
      while (!m_bStop) {
        if (WaitReadable(iFd) && recv(iFd, szChunk, sizeof(szChunk), 0) <= 0) break;
      }
      break;
    }
    std::string strHead = "HTTP/1.1 " + std::to_string(reply.iStatus) + " " + StatusText(reply.iStatus) +
                          "\r\nContent-Type: application/json\r\nContent-Length: " +
                          std::to_string(reply.strBody.size() + (reply.eAction == EAction::Truncate ? 100 : 0)) +
                          "\r\n";
    if (!reply.strLocation.empty()) strHead += "Location: " + reply.strLocation + "\r\n";
    if (!SendAll(iFd, strHead + "\r\n") || !SendAll(iFd, reply.strBody)) break;
    if (reply.eAction == EAction::Truncate) break;
  }
  close(iFd);
}
