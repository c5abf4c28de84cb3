#include "FsscanCallback.h"

#include "EngineFactory.h"
#include "Scan/OnDemandScanEngine.h"

static_assert(std::atomic<bool>::is_always_lock_free, "the interrupt flag is set from a signal handler");

std::atomic<bool> CFsscanCallback::s_bInterrupted{false};

CFsscanCallback::CFsscanCallback(COutputHandlerPtr pOutputHandler, CItemConsumerPtr pFailureConsumer,
                                 std::vector<std::string> lstEngineNames, std::string strInstance)
    : m_pOutputHandler(std::move(pOutputHandler)),
      m_pFailureConsumer(std::move(pFailureConsumer)),
      m_lstEngineNames(std::move(lstEngineNames)),
      m_strInstance(std::move(strInstance)) {}

CFsscanCallback::~CFsscanCallback() = default;

bool CFsscanCallback::IsAborted() const { return CScannerCallback::IsAborted() || IsInterrupted(); }

std::string CFsscanCallback::AsString() const { return "CFsscanCallback"; }

CQiError CFsscanCallback::GetOutputHandler(const std::string&, COutputHandlerPtr& pHandler) {
  pHandler = m_pOutputHandler;
  return CQiError();
}

CQiError CFsscanCallback::GetScanFailureConsumer(CItemConsumerPtr& pConsumer) {
  pConsumer = m_pFailureConsumer;
  return CQiError();
}

CQiError CFsscanCallback::GetScanEngineList(CScanEngineList& lstEngines) {
  QI_RETURN_IF_ERROR(CEngineFactory::MakeEngines(m_lstEngineNames, m_strInstance, lstEngines, m_pHadoopFS));
  if (m_lstOnDemandBlackList.empty()) return CQiError();
  for (const CScanEnginePtr& pEngine : lstEngines)
    if (auto* pOnDemand = dynamic_cast<COnDemandScanEngine*>(pEngine.get()))
      pOnDemand->SetBlackListScanContent(m_lstOnDemandBlackList);
  return CQiError();
}

void CFsscanCallback::SetOnDemandBlackList(std::vector<std::string> lstBlackList) {
  m_lstOnDemandBlackList = std::move(lstBlackList);
}

void CFsscanCallback::RequestInterrupt() { s_bInterrupted.store(true, std::memory_order_relaxed); }

bool CFsscanCallback::IsInterrupted() { return s_bInterrupted.load(std::memory_order_relaxed); }
