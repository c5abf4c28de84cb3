// CLocalHttpServer: a small HTTP/1.1 server on 127.0.0.1 (an ephemeral port) for the tests and
// benchmarks of the WebHDFS client. Each connection has a thread of its own and is kept alive
// across requests; every GET is answered by the handler, which may also misbehave on purpose:
// close the connection, send bytes that are no HTTP, stall until the client gives up, or send
// a shorter body than announced.
#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

class CLocalHttpServer {
 public:
  struct SRequest {
    std::string strTarget;                         // as sent, percent-encoded
    std::string strPath;                           // decoded path of the target
    std::map<std::string, std::string> mapQuery;   // decoded query values
  };
  enum class EAction { Answer, Close, Garbage, Stall, Truncate };
  struct SReply {
    int iStatus = 200;
    std::string strBody;
    std::string strLocation;  // sent as Location (redirects)
    EAction eAction = EAction::Answer;
  };
  using Handler = std::function<SReply(const SRequest&)>;

  explicit CLocalHttpServer(Handler fnHandler);
  ~CLocalHttpServer();
  CLocalHttpServer(const CLocalHttpServer&) = delete;
  CLocalHttpServer& operator=(const CLocalHttpServer&) = delete;

  int Port() const { return m_iPort; }
  unsigned long Connections() const { return m_ulConnections.load(); }
  // The targets of every request so far, in order.
  std::vector<std::string> Targets() const;

  static std::string PercentDecode(const std::string& strText);

 private:
  void AcceptLoop();
  void Serve(int iFd);

  Handler m_fnHandler;
  int m_iListenFd = -1;
  int m_iPort = 0;
  std::atomic<bool> m_bStop{false};
  std::atomic<unsigned long> m_ulConnections{0};
  mutable std::mutex m_mutex;
  std::vector<std::string> m_lstTargets;
  std::vector<std::thread> m_lstThreads;
  std::thread m_acceptThread;
};
