#include "Platform/WebHdfsFS.h"

#include <curl/curl.h>
#include <simdjson.h>

#include <cerrno>
#include <string_view>

#include "Platform/FXErrorUtil.h"
#include "Platform/FXString.h"
#include "Platform/LogWriterInterface.h"

namespace {

using simdjson::dom::element;
using simdjson::dom::object;

std::string Esc(std::string_view text) { return FXString::EscapeControl(text); }

// libcurl's process-wide set-up, once, before the first handle (it is not thread-safe itself).
CURLcode GlobalInit() {
  static const CURLcode s_code = curl_global_init(CURL_GLOBAL_DEFAULT);
  return s_code;
}

// The errno that stands for a transport failure of libcurl.
int ErrnoOfCurl(CURLcode code) {
  switch (code) {
    case CURLE_COULDNT_CONNECT: return ECONNREFUSED;
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_RESOLVE_PROXY: return EHOSTUNREACH;
    case CURLE_OPERATION_TIMEDOUT: return ETIMEDOUT;
    case CURLE_TOO_MANY_REDIRECTS: return ELOOP;
    case CURLE_GOT_NOTHING:
    case CURLE_RECV_ERROR:
    case CURLE_SEND_ERROR:
    case CURLE_PARTIAL_FILE: return ECONNRESET;
    case CURLE_WRITE_ERROR: return EFBIG;
    case CURLE_OUT_OF_MEMORY: return ENOMEM;
    case CURLE_URL_MALFORMAT: return EINVAL;
    case CURLE_UNSUPPORTED_PROTOCOL:  // also an answer that is no HTTP at all
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CIPHER:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_WEIRD_SERVER_REPLY:
    case CURLE_HTTP2:
    case CURLE_HTTP2_STREAM: return EPROTO;
    default: return EIO;
  }
}

// "755" -> 0755; false when the text is not an octal number of at most four digits.
bool ParsePermission(std::string_view text, uint32_t& uPermission) {
  if (text.empty() || text.size() > 4) return false;
  uint32_t value = 0;
  for (char c : text) {
    if (c < '0' || c > '7') return false;
    value = value * 8 + static_cast<uint32_t>(c - '0');
  }
  uPermission = value;
  return true;
}

// A name that can stand for one entry of a directory.
bool IsSingleName(std::string_view name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string_view::npos &&
         name.find('\0') == std::string_view::npos;
}

// Reads one FileStatus object into info; the pathSuffix goes to suffix (empty when missing,
// bHasSuffix tells). Unknown fields are passed over. On failure szWhat names the bad field.
bool ParseFileStatus(element value, CHadoopFileInfo& info, std::string_view& suffix, bool& bHasSuffix,
                     const char*& szWhat) {
  object status;
  if (value.get_object().get(status)) {
    szWhat = "an entry is not an object";
    return false;
  }
  bHasSuffix = false;
  bool bHasType = false;
  for (auto field : status) {
    const std::string_view key = field.key;
    element v = field.value;
    bool bBad = false;
    // Dispatch on the first letter, then the whole key: this runs for every field of every entry.
    switch (key.empty() ? '\0' : key[0]) {
      case 'p':
        if (key == "pathSuffix") {
          bBad = v.get_string().get(suffix) != simdjson::SUCCESS;
          bHasSuffix = !bBad;
          szWhat = "pathSuffix";
        } else if (key == "permission") {
          std::string_view text;
          bBad = v.get_string().get(text) != simdjson::SUCCESS || !ParsePermission(text, info.uPermission);
          szWhat = "permission";
        }
        break;
      case 't':
        if (key == "type") {
          std::string_view text;
          bBad = v.get_string().get(text) != simdjson::SUCCESS;
          if (!bBad && text == "FILE") info.eType = EHadoopFileType::File;
          else if (!bBad && text == "DIRECTORY") info.eType = EHadoopFileType::Directory;
          else if (!bBad && text == "SYMLINK") info.eType = EHadoopFileType::Symlink;
          else bBad = true;
          bHasType = !bBad;
          szWhat = "type";
        }
        break;
      case 'l':
        if (key == "length") {
          bBad = v.get_int64().get(info.llLength) != simdjson::SUCCESS || info.llLength < 0;
          szWhat = "length";
        }
        break;
      case 'm':
        if (key == "modificationTime") {
          bBad = v.get_int64().get(info.llModificationTime) != simdjson::SUCCESS;
          szWhat = "modificationTime";
        }
        break;
      case 'a':
        if (key == "accessTime") {
          bBad = v.get_int64().get(info.llAccessTime) != simdjson::SUCCESS;
          szWhat = "accessTime";
        }
        break;
      case 'o':
        if (key == "owner") {
          std::string_view text;
          bBad = v.get_string().get(text) != simdjson::SUCCESS;
          if (!bBad) info.strOwner.assign(text);
          szWhat = "owner";
        }
        break;
      case 'g':
        if (key == "group") {
          std::string_view text;
          bBad = v.get_string().get(text) != simdjson::SUCCESS;
          if (!bBad) info.strGroup.assign(text);
          szWhat = "group";
        }
        break;
      case 'r':
        if (key == "replication") {
          int64_t ll = 0;
          bBad = v.get_int64().get(ll) != simdjson::SUCCESS;
          info.iReplication = static_cast<int32_t>(ll);
          szWhat = "replication";
        }
        break;
      case 'b':
        if (key == "blockSize") {
          bBad = v.get_int64().get(info.llBlockSize) != simdjson::SUCCESS;
          szWhat = "blockSize";
        }
        break;
      case 'f':
        if (key == "fileId") {
          bBad = v.get_int64().get(info.llFileId) != simdjson::SUCCESS;
          szWhat = "fileId";
        }
        break;
      case 'c':
        if (key == "childrenNum") {
          int64_t ll = 0;
          bBad = v.get_int64().get(ll) != simdjson::SUCCESS;
          info.iChildrenNum = static_cast<int32_t>(ll);
          szWhat = "childrenNum";
        }
        break;
      case 's':
        if (key == "symlink") {
          std::string_view text;
          bBad = v.get_string().get(text) != simdjson::SUCCESS;
          if (!bBad) info.strSymlinkTarget.assign(text);
          szWhat = "symlink";
        }
        break;
      default:
        break;
    }
    if (bBad) return false;
  }
  if (!bHasType) {
    szWhat = "type";
    return false;
  }
  return true;
}

// The path joined with one name ("/" + name for the root).
std::string JoinPath(const std::string& strFolder, std::string_view name) {
  std::string strPath;
  strPath.reserve(strFolder.size() + 1 + name.size());
  strPath = strFolder;
  if (strPath.empty() || strPath.back() != '/') strPath.push_back('/');
  strPath.append(name);
  return strPath;
}

// An absolute path without trailing '/' (the root stays "/").
std::string NormalisePath(const std::string& strPath) {
  std::string strResult = strPath;
  while (strResult.size() > 1 && strResult.back() == '/') strResult.pop_back();
  return strResult;
}

}  // namespace

// The libcurl handle, the answer buffer and the JSON parser of one CWebHdfsFS.
class CWebHdfsFS::CImpl {
 public:
  ~CImpl() {
    if (m_pCurl != nullptr) curl_easy_cleanup(m_pCurl);
  }
  CURL* m_pCurl = nullptr;
  char m_szError[CURL_ERROR_SIZE] = {};
  std::string m_strBody;
  simdjson::dom::parser m_parser;
};

// One answer: its HTTP status, the parsed document, and the exception of an error answer.
struct CWebHdfsFS::SAnswer {
  long lStatus = 0;
  element root;
  std::string strException;
};

namespace {
size_t OnBody(char* pData, size_t nSize, size_t nItems, void* pUser) {
  auto* pBody = static_cast<std::string*>(pUser);
  const size_t nBytes = nSize * nItems;
  if (pBody->size() + nBytes > CWebHdfsFS::kMaxAnswerBytes) return 0;  // ends the transfer: EFBIG
  pBody->append(pData, nBytes);
  return nBytes;
}
}  // namespace

CWebHdfsFS::CWebHdfsFS(SWebHdfsConfig config) : m_config(std::move(config)) {
  const bool bIpv6 = m_config.strHost.find(':') != std::string::npos;
  const std::string strHost = bIpv6 ? "[" + m_config.strHost + "]" : m_config.strHost;
  m_strUrlBase = FXString::Format("%s://%s:%d/webhdfs/v1", m_config.bHttps ? "https" : "http", strHost.c_str(),
                                  m_config.iPort);
  m_strPrefix = m_config.strPathPrefix.empty()
                    ? FXString::Format("%s://%s:%d", m_config.bHttps ? "swebhdfs" : "webhdfs",
                                       strHost.c_str(), m_config.iPort)
                    : m_config.strPathPrefix;
}

CWebHdfsFS::~CWebHdfsFS() = default;

std::string CWebHdfsFS::GetHadoopPathPrefix() { return m_strPrefix; }

CQiError CWebHdfsFS::Open() {
  std::lock_guard<std::mutex> lock(m_mutex);
  if (m_pImpl) return CQiError();
  if (GlobalInit() != CURLE_OK) return QI_ERROR_WIN32(QiErrorCode::NotEnoughMemory, "curl_global_init failed");
  auto pImpl = std::make_unique<CImpl>();
  pImpl->m_pCurl = curl_easy_init();
  if (pImpl->m_pCurl == nullptr) return QI_ERROR_WIN32(QiErrorCode::NotEnoughMemory, "curl_easy_init failed");
  CURL* pCurl = pImpl->m_pCurl;
  // No signals (worker threads), bounded in time, redirects only to http and https, a proxy only
  // when configured (never one from the environment).
  CURLcode code = CURLE_OK;
  const char* szOption = "";
  auto set = [&](CURLoption option, const char* szName, auto value) {
    if (code == CURLE_OK && (code = curl_easy_setopt(pCurl, option, value)) != CURLE_OK) szOption = szName;
  };
  set(CURLOPT_NOSIGNAL, "NOSIGNAL", 1L);
  set(CURLOPT_CONNECTTIMEOUT_MS, "CONNECTTIMEOUT_MS", m_config.lConnectTimeoutMs);
  set(CURLOPT_TIMEOUT_MS, "TIMEOUT_MS", m_config.lRequestTimeoutMs);
  set(CURLOPT_FOLLOWLOCATION, "FOLLOWLOCATION", 1L);
  set(CURLOPT_MAXREDIRS, "MAXREDIRS", m_config.lMaxRedirects);
  set(CURLOPT_PROTOCOLS_STR, "PROTOCOLS_STR", "http,https");
  set(CURLOPT_REDIR_PROTOCOLS_STR, "REDIR_PROTOCOLS_STR", "http,https");
  set(CURLOPT_PROXY, "PROXY", m_config.strProxy.c_str());
  set(CURLOPT_TCP_KEEPALIVE, "TCP_KEEPALIVE", 1L);
  set(CURLOPT_ERRORBUFFER, "ERRORBUFFER", pImpl->m_szError);
  set(CURLOPT_WRITEFUNCTION, "WRITEFUNCTION", &OnBody);
  set(CURLOPT_WRITEDATA, "WRITEDATA", &pImpl->m_strBody);
  if (!m_config.strCaFile.empty()) set(CURLOPT_CAINFO, "CAINFO", m_config.strCaFile.c_str());
  if (code != CURLE_OK)
    return QI_ERROR_ERRNO(EINVAL, "libcurl refuses the option %s: %s", szOption, curl_easy_strerror(code));
  m_pImpl = std::move(pImpl);
  return CQiError();
}

std::string CWebHdfsFS::PercentEncode(const std::string& strText, bool bKeepSlash) {
  static const char kHex[] = "0123456789ABCDEF";
  std::string strResult;
  strResult.reserve(strText.size() + 8);
  for (unsigned char c : strText) {
    const bool bUnreserved = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
                             c == '-' || c == '.' || c == '_' || c == '~' || (bKeepSlash && c == '/');
    if (bUnreserved) {
      strResult.push_back(static_cast<char>(c));
    } else {
      strResult.push_back('%');
      strResult.push_back(kHex[c >> 4]);
      strResult.push_back(kHex[c & 0xF]);
    }
  }
  return strResult;
}

CQiError CWebHdfsFS::Request(const char* szOp, const std::string& strPath, const std::string& strExtraQuery,
                             SAnswer& answer) {
  if (strPath.empty() || strPath[0] != '/' || strPath.find('\0') != std::string::npos)
    return QI_ERROR_ERRNO(EINVAL, "%s: not an absolute path: '%s'", szOp, Esc(strPath).c_str());
  std::string strUrl = m_strUrlBase;
  strUrl += PercentEncode(strPath, true);
  strUrl += "?op=";
  strUrl += szOp;
  if (!m_config.strUser.empty()) strUrl += "&user.name=" + PercentEncode(m_config.strUser, false);
  if (!m_config.strDelegationToken.empty())
    strUrl += "&delegation=" + PercentEncode(m_config.strDelegationToken, false);
  strUrl += strExtraQuery;

  CImpl& impl = *m_pImpl;
  impl.m_strBody.clear();
  impl.m_szError[0] = '\0';
  curl_easy_setopt(impl.m_pCurl, CURLOPT_URL, strUrl.c_str());
  ++m_ullRequests;
  const CURLcode code = curl_easy_perform(impl.m_pCurl);
  long lConnects = 0;
  if (curl_easy_getinfo(impl.m_pCurl, CURLINFO_NUM_CONNECTS, &lConnects) == CURLE_OK && lConnects > 0)
    m_ullConnections += static_cast<uint64_t>(lConnects);
  if (code != CURLE_OK) {
    const char* szDetail = impl.m_szError[0] != '\0' ? impl.m_szError : curl_easy_strerror(code);
    // No URL in the text: it holds the delegation token.
    return QI_ERROR_ERRNO(ErrnoOfCurl(code), "WebHDFS %s %s failed: %s (curl %d)", szOp, Esc(strPath).c_str(),
                          szDetail, static_cast<int>(code));
  }
  curl_easy_getinfo(impl.m_pCurl, CURLINFO_RESPONSE_CODE, &answer.lStatus);
  if (ZRLOG_ON(6))
    ZRLOG(6, "WebHDFS %s %s: HTTP %ld, %zu bytes", szOp, Esc(strPath).c_str(), answer.lStatus,
          impl.m_strBody.size());

  // simdjson reads a little past the end: the buffer gets its padding in place.
  const size_t nLength = impl.m_strBody.size();
  impl.m_strBody.reserve(nLength + simdjson::SIMDJSON_PADDING);
  const simdjson::error_code parseError =
      impl.m_parser.parse(impl.m_strBody.data(), nLength, false).get(answer.root);

  if (answer.lStatus == 200) {
    if (parseError)
      return QI_ERROR_WIN32(QiErrorCode::InvalidData, "Malformed WebHDFS answer to %s %s: %s", szOp,
                            Esc(strPath).c_str(), simdjson::error_message(parseError));
    return CQiError();
  }

  // An error answer: {"RemoteException":{"exception":...,"message":...}} when the server says more.
  std::string_view exception, message;
  element remote;
  if (!parseError && !answer.root["RemoteException"].get(remote)) {
    if (remote["exception"].get(exception)) exception = std::string_view();
    if (remote["message"].get(message)) message = std::string_view();
  }
  answer.strException.assign(exception);
  int iErrno = EIO;
  if (exception == "FileNotFoundException" || answer.lStatus == 404) iErrno = ENOENT;
  else if (exception == "AccessControlException" || exception == "SecurityException" || answer.lStatus == 401 ||
           answer.lStatus == 403)
    iErrno = EACCES;
  if (exception.empty())
    return QI_ERROR_ERRNO(iErrno, "WebHDFS %s %s failed: HTTP %ld", szOp, Esc(strPath).c_str(), answer.lStatus);
  return QI_ERROR_ERRNO(iErrno, "WebHDFS %s %s failed: %s: %s (HTTP %ld)", szOp, Esc(strPath).c_str(),
                        Esc(exception).c_str(), Esc(message).c_str(), answer.lStatus);
}

CQiError CWebHdfsFS::GetFileStatus(const std::string& strPathIn, CHadoopFileInfo& info) {
  QI_RETURN_IF_ERROR(Open());
  const std::string strPath = NormalisePath(strPathIn);
  std::lock_guard<std::mutex> lock(m_mutex);
  SAnswer answer;
  QI_RETURN_IF_ERROR(Request("GETFILESTATUS", strPath, std::string(), answer));
  element status;
  std::string_view suffix;
  bool bHasSuffix = false;
  const char* szWhat = "FileStatus";
  info = CHadoopFileInfo();
  if (answer.root["FileStatus"].get(status) || !ParseFileStatus(status, info, suffix, bHasSuffix, szWhat))
    return QI_ERROR_WIN32(QiErrorCode::InvalidData, "Malformed WebHDFS answer to GETFILESTATUS %s: bad %s",
                          Esc(strPath).c_str(), szWhat);
  info.strName = m_strPrefix + strPath;
  return CQiError();
}

CQiError CWebHdfsFS::GetFileInfo(const std::string& strPath, struct stat& st) {
  CHadoopFileInfo info;
  QI_RETURN_IF_ERROR(GetFileStatus(strPath, info));
  QI_RETURN_IF_ERROR(ConvertToStatStructure(info, st));
  return CQiError();
}

namespace {
// Appends the entries of a FileStatus array to the listing and tells the suffixes of the first
// and the last one (views into the parsed answer). A listing of a file names the file
// itself with an empty suffix: that is ENOTDIR.
CQiError AppendEntries(element array, const std::string& strPrefix, const std::string& strFolder,
                       const char* szOp, CHadoopFileInfoArray& arrEntries, std::string_view& firstSuffix,
                       std::string_view& lastSuffix) {
  simdjson::dom::array entries;
  if (array.get_array().get(entries))
    return QI_ERROR_WIN32(QiErrorCode::InvalidData, "Malformed WebHDFS answer to %s %s: FileStatus is no array",
                          szOp, Esc(strFolder).c_str());
  const std::string strFolderName = strPrefix + strFolder;
  const size_t nFirst = arrEntries.size();
  for (element value : entries) {
    CHadoopFileInfo info;
    std::string_view suffix;
    bool bHasSuffix = false;
    const char* szWhat = "entry";
    const size_t nIndex = arrEntries.size();
    if (!ParseFileStatus(value, info, suffix, bHasSuffix, szWhat))
      return QI_ERROR_WIN32(QiErrorCode::InvalidData, "Malformed WebHDFS answer to %s %s: entry %zu has a bad %s",
                            szOp, Esc(strFolder).c_str(), nIndex, szWhat);
    if (!bHasSuffix)
      return QI_ERROR_WIN32(QiErrorCode::InvalidData, "Malformed WebHDFS answer to %s %s: entry %zu has no pathSuffix",
                            szOp, Esc(strFolder).c_str(), nIndex);
    if (suffix.empty() && info.eType != EHadoopFileType::Directory)
      return QI_ERROR_ERRNO(ENOTDIR, "%s %s: not a directory", szOp, Esc(strFolder).c_str());
    if (!IsSingleName(suffix))
      return QI_ERROR_WIN32(QiErrorCode::InvalidData,
                            "Malformed WebHDFS answer to %s %s: entry %zu has the pathSuffix '%s', not a name", szOp,
                            Esc(strFolder).c_str(), nIndex, Esc(suffix).c_str());
    info.strName = JoinPath(strFolderName, suffix);
    arrEntries.push_back(std::move(info));
    if (nIndex == nFirst) firstSuffix = suffix;
    lastSuffix = suffix;
  }
  return CQiError();
}
}  // namespace

CQiError CWebHdfsFS::ListAtOnce(const std::string& strPath, CHadoopFileInfoArray& arrEntries) {
  SAnswer answer;
  QI_RETURN_IF_ERROR(Request("LISTSTATUS", strPath, std::string(), answer));
  element array;
  if (answer.root["FileStatuses"]["FileStatus"].get(array))
    return QI_ERROR_WIN32(QiErrorCode::InvalidData, "Malformed WebHDFS answer to LISTSTATUS %s: no FileStatuses",
                          Esc(strPath).c_str());
  std::string_view firstSuffix, lastSuffix;
  QI_RETURN_IF_ERROR(AppendEntries(array, m_strPrefix, strPath, "LISTSTATUS", arrEntries, firstSuffix, lastSuffix));
  return CQiError();
}

CQiError CWebHdfsFS::ListWithBatches(const std::string& strPath, CHadoopFileInfoArray& arrEntries) {
  std::string strStartAfter;
  for (bool bFirst = true;; bFirst = false) {
    SAnswer answer;
    const std::string strQuery = bFirst ? std::string() : "&startAfter=" + PercentEncode(strStartAfter, false);
    CQiError error = Request("LISTSTATUS_BATCH", strPath, strQuery, answer);
    if (error.IsError()) {
      // A server older than the batched listing refuses the operation itself.
      if (bFirst && answer.lStatus == 400 &&
          (answer.strException == "IllegalArgumentException" ||
           answer.strException == "UnsupportedOperationException")) {
        ZRLOG(1, "WebHDFS server does not list in batches, using LISTSTATUS, error=%s", error.AsString().c_str());
        m_bBatchUnsupported = true;
        QI_RETURN_IF_ERROR(ListAtOnce(strPath, arrEntries));
        return CQiError();
      }
      return QI_PUSH(error);
    }
    element listing, array;
    int64_t llRemaining = 0;
    if (answer.root["DirectoryListing"].get(listing) ||
        listing["partialListing"]["FileStatuses"]["FileStatus"].get(array) ||
        listing["remainingEntries"].get_int64().get(llRemaining))
      return QI_ERROR_WIN32(QiErrorCode::InvalidData,
                            "Malformed WebHDFS answer to LISTSTATUS_BATCH %s: no DirectoryListing with "
                            "partialListing and remainingEntries",
                            Esc(strPath).c_str());
    const size_t nBefore = arrEntries.size();
    std::string_view firstSuffix, lastSuffix;
    QI_RETURN_IF_ERROR(
        AppendEntries(array, m_strPrefix, strPath, "LISTSTATUS_BATCH", arrEntries, firstSuffix, lastSuffix));
    if (llRemaining <= 0) return CQiError();
    // Pages follow each other in name order: a page that does not start past the last one
    // would list forever.
    const bool bAdvances = arrEntries.size() > nBefore && (bFirst || firstSuffix > strStartAfter);
    if (!bAdvances)
      return QI_ERROR_WIN32(QiErrorCode::InvalidData,
                            "Malformed WebHDFS answer to LISTSTATUS_BATCH %s: the listing does not advance after "
                            "'%s' (%lld entries said to remain)",
                            Esc(strPath).c_str(), Esc(strStartAfter).c_str(), static_cast<long long>(llRemaining));
    strStartAfter.assign(lastSuffix);
  }
}

CQiError CWebHdfsFS::ListDirectory(const std::string& strPathIn, CHadoopFileInfoArray& arrEntries, int& iCount) {
  arrEntries.clear();
  iCount = 0;
  QI_RETURN_IF_ERROR(Open());
  const std::string strPath = NormalisePath(strPathIn);
  std::lock_guard<std::mutex> lock(m_mutex);
  CQiError error = m_bBatchUnsupported ? ListAtOnce(strPath, arrEntries) : ListWithBatches(strPath, arrEntries);
  if (error.IsError()) {
    arrEntries.clear();
    return QI_PUSH(error);
  }
  iCount = static_cast<int>(arrEntries.size());
  return CQiError();
}
