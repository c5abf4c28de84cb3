#include "Scan/Unix/HadoopScanEngine.h"

#include "Platform/FXErrorUtil.h"
#include "Scan/Unix/HadoopPathEnumerator.h"

CHadoopScanEngine::CHadoopScanEngine(CHadoopFSPtr pFS) : m_pFS(std::move(pFS)) {}

CHadoopScanEngine::~CHadoopScanEngine() = default;

std::string CHadoopScanEngine::getDescription() { return "Hadoop Scan Engine"; }

CQiError CHadoopScanEngine::GetPathEnumerator(CPathEnumeratorPtr& pEnumerator) {
  pEnumerator.reset();
  if (!m_pFS) return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "The Hadoop scan engine has no file system handle");
  pEnumerator = std::make_shared<CHadoopPathEnumerator>(m_pFS);
  return CQiError();
}
