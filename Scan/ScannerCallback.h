// CScannerCallback: the object through which the caller of the scan library takes part in a
// scan. The caller derives from it and overrides what it supports; the library holds it by
// CScannerCallbackPtr and hands the same object to every work thread, arbiter, scanner and engine.
//
// Through it the library asks where items go (GetOutputHandler, GetOutputResources,
// GetFlatCollectFile, GetScanFailureConsumer), which engines to run (GetScanEngineList), whether
// the scan was aborted (IsAborted) and what to do when an engine fails (OnScannerError). The base
// refuses everything that must produce a resource with Win32 50 (not supported), so a caller must
// override at least what its engines use.
//
// Configuration parameters are read from the configuration bag (SetScannerConfigurationBag) with
// GetParameterAny and the typed GetParameter readers: the caller's variable holds the default;
// a missing parameter leaves it untouched and succeeds unless it is required (then the bag's
// not-found error 1168 comes back); without any bag a required read fails with 13; a value of
// another type fails with 13 and "PropertyName=[%s], error=[%s]".
//
// Threads: the same object is called from every worker thread at once. Abort/IsAborted use one
// atomic flag that only ever goes from false to true. The configuration bag pointer is replaced
// under a short lock so that an engine setting it up while another thread reads parameters is
// safe (the bag itself guards its values). Overrides must be safe to call from several threads.
//
// The post-processing and scanner options members exist for derived classes; the base neither
// fills nor returns them.
#pragma once

#include <any>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <type_traits>
#include <vector>

#include "Platform/Bag.h"
#include "Platform/QiError.h"
#include "Scan/AbortOperationCheck.h"
#include "Scan/CollectType.h"
#include "Scan/ItemConsumer.h"
#include "Scan/ItemEvaluator.h"
#include "Scan/OutputHandler.h"

class CScanEngine;
class CPostProcessingOptions;
class CScannerOptions;
using CScanEnginePtr = std::shared_ptr<CScanEngine>;
using CPostProcessingOptionsPtr = std::shared_ptr<CPostProcessingOptions>;
using CScannerOptionsPtr = std::shared_ptr<CScannerOptions>;
// The engines offered a work unit, tried in list order.
using CScanEngineList = std::vector<CScanEnginePtr>;

class CScannerCallback : public CAbortOperationCheck {
 public:
  CScannerCallback();
  ~CScannerCallback() override;

  // The aborted flag.
  bool IsAborted() const override;
  virtual std::string AsString() const;
  // Sets the aborted flag; interrupts nothing by itself (all work polls IsAborted).
  virtual CQiError Abort();
  // The folder for the scan's persistent data; empty in the base.
  virtual std::string GetPersistFolderName();
  virtual CQiError GetOutputHandler(const std::string& strName, COutputHandlerPtr& pHandler);
  virtual bool AreMaintenanceOperationsAllowed();
  virtual CQiError LogVolumeScanComplete(const std::string& strFirst, const std::string& strSecond,
                                         const std::string& strThird);
  virtual CQiError GetScanEngineList(CScanEngineList& lstEngines);
  virtual CQiError GetPostProcessingOptionsInstance(CPostProcessingOptionsPtr& pOptions);
  virtual CQiError GetScannerOptionsInstance(CScannerOptionsPtr& pOptions);
  virtual bool IsBackupFromRemoteVolumes();
  virtual CQiError GetOutputResources(const std::string& strName, CItemConsumerPtr& pConsumer1,
                                      CItemConsumerPtr& pConsumer2, CItemEvaluatorPtr& pEvaluator,
                                      CItemConsumerPtr& pConsumer3);
  virtual CQiError GetFlatCollectFile(CItemConsumerPtr& pConsumer, ECollectType eCollectType,
                                      int iValue, const std::string& strValue);
  virtual CQiError GetScanFailureConsumer(CItemConsumerPtr& pConsumer);
  virtual CQiError ImpersonateUser();
  // Decides what an engine's failure on a work unit means. The base asks for no abort and for
  // the next engine, and leaves bSkip as the caller set it.
  virtual CQiError OnScannerError(CScanEnginePtr pEngine, const CQiError& error, bool& bAbort,
                                  bool& bSkip, bool& bTryNext);

  // Replaces the bag that the parameter readers consult.
  CQiError SetScannerConfigurationBag(CBagPtr pBag);
  CBagPtr GetScannerConfigurationBag() const;

  // Reads one parameter as stored; value untouched when absent (see the class comment).
  CQiError GetParameterAny(const std::string& strName, std::any& value, bool bRequired = false);

  // Typed readers for bool, int, unsigned int, long long, unsigned long long (and long,
  // unsigned long, which the bag stores as the 64-bit types) and std::string.
  template <typename T>
  CQiError GetParameter(const std::string& strName, T& value, bool bRequired = false);

 protected:
  std::atomic<bool> m_bAborted{false};
  CBagPtr m_pScannerConfigurationBag;
  CPostProcessingOptionsPtr m_pPostProcessingOptions;
  CScannerOptionsPtr m_pScannerOptions;

 private:
  // Guards the configuration bag pointer only.
  mutable std::mutex m_mutexBag;

  template <typename T>
  struct SStoredType {
    using type = T;
  };
  // Formats the wrong-type error; kept out of line.
  static CQiError WrongTypeError(const std::string& strName);
};

template <>
struct CScannerCallback::SStoredType<long> {
  using type = long long;
};
template <>
struct CScannerCallback::SStoredType<unsigned long> {
  using type = unsigned long long;
};

template <typename T>
CQiError CScannerCallback::GetParameter(const std::string& strName, T& value, bool bRequired) {
  using TStored = typename SStoredType<T>::type;
  static_assert(std::is_same_v<TStored, bool> || std::is_same_v<TStored, int> ||
                    std::is_same_v<TStored, unsigned int> ||
                    std::is_same_v<TStored, long long> ||
                    std::is_same_v<TStored, unsigned long long> ||
                    std::is_same_v<TStored, std::string>,
                "GetParameter reads bool, int, unsigned int, 64-bit integers and strings");
  std::any anyValue;
  CQiError error = GetParameterAny(strName, anyValue, bRequired);
  if (error.IsError()) return error;
  if (!anyValue.has_value()) return CQiError();  // absent and not required: keep the default
  const TStored* pStored = std::any_cast<TStored>(&anyValue);
  if (pStored == nullptr) return WrongTypeError(strName);
  value = static_cast<T>(*pStored);
  return CQiError();
}

using CScannerCallbackPtr = std::shared_ptr<CScannerCallback>;
