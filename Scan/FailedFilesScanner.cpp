#include "Scan/FailedFilesScanner.h"

#include <cstdlib>

#include "Platform/Bag.h"
#include "Platform/FXErrorUtil.h"
#include "Platform/FXFile.h"
#include "Platform/FXPath.h"
#include "Platform/FXString.h"
#include "Platform/LogWriterInterface.h"
#include "Platform/ZRDebugFunction.h"
#include "Scan/FindFirstItem.h"

namespace {

// Frees the buffer of getline.
struct SLineBuffer {
  char* pData = nullptr;
  size_t uCapacity = 0;
  ~SLineBuffer() { free(pData); }
};

bool IsTrailingSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

}  // namespace

CFailedFilesScanner::CFailedFilesScanner(int64_t llJobId, CFailedFilesScannerCallbackPtr pCallback,
                                         const std::string& strFolder)
    : m_llJobId(llJobId), m_pCallback(std::move(pCallback)), m_strFolder(strFolder) {}

CFailedFilesScanner::~CFailedFilesScanner() = default;

std::string CFailedFilesScanner::GetFailedFilesListPath() const {
  return FXPath::Append(m_strFolder, kFailedFilesListName);
}

CQiError CFailedFilesScanner::Run() {
  ZRDebugFunction trace(2, __PRETTY_FUNCTION__, __LINE__, "JobId=%lld",
                        static_cast<long long>(m_llJobId));
  const std::string strListPath = GetFailedFilesListPath();
  if (!FXPath::DoesPathExist(strListPath)) {
    ZRLOG(0, "Failures file (%s) not found.", FXString::EscapeControl(strListPath).c_str());
    return CQiError();
  }
  if (!m_pCallback)
    return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "No failed files scanner callback");

  // One bag for every item of the run.
  CBagPtr pBag = std::make_shared<CBag>();
  FXFile::FILEPtr pList(FXFile::zrfopen(strListPath, "r"));
  if (!pList) {
    ZRLOG(0, "failed files list [%s] not found", FXString::EscapeControl(strListPath).c_str());
    return CQiError();
  }

  CQiError result;
  std::string strContentPath;
  COutputHandlerPtr pHandler;
  SLineBuffer line;
  ssize_t llRead;
  while ((llRead = getline(&line.pData, &line.uCapacity, pList.get())) >= 0) {
    size_t uLength = static_cast<size_t>(llRead);
    while (uLength > 0 && IsTrailingSpace(line.pData[uLength - 1])) --uLength;
    if (uLength == 0) continue;
    const std::string strPath(line.pData, uLength);

    // Paths at or below the remembered content path reuse its handler.
    if (strContentPath.empty() || !FXPath::IsDescendantOf(strPath, strContentPath, true)) {
      CQiError error = m_pCallback->GetOutputHandler(strPath, strContentPath, pHandler);
      if (error.IsError()) {
        result = QI_PUSH(error, "failed get output handler");
        break;
      }
      if (!pHandler) ZRLOG(0, "Failed files output handler not initialized");
    }
    if (!pHandler) continue;

    FXFile::CFileData fileData(strPath, FXFile::CFileData::kModeFullPath);
    if (!fileData.good()) {
      ZRLOG(4, "Failed item [%s] skipped (errono:%d)", FXString::EscapeControl(strPath).c_str(),
            fileData.getLastError());
      continue;
    }
    CItemPtr pItem = std::make_shared<CFindFirstItem>(pBag, strPath, fileData);
    CQiError error = pHandler->OnItem(pItem);
    if (error.IsError()) {
      result = QI_PUSH(error, "failed process item [%s] by failed output handler",
                       FXString::EscapeControl(strPath).c_str());
      break;
    }
  }
  pList.reset();
  return result;
}
