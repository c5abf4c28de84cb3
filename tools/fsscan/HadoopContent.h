// CHadoopContent: fsscan's Hadoop content, given as URLs:
//   webhdfs://HOST[:PORT]/PATH   WebHDFS over HTTP (port 9870 when none is given)
//   swebhdfs://HOST[:PORT]/PATH  WebHDFS over HTTPS (port 9871)
//   hdfs://HOST[:PORT]/PATH      the same REST interface over HTTP: give the name node's HTTP
//                                port, not its RPC port (9870 when none is given)
// HOST may be an IPv6 address in brackets. PATH is taken as written (no percent-decoding; the
// client encodes it). All URLs of one scan must name one server: they share one client.
//
// Threads: the caller's thread only.
#pragma once

#include <string>

#include "Platform/QiError.h"
#include "Platform/WebHdfsFS.h"

class CHadoopContent {
 public:
  static bool IsHadoopUrl(const std::string& strText);

  // Parses the URL and gives its path; a bad URL or a second server fails with Win32 87.
  CQiError Add(const std::string& strUrl, std::string& strPath);
  bool IsEmpty() const { return !m_bHaveServer; }

  // The client settings: user, token, CA file and time-outs are set by the caller.
  SWebHdfsConfig& Config() { return m_config; }
  CWebHdfsFSPtr MakeClient() const { return std::make_shared<CWebHdfsFS>(m_config); }

 private:
  SWebHdfsConfig m_config;
  std::string m_strServer;  // scheme, host and port of the first URL
  bool m_bHaveServer = false;
};
