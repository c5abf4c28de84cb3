// CWebHdfsFS: the Hadoop client over the WebHDFS REST interface (HTTP or HTTPS to the name
// node, "/webhdfs/v1/<path>?op=..."), on libcurl and simdjson.
//
// Requests: GETFILESTATUS for one path; LISTSTATUS_BATCH for a directory, page after page
// ("startAfter" the last entry's "pathSuffix" while "remainingEntries" is above zero), and
// LISTSTATUS instead on a server that does not know the batched listing (it answers 400 with an
// IllegalArgumentException or UnsupportedOperationException; the handle remembers that). Every
// request carries "user.name" and, when set, "delegation" (a delegation token); the path and
// the values are percent-encoded, so blanks and any other byte reach the server unchanged.
//
// Answers: FILE, DIRECTORY and SYMLINK entries; "permission" an octal string; times in
// milliseconds; "childrenNum", "fileId" and "storagePolicy" may be missing (older servers);
// fields the client does not know are passed over. A "RemoteException" answer becomes
// ENOENT (FileNotFoundException or HTTP 404), EACCES (AccessControlException,
// SecurityException, HTTP 401/403) or EIO (anything else), with the server's exception and
// message in the text. A malformed answer (bad or truncated JSON, an entry without
// "pathSuffix" or with one that is not a single name, a negative length, an unknown type, a
// listing whose pages do not advance) fails the whole request with Win32 13: a directory is
// listed completely or not at all.
//
// Messages never hold the request's URL, which carries the delegation token.
//
// Bounds: every request is bounded by the connect time-out and the total time-out, follows at
// most the configured number of redirects (http and https only; more is ELOOP) and reads at
// most kMaxAnswerBytes. See CHadoopFS for the errno of each transport failure.
//
// Connections: one libcurl handle per CWebHdfsFS, so one kept-alive connection serves every
// request of the handle; GetConnectionCount() tells how many connections were opened.
//
// Threads: any thread may call; requests of one handle run one at a time (a mutex), which
// is what one kept-alive connection allows. The handle is not copied.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "Platform/HadoopFS.h"

struct SWebHdfsConfig {
  bool bHttps = false;
  std::string strHost = "127.0.0.1";
  int iPort = 9870;
  std::string strUser;             // "user.name"; none sent when empty
  std::string strDelegationToken;  // "delegation"; none sent when empty
  std::string strCaFile;           // https: the CA certificates to trust (empty: the system's)
  std::string strProxy;            // a proxy ("http://host:port"); empty: direct, whatever the
                                   // environment's http_proxy says
  long lConnectTimeoutMs = 10000;
  long lRequestTimeoutMs = 120000; // the whole request, answer included
  long lMaxRedirects = 5;
  // The prefix that entry names carry ("webhdfs://host:port" when empty).
  std::string strPathPrefix;
};

class CWebHdfsFS : public CHadoopFS {
 public:
  // Answers larger than this are refused (EFBIG): a listing page is a few hundred kilobytes.
  static constexpr size_t kMaxAnswerBytes = 256u << 20;

  explicit CWebHdfsFS(SWebHdfsConfig config);
  ~CWebHdfsFS() override;

  // Makes the libcurl handle; the operations call it when it was not called. Fails when
  // libcurl cannot be set up (Win32 8).
  CQiError Open();

  CQiError ListDirectory(const std::string& strPath, CHadoopFileInfoArray& arrEntries,
                         int& iCount) override;
  CQiError GetFileInfo(const std::string& strPath, struct stat& st) override;
  // The status of one path as the server gives it (the name is prefix and path).
  CQiError GetFileStatus(const std::string& strPath, CHadoopFileInfo& info);
  std::string GetHadoopPathPrefix() override;

  // Connections opened so far, and requests sent.
  uint64_t GetConnectionCount() const { return m_ullConnections.load(); }
  uint64_t GetRequestCount() const { return m_ullRequests.load(); }

  // Percent-encodes every byte but the unreserved ones (and '/', when bKeepSlash).
  static std::string PercentEncode(const std::string& strText, bool bKeepSlash);

 private:
  class CImpl;
  struct SAnswer;

  // Sends one GET for the operation on the path (extra query text appended) and reads the
  // whole answer; an HTTP status other than 200 becomes the mapped error.
  CQiError Request(const char* szOp, const std::string& strPath, const std::string& strExtraQuery,
                   SAnswer& answer);
  CQiError ListWithBatches(const std::string& strPath, CHadoopFileInfoArray& arrEntries);
  CQiError ListAtOnce(const std::string& strPath, CHadoopFileInfoArray& arrEntries);

  const SWebHdfsConfig m_config;
  std::string m_strPrefix;
  std::string m_strUrlBase;  // "http://host:port/webhdfs/v1"
  std::mutex m_mutex;  // one request at a time on the one handle
  std::unique_ptr<CImpl> m_pImpl;
  std::atomic<bool> m_bBatchUnsupported{false};
  std::atomic<uint64_t> m_ullConnections{0};
  std::atomic<uint64_t> m_ullRequests{0};
};

using CWebHdfsFSPtr = std::shared_ptr<CWebHdfsFS>;
