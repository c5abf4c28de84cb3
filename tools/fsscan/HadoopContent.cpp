#include "HadoopContent.h"

#include <cstring>

#include "Platform/FXErrorUtil.h"
#include "Platform/FXString.h"

namespace {
struct SScheme {
  const char* szPrefix;
  bool bHttps;
  int iDefaultPort;
};
constexpr SScheme kSchemes[] = {{"webhdfs://", false, 9870}, {"swebhdfs://", true, 9871}, {"hdfs://", false, 9870}};

const SScheme* SchemeOf(const std::string& strText) {
  for (const SScheme& scheme : kSchemes)
    if (strText.rfind(scheme.szPrefix, 0) == 0) return &scheme;
  return nullptr;
}
}  // namespace

bool CHadoopContent::IsHadoopUrl(const std::string& strText) { return SchemeOf(strText) != nullptr; }

CQiError CHadoopContent::Add(const std::string& strUrl, std::string& strPath) {
  const SScheme* pScheme = SchemeOf(strUrl);
  const std::string strShown = FXString::EscapeControl(strUrl);
  if (pScheme == nullptr) return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "'%s' is no Hadoop URL", strShown.c_str());
  const std::string strRest = strUrl.substr(strlen(pScheme->szPrefix));
  const size_t nSlash = strRest.find('/');
  const std::string strAuthority = strRest.substr(0, nSlash);
  strPath = nSlash == std::string::npos ? "/" : strRest.substr(nSlash);

  std::string strHost = strAuthority;
  std::string strPort;
  if (!strHost.empty() && strHost[0] == '[') {  // [IPv6]:port
    const size_t nClose = strHost.find(']');
    if (nClose == std::string::npos)
      return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "'%s': unclosed '[' in the host", strShown.c_str());
    strPort = strHost.substr(nClose + 1);
    strHost = strHost.substr(1, nClose - 1);
    if (!strPort.empty() && strPort[0] != ':')
      return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "'%s': bad host", strShown.c_str());
    if (!strPort.empty()) strPort.erase(0, 1);
  } else if (const size_t nColon = strHost.rfind(':'); nColon != std::string::npos) {
    strPort = strHost.substr(nColon + 1);
    strHost.erase(nColon);
  }
  if (strHost.empty()) return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "'%s' names no host", strShown.c_str());
  if (strHost.find_first_of("@/?#% \t") != std::string::npos)
    return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "'%s': bad host", strShown.c_str());
  long long llPort = pScheme->iDefaultPort;
  if (!strPort.empty() && (FXString::ToInt64(strPort, llPort).IsError() || llPort < 1 || llPort > 65535))
    return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "'%s': the port is no number from 1 to 65535",
                          strShown.c_str());

  const std::string strServer = std::string(pScheme->bHttps ? "https://" : "http://") + strHost + ":" +
                                std::to_string(llPort);
  if (m_bHaveServer && strServer != m_strServer)
    return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "'%s' names another server than the content before it",
                          strShown.c_str());
  m_strServer = strServer;
  m_bHaveServer = true;
  m_config.bHttps = pScheme->bHttps;
  m_config.strHost = strHost;
  m_config.iPort = static_cast<int>(llPort);
  return CQiError();
}
