#include "Scan/BasicScannerPrivate.h"

#include <new>
#include <optional>

#include "Platform/FXErrorUtil.h"
#include "Platform/FilterSet.h"
#include "Platform/FilterTermTestString.h"
#include "Platform/LogWriterInterfaceThreadWrapper.h"
#include "Platform/ZRDebugFunction.h"

namespace {
// An error in the pool's last error code (its space kept), with the facade's message.
CQiError PoolError(const ZrThreadPool& pool, const char* file, const char* function, int line,
                   const char* message) {
  const CQiError last = pool.GetLastError();
  if (last.IsErrNo()) return FXErrorUtil::ErrorErrNo(static_cast<int>(last.GetCode()), file, function, line, "%s", message);
  const uint32_t code = last.IsError() ? last.GetCode() : QiErrorCode::FunctionFailed;
  return FXErrorUtil::ErrorWin32(code, file, function, line, "%s", message);
}
}  // namespace

CBasicScannerPrivate::CBasicScannerPrivate(int64_t llScanId, const std::string& strInstance,
                                           CScannerCallbackPtr pCallback)
    : m_pConfigurationBag(std::make_shared<CBag>()),
      m_llScanId(llScanId),
      m_strInstance(strInstance),
      m_pCallback(std::move(pCallback)),
      m_pWorkUnitManager(std::make_shared<CWorkUnitManager>(llScanId)) {
  m_pWorkUnitManager->SetConfigurationBag(m_pConfigurationBag);
}

CBasicScannerPrivate::~CBasicScannerPrivate() {
  // The caller waited for the scan; joining the pool first still keeps a job from outliving the
  // vector entry it was given, should a caller forget to.
  if (m_pThreadPool) m_pThreadPool->Shutdown();
}

std::shared_ptr<CLogWriterInterfaceThreadWrapper> CBasicScannerPrivate::UseLogWriter() const {
  if (!m_pLogWriter || CLogWriterInterface::Current() == m_pLogWriter.get()) return nullptr;
  return m_pLogWriter->GetThreadWrapper();
}

CQiError CBasicScannerPrivate::SetLogWriter(CLogWriterInterfacePtr pLogWriter) {
  m_pLogWriter = std::move(pLogWriter);
  return CQiError();
}

CQiError CBasicScannerPrivate::SetDiagnosticWriter(CLineWriterPtr pWriter) {
  m_pDiagnosticWriter = std::move(pWriter);
  return CQiError();
}

CQiError CBasicScannerPrivate::SetConfigurationBag(CBagPtr pBag) {
  m_pConfigurationBag = std::move(pBag);
  m_pWorkUnitManager->SetConfigurationBag(m_pConfigurationBag);
  return CQiError();
}

CQiError CBasicScannerPrivate::SetContentMapper(ContentMapperAPIPtr pMapper) {
  m_pWorkUnitManager->SetContentMapper(std::move(pMapper));
  return CQiError();
}

CQiError CBasicScannerPrivate::SetFollowMountPaths(bool bFollow) {
  auto wrapper = UseLogWriter();
  m_pWorkUnitManager->SetFollowMountPaths(bFollow);
  return CQiError();
}

CQiError CBasicScannerPrivate::SetAutoExcludeMountPoints(bool bExclude) {
  auto wrapper = UseLogWriter();
  m_pWorkUnitManager->SetAutoExcludeMountPoints(bExclude);
  return CQiError();
}

CQiError CBasicScannerPrivate::SetExcludedAttributes(uint32_t uExcludedAttributes) {
  m_uExcludedAttributes = uExcludedAttributes;
  return CQiError();
}

CQiError CBasicScannerPrivate::AddContentItem(const std::string& strPath, const std::string& strSecondPath) {
  auto wrapper = UseLogWriter();
  QI_RETURN_IF_ERROR(m_pWorkUnitManager->AssignWorkUnit(strPath, strSecondPath, false));
  return CQiError();
}

CQiError CBasicScannerPrivate::AddSourceContentItem(const std::string& strPath) {
  auto wrapper = UseLogWriter();
  QI_RETURN_IF_ERROR(m_pWorkUnitManager->AssignSourceWorkUnit(strPath));
  return CQiError();
}

CQiError CBasicScannerPrivate::AddLocalContentItem(const std::string& strPath) {
  auto wrapper = UseLogWriter();
  QI_RETURN_IF_ERROR(m_pWorkUnitManager->AssignLocalWorkUnit(strPath));
  return CQiError();
}

CQiError CBasicScannerPrivate::AddScanContentExceptionItem(const std::string& strItem) {
  m_setScanContentExceptions.insert(strItem);
  return CQiError();
}

CQiError CBasicScannerPrivate::AddFilterItem(const std::string& strItem) {
  m_setFilters.insert(strItem);
  return CQiError();
}

CQiError CBasicScannerPrivate::AddFilterExceptionItem(const std::string& strItem) {
  m_setFilterExceptions.insert(strItem);
  return CQiError();
}

CQiError CBasicScannerPrivate::AddSystemFilterItem(const std::string& strItem) {
  m_setSystemFilters.insert(strItem);
  return CQiError();
}

CQiError CBasicScannerPrivate::AddSystemFilterExceptionItem(const std::string& strItem) {
  m_setSystemFilterExceptions.insert(strItem);
  return CQiError();
}

CQiError CBasicScannerPrivate::Initialize() {
  auto wrapper = UseLogWriter();
  QI_RETURN_IF_ERROR(InitializeWorkUnits());
  return CQiError();
}

CQiError CBasicScannerPrivate::Start() {
  auto wrapper = UseLogWriter();
  QI_RETURN_IF_ERROR(InitializeWorkUnits());
  QI_RETURN_IF_ERROR(CreateWorkerThreads());
  QI_RETURN_IF_ERROR(StartWorkThreads());
  return CQiError();
}

CQiError CBasicScannerPrivate::InitializeWorkUnits() {
  if (m_bInitialized) return CQiError();
  // A failure leaves the flag clear, so a later Initialize or Start tries again.
  QI_RETURN_IF_ERROR(m_pWorkUnitManager->FinalizeWorkUnits(m_setScanContentExceptions, m_setFilters,
                                                           m_setFilterExceptions, m_setSystemFilters,
                                                           m_setSystemFilterExceptions));
  m_bInitialized = true;
  return CQiError();
}

CQiError CBasicScannerPrivate::CreateWorkerThreads() {
  for (const auto& [strMediaId, pMediaUnit] : m_pWorkUnitManager->GetPhysicalMediaVolumeWorkUnitMap()) {
    CBasicScannerWorkThreadPtr pThread(new (std::nothrow) CBasicScannerWorkThread());
    if (!pThread) return QI_ERROR_WIN32(QiErrorCode::OutOfMemory, "Failed to allocate a scanner work thread");
    (void)pThread->SetLogWriter(m_pLogWriter);

    const int iThreadIndex = static_cast<int>(m_lstWorkThreads.size()) + 1;
    CQiError error = pThread->InitializeObject(m_llScanId, m_strInstance, iThreadIndex, m_pCallback);
    if (error.IsError())
      return QI_PUSH(error, "Scanner work thread initialization failed, ThreadIndex=[%d]", iThreadIndex);
    QI_RETURN_IF_ERROR(pThread->SetScannerConfigurationBag(m_pConfigurationBag));
    QI_RETURN_IF_ERROR(pThread->SetPhysicalMediaWorkUnit(pMediaUnit));
    if (m_fnEngineFactory) pThread->SetScanEngineFactory(m_fnEngineFactory);

    if (m_pLogWriter && m_pLogWriter->IsLoggingOn() && m_pLogWriter->GetLevel() > 3 && m_pDiagnosticWriter) {
      (void)pMediaUnit->DumpDiagnosticData(m_pDiagnosticWriter, std::string());
      (void)m_pDiagnosticWriter->WriteLine(" ");
    }
    m_lstWorkThreads.push_back(std::move(pThread));
  }
  return CQiError();
}

CQiError CBasicScannerPrivate::StartWorkThreads() {
  std::optional<ZRDebugFunction> trace;
  if (ZRLOG_ON(1)) trace.emplace(2, __PRETTY_FUNCTION__, __LINE__);

  if (m_lstWorkThreads.empty())
    return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "No work threads exist to run; nothing to do");

  m_pThreadPool.reset(new (std::nothrow) ZrThreadPool());
  if (!m_pThreadPool) return QI_ERROR_WIN32(QiErrorCode::OutOfMemory, "Failed to allocate the thread pool");

  m_ullThreadCount = m_lstWorkThreads.size();
  const int iThreads = static_cast<int>(m_ullThreadCount);
  // Every medium gets a thread of its own from the start.
  if (m_pThreadPool->Initialize(kThreadPoolName, kThreadPoolQueueLimit, iThreads, iThreads + 1, iThreads) !=
      ZrThreadPool::kResultSuccess)
    return PoolError(*m_pThreadPool, __FILE__, __PRETTY_FUNCTION__, __LINE__, "Failed to initialize the thread pool");
  ZRLOG(1, "Thread pool, MinThreads=[%u], MaxThread=[%u]", static_cast<unsigned>(m_pThreadPool->GetMinThreads()),
        static_cast<unsigned>(m_pThreadPool->GetMaxThreads()));

  m_pThreadSlots.reset(new (std::nothrow) intptr_t[m_ullThreadCount]());
  if (!m_pThreadSlots) return QI_ERROR_WIN32(QiErrorCode::OutOfMemory, "Failed to allocate the thread slots");

  for (size_t i = 0; i < m_lstWorkThreads.size(); ++i) {
    const int iJob = m_pThreadPool->QueueJob(&CBasicScannerPrivate::RunStub, &m_lstWorkThreads[i]);
    // The jobs already handed over go on running.
    if (iJob == ZrThreadPool::kInvalidJob)
      return QI_ERROR_WIN32(QiErrorCode::FunctionFailed, "Failed to start the operations thread threads");
    m_pThreadSlots[i] = iJob;
  }
  return CQiError();
}

unsigned CBasicScannerPrivate::RunStub(void* pArg) {
  // The shared reference keeps the work thread alive until the job ends.
  const CBasicScannerWorkThreadPtr pThread = *static_cast<CBasicScannerWorkThreadPtr*>(pArg);
  if (!pThread) return 0;
  CQiError error = pThread->Run();
  if (error.IsError()) {
    if (pThread->GetLogWriter())
      ZRLOG_TO(pThread->GetLogWriter(), -1, "Run failed, error=%s", error.AsString().c_str());
    else
      ZRLOG(-1, "Run failed, error=%s", error.AsString().c_str());
  }
  return 0;
}

CQiError CBasicScannerPrivate::WaitForScanToComplete() {
  auto wrapper = UseLogWriter();
  if (!m_pThreadPool)
    return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "The scan was not started; nothing to wait for");
  ZRLOG(2, "Waiting for scan work threads to complete");
  if (m_pThreadPool->WaitForAll(true, false, true, -1) != ZrThreadPool::kResultSuccess)
    return PoolError(*m_pThreadPool, __FILE__, __PRETTY_FUNCTION__, __LINE__,
                     "Wait for multiple semaphores did not succeed, either abandoned or failed");
  ZRLOG(2, "Wait for scan work threads completed");
  return CQiError();
}

CQiError CBasicScannerPrivate::DumpDiagnosticData() {
  for (const auto& [strMediaId, pMediaUnit] : m_pWorkUnitManager->GetPhysicalMediaVolumeWorkUnitMap()) {
    if (pMediaUnit) (void)pMediaUnit->DumpDiagnosticData(m_pDiagnosticWriter, std::string());
    if (m_pDiagnosticWriter) (void)m_pDiagnosticWriter->WriteLine(" ");
  }
  return CQiError();
}

bool CBasicScannerPrivate::IsItemValidContent(const std::string& strPath) {
  if (!m_pWorkUnitManager) return false;
  // Before finalization every path counts as content.
  if (!m_bInitialized) return true;
  const CFilterTermTestString test(strPath);
  const CWorkUnitManager::WorkUnitMap& mapUnits = m_pWorkUnitManager->GetWorkUnitMap();
  if (mapUnits.empty()) return false;
  // Only the first work unit is consulted, whatever the path; the others are deliberately not
  // searched.
  const CWorkUnitPtr& pUnit = mapUnits.begin()->second;
  if (!pUnit) return false;
  if (pUnit->GetScanContent() && !pUnit->GetScanContent()->IsIn(test, CFilterSet::kAppliesAll)) return false;
  if (pUnit->GetSystemFilters() && pUnit->GetSystemFilters()->IsIn(test, CFilterSet::kAppliesAll)) return false;
  if (pUnit->GetFilters() && pUnit->GetFilters()->IsIn(test, CFilterSet::kAppliesAll)) return false;
  return true;
}
