#include "Scan/Unix/LustreScanEngine.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "Platform/FXErrorUtil.h"
#include "Platform/FXPath.h"
#include "Platform/FXString.h"
#include "Platform/LogWriterInterface.h"
#include "Platform/ZRDebugBreak.h"
#include "Platform/ZRDebugFunction.h"
#include "Platform/ZRPlatformInfo.h"
#include "Scan/ScanDB/ScanDbFiles.h"
#include "Scan/ScannerConfigurationBagId.h"
#include "Scan/Unix/LustreChangelogApplier.h"
#include "Scan/Unix/LustreChangelogMerger.h"
#include "Scan/Unix/LustreReaderFile.h"
#include "Scan/Unix/LustreRecursiveEnumerateFiles.h"
#include "Scan/Unix/LustreScanDBEnumerateFiles.h"
#include "Scan/Unix/LustreScanDBPathEnumerator.h"
#include "Scan/Unix/ZrScanDBLustreRecord.h"

namespace {
constexpr const char* kSection = ZRPlatformInfo::kFileSystemAgentSection;
constexpr const char* kStatsTmp = "Tmp";
constexpr const char* kStatsCurrent = "Current";
constexpr const char* kStatsTotal = "Tot";
constexpr const char* kPostOpSuffix = "_PostOp.zrf";

std::string Esc(const std::string& strText) { return FXString::EscapeControl(strText); }

std::string StatisticsFileOf(const std::string& strPrefix, const char* szKind) {
  return strPrefix + "_ChangelogReaderStatistics_" + szKind + ".zrf";
}

// Errors that end the job whatever the scan type: an abort, or a machine out of memory,
// descriptors or space.
bool IsFatal(const CQiError& error) {
  return error.IsWin32(QiErrorCode::OperationAborted) || error.IsErrNo(ENOMEM) || error.IsErrNo(EMFILE) ||
         error.IsErrNo(ENOSPC);
}

CQiError WriteText(const std::string& strFile, const std::string& strText) {
  std::ofstream out(strFile, std::ios::binary | std::ios::trunc);
  out << strText;
  if (!out.flush()) return QI_ERROR_ERRNO(errno != 0 ? errno : EIO, "Cannot write %s", Esc(strFile).c_str());
  return CQiError();
}
}  // namespace

CLustreScanEngine::CLustreScanEngine() { m_bInitialized = initialize().IsSuccess(); }

CLustreScanEngine::~CLustreScanEngine() = default;

std::string CLustreScanEngine::getDescription() { return "LustreScanEngine"; }

CQiError CLustreScanEngine::initialize() {
  const ZRPlatformInfo& settings = ZRPlatformInfo::Instance();
  std::string strUser;
  if (settings.GetValue(kSection, "sLustreUser", strUser).IsSuccess() && !strUser.empty()) m_strLustreUser = strUser;
  int iBatch = 0;
  if (settings.GetValue(kSection, "LustreChangelogBatchSize", iBatch).IsSuccess() && iBatch > 9999) {
    ZRLOG(0, "Additional Setting [%s]/[%s] = [%d]", kSection, "LustreChangelogBatchSize", iBatch);
    m_llBatchSize = iBatch;
  }
  ZRLOG(1, "Lustre changelog processing batch size : %lld", static_cast<long long>(m_llBatchSize));
  CQiError error = LustreAPI::Current()->LoadFunctions();
  if (error.IsError()) {
    ZRLOG(-1, "Cannot load the Lustre functions, error=%s", error.AsString().c_str());
    return QI_PUSH(error);
  }
  m_pHardlinks = std::make_shared<CLustreHardlinkManager>();
  return CQiError();
}

CQiError CLustreScanEngine::Process() {
  ZRDEBUG_FUNCTION(1);
  return ProcessVolumesOfMedium();
}

CQiError CLustreScanEngine::ProcessVolumeWorkUnit(CVolumeWorkUnitPtr pVolumeUnit) {
  return ProcessWorkUnitsOfVolume(pVolumeUnit, kEngineTag);
}

std::string CLustreScanEngine::StatisticsFile(const char* szKind) const {
  return StatisticsFileOf(m_strPrefix, szKind);
}

std::string CLustreScanEngine::ReadersFile() const { return m_strPrefix + "_ChangelogReaders.zrf"; }

CQiError CLustreScanEngine::ProcessWorkUnit(CWorkUnitPtr pWorkUnit) {
  ZRDEBUG_FUNCTION(2);
  if (!pWorkUnit) return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "No work unit");
  m_pApi = LustreAPI::Current();
  // The scan path tells: a Lustre file system may be mounted inside the unit's volume.
  const std::string strProbe = pWorkUnit->GetScanPaths().empty() ? pWorkUnit->GetLocalVolumeName()
                                                                 : pWorkUnit->GetScanPaths().front()->GetLocalScanPath();
  if (!m_pApi->IsLustre(strProbe, m_strFileSystem, m_strMount)) {
    ZRLOG(1, "%s is not a Lustre file system", Esc(strProbe).c_str());
    return QI_ERROR_WIN32(QiErrorCode::NotSupported, "Not a Lustre volume");
  }
  if (!m_bInitialized) {
    CQiError error = initialize();
    if (error.IsError()) return QI_PUSH(error, "The Lustre scan engine is not initialized");
    m_bInitialized = true;
  }
  m_bDelivering = false;
  CQiError error = ProcessWorkUnitInner(pWorkUnit);
  if (m_pStore) (void)CloseFileSystemScanDB();
  if (GetOutputHandler()) {
    CQiError closeError = CloseOutputHandler();
    if (closeError.IsError()) {
      ZRLOG(-1, "CloseOutputHandler failed, LocalVolumeName=[%s]", Esc(pWorkUnit->GetLocalVolumeName()).c_str());
      if (error.IsSuccess()) error = QI_PUSH(closeError);
    }
  }
  if (error.IsError()) return QI_PUSH(error);
  return CQiError();
}

CQiError CLustreScanEngine::ProcessWorkUnitInner(const CWorkUnitPtr& pWorkUnit) {
  if (!m_pScannerCallback) return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "No scanner callback");
  std::string strBackupType;
  if (m_pScannerCallback->GetParameter(kParamBackupType, strBackupType, true).IsError())
    return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "Unable to get The Backup Type.");
  if (m_pScannerCallback->GetParameter(SXScannerConfigurationBagId::idJobResultsDirectory, m_strJobResults, true)
          .IsError() ||
      m_strJobResults.empty())
    return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "Unable to get SubClient Directory.");
  if (m_pScannerCallback->GetParameter(SXScannerConfigurationBagId::idReferenceTime, m_ullReferenceTime, true)
          .IsError())
    return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "Unable to get ReferenceTime.");
  bool bTrueUp = false;
  ReadParameter(SXScannerConfigurationBagId::idTrueUpQualified, bTrueUp);
  m_bTopLevel = false;
  ReadParameter(SXScannerConfigurationBagId::idProcessTopLevelContent, m_bTopLevel);
  if (m_bTopLevel) ZRLOG(1, "ProcessTopLevelContent is set to true");
  m_strPrefix = FXPath::Append(m_strJobResults, m_strFileSystem);
  m_lstRoots.clear();
  for (const CScanPathPtr& pScanPath : pWorkUnit->GetScanPaths())
    m_lstRoots.push_back(FXPath::RemoveTrailingDelimiters(pScanPath->GetLocalScanPath()));
  if (m_lstRoots.empty()) m_lstRoots.push_back(FXPath::RemoveTrailingDelimiters(pWorkUnit->GetLocalVolumeName()));

  const std::string strRenameList = FXPath::Append(m_strJobResults, kRenameListFile);
  if (unlink(strRenameList.c_str()) != 0 && errno != ENOENT) {
    const CQiError error = QI_ERROR_ERRNO(errno, "unlink");
    ZRLOG(-1, "Cannot delete the File %s due to %s", Esc(strRenameList).c_str(), error.AsString().c_str());
  }

  bool bFull = FXString::EqualsNoCase(strBackupType, "FULL");
  if (!bFull) bFull = !CheckPostOpStateFile();
  if (!bFull && bTrueUp) {
    ZRLOG(-1, "Since the job is Qualified for TrueUp, Changing the scan type to FULL.");
    bFull = true;
  }
  bool bRegistered = false;
  CQiError error = CheckMDTConfigurationWithChangelogReaders(bRegistered);
  if (error.IsError()) {
    ZRLOG(-1, "Cannot create changelogs for this workunit");
    return QI_PUSH(error, "Cannot create changelogs for this workunit");
  }
  if (!bFull && bRegistered) {
    ZRLOG(-1, "The changelog readers were registered by this job: earlier changes are not in their changelogs. "
              "So changing the Scan type to FULL");
    bFull = true;
  }
  if (!bFull) bFull = !CheckChangelogContinuity();
  error = NoteEndOfChangelogReaders();
  if (error.IsError()) {
    ZRLOG(-1, "Cannot note end of changelogs for this workunit");
    return QI_PUSH(error, "Cannot note end of changelogs for this workunit");
  }
  QI_RETURN_IF_ERROR(OpenOutputHandler(pWorkUnit->GetSourceVolumeName()));

  if (!bFull) {
    error = OpenFileSystemScanDB(false);
    if (error.IsSuccess()) error = ProcessWorkUnitNext(pWorkUnit);
    CQiError closeError = CloseFileSystemScanDB();
    if (error.IsSuccess()) error = closeError;
    if (error.IsError()) {
      ZRLOG(-1, "Cannot perform incremental scan on this work unit using changelogs due to %s",
            error.AsString().c_str());
      if (IsFatal(error) || m_bDelivering) return QI_PUSH(error);
      ZRLOG(-1, "The incremental scan cannot be completed from the changelogs. So changing the Scan type to FULL");
      bFull = true;
      // A full job renames nothing: the renames of the batches applied are no list of this job.
      (void)unlink(FXPath::Append(m_strJobResults, kRenameListFile).c_str());
    }
  }
  if (bFull) {
    error = OpenFileSystemScanDB(true);
    if (error.IsSuccess()) error = ProcessWorkUnitFull(pWorkUnit);
    CQiError closeError = CloseFileSystemScanDB();
    if (error.IsSuccess()) error = closeError;
    if (error.IsError()) {
      ZRLOG(-1, "Cannot perform recursive scan on this work unit due to %s", error.AsString().c_str());
      return QI_PUSH(error);
    }
  }
  QI_RETURN_IF_ERROR(WriteText(m_strPrefix + kPostOpSuffix,
                               std::string("ScanType:") + (bFull ? "FULL" : "INCR") + "\nMount:" + m_strMount + "\n"));
  return CQiError();
}

bool CLustreScanEngine::CheckPostOpStateFile() {
  unsigned long long ullLastJob = 0;
  CQiError error = m_pScannerCallback->GetParameter(kParamLastSuccessfulJobId, ullLastJob, true);
  if (error.IsError()) {
    ZRLOG(-1, "Unable to get The Last Successful Backup Job ID due to %s", error.AsString().c_str());
    return false;
  }
  const std::string strFile = FXPath::Append(m_strJobResults, kPostOpStateFile);
  std::ifstream in(strFile);
  unsigned long long ullStateJob = 0;
  if (!(in >> ullStateJob)) {
    ZRLOG(-1, "Cannot read the ZrPostOps State File %s. So changing the Scan type to FULL ", Esc(strFile).c_str());
    return false;
  }
  if (ullStateJob != ullLastJob) {
    ZRLOG(-1, "The Last Successful JobID %llu doesn't match with the ZrPostOps State File %llu. So changing the Scan "
              "type to FULL ",
          ullLastJob, ullStateJob);
    return false;
  }
  ZRLOG(1, "The Last Successful JobID match with the ZrPostOps State File.");
  return true;
}

CQiError CLustreScanEngine::CheckMDTConfigurationWithChangelogReaders(bool& bRegistered) {
  bRegistered = false;
  CQiError error = m_pApi->GetMDTList(m_strMount, m_lstMdt);
  if (error.IsError()) {
    ZRLOG(-1, "Cannot retrieve MDT List from the Lustre MGS. Check whether the Lustre Services are up and running.");
    return QI_PUSH(error, "Cannot retrieve MDT List from the Lustre MGS");
  }
  std::vector<sLustreChangelogInfo> lstReaders;
  error = CLustreReaderFile::Read(ReadersFile(), lstReaders, false);
  if (error.IsErrNo(ENOENT)) {
    bRegistered = true;
    QI_RETURN_IF_ERROR(CreateIfPossibleChangelogReaders());
    return CQiError();
  }
  bool bMatch = error.IsSuccess() && lstReaders.size() == m_lstMdt.size();
  if (error.IsError()) ZRLOG(-1, "Cannot read %s, error=%s", Esc(ReadersFile()).c_str(), error.AsString().c_str());
  for (size_t i = 0; bMatch && i < lstReaders.size(); ++i) {
    const sLustreChangelogInfo& reader = lstReaders[i];
    auto it = std::find_if(m_lstMdt.begin(), m_lstMdt.end(),
                           [&](const LustreAPI::SMdt& mdt) { return mdt.strName == reader.strMDT; });
    if (it == m_lstMdt.end()) {
      bMatch = false;
      break;
    }
    int64_t llStart = 0, llEnd = 0;
    error = m_pApi->GetStartAndEndChangelogRecordNumbers(*it, m_strLustreUser, reader.strChangelogId, llStart, llEnd);
    if (error.IsWin32(QiErrorCode::NotFound)) {
      ZRLOG(-1, "The changelog reader %s is no longer registered on MDT %s (dropped by the MDT)",
            Esc(reader.strChangelogId).c_str(), Esc(reader.strMDT).c_str());
      bMatch = false;
    } else if (error.IsError()) {
      ZRLOG(-1, "Error retrieving the changelog reader start and end record index : [%s]", error.AsString().c_str());
      return QI_PUSH(error);
    }
  }
  if (bMatch) {
    ZRLOG(1, "The Lustre Configuration matches and the changelog readers are all present.");
    return CQiError();
  }
  ZRLOG(-1, "The Lustre Configuration doesn't match with the changelog readers file configuration.");
  QI_RETURN_IF_ERROR(DeRegisterReaders(lstReaders));
  if (unlink(ReadersFile().c_str()) != 0 && errno != ENOENT)
    return QI_ERROR_ERRNO(errno, "Cannot delete the File %s", Esc(ReadersFile()).c_str());
  bRegistered = true;
  QI_RETURN_IF_ERROR(CreateIfPossibleChangelogReaders());
  return CQiError();
}

CQiError CLustreScanEngine::DeRegisterReaders(const std::vector<sLustreChangelogInfo>& lstReaders) {
  for (const sLustreChangelogInfo& reader : lstReaders) {
    const LustreAPI::SMdt mdt{reader.strMDT, reader.strHost};
    CQiError error = m_pApi->DeRegisterChangelog(mdt, m_strLustreUser, reader.strChangelogId);
    if (error.IsWin32(QiErrorCode::NotFound)) continue;  // already gone
    if (error.IsError()) {
      ZRLOG(-1, "Deregister changelog reader failed due to %s", error.AsString().c_str());
      return QI_PUSH(error);
    }
    ZRLOG(1, "DeRegistered changelog %s successfully on MDT %s, Host %s of Lustre Filesystem %s",
          Esc(reader.strChangelogId).c_str(), Esc(reader.strMDT).c_str(), Esc(reader.strHost).c_str(),
          Esc(m_strFileSystem).c_str());
  }
  return CQiError();
}

CQiError CLustreScanEngine::CreateIfPossibleChangelogReaders() {
  std::vector<sLustreChangelogInfo> lstExisting;
  if (CLustreReaderFile::Read(ReadersFile(), lstExisting, false).IsSuccess()) {
    ZRLOG(1, "The Changelog readers are already initialized for this subclient");
    return CQiError();
  }
  if (m_lstMdt.empty()) {
    CQiError error = m_pApi->GetMDTList(m_strMount, m_lstMdt);
    if (error.IsError())
      return QI_PUSH(error, "Cannot get the List of MDT for the Lustre Filesystem %s", Esc(m_strFileSystem).c_str());
  }
  std::vector<sLustreChangelogInfo> lstReaders;
  for (const LustreAPI::SMdt& mdt : m_lstMdt) {
    sLustreChangelogInfo info;
    info.strMDT = mdt.strName;
    info.strHost = mdt.strHost;
    CQiError error = m_pApi->RegisterChangelog(mdt, m_strLustreUser, info.strChangelogId);
    if (error.IsError()) {
      CQiError undoError = DeRegisterReaders(lstReaders);
      std::string strMessage = FXString::Format(
          "Cannot register changelog with the MDT %s. Check whether keyless ssh is enabled between MDT and the Data "
          "Access Node. Changelog Registration failed with Error : %s",
          Esc(mdt.strName).c_str(), error.AsString().c_str());
      if (undoError.IsError())
        strMessage += ". Unable to Deregister already registered changelogs from other MDTs. Please manually delete "
                      "them and proceed.";
      ZRLOG(-1, "%s", strMessage.c_str());
      return QI_PUSH(error, "%s", strMessage.c_str());
    }
    ZRLOG(1, "Registered changelog %s successfully on MDT %s , Host %s of Lustre Filesystem %s",
          Esc(info.strChangelogId).c_str(), Esc(mdt.strName).c_str(), Esc(mdt.strHost).c_str(),
          Esc(m_strFileSystem).c_str());
    lstReaders.push_back(info);
  }
  CQiError error = CLustreReaderFile::Write(ReadersFile(), lstReaders, false);
  if (error.IsError()) {
    (void)DeRegisterReaders(lstReaders);
    return QI_PUSH(error);
  }
  return CQiError();
}

bool CLustreScanEngine::CheckChangelogContinuity() {
  const std::string strFolder = CScanDbFiles::GetKindFolder(m_strPrefix, EScanDbKind::kCurrent);
  if (!CScanDbFiles::Exists(strFolder)) {
    ZRLOG(-1, "No scan database of the last backup in %s. So changing the Scan type to FULL", Esc(strFolder).c_str());
    return false;
  }
  // Each reader, from the record after the one the last backup's database holds.
  std::vector<sLustreChangelogInfo> lstReaders;
  std::vector<std::pair<sLustreChangelogInfo, int64_t>> lstFrom;
  CQiError error = CLustreReaderFile::Read(ReadersFile(), lstReaders, false);
  CScanDbStore store;
  if (error.IsSuccess()) error = store.Open(strFolder);
  for (size_t i = 0; error.IsSuccess() && i < lstReaders.size(); ++i) {
    std::string strIndex;
    long long llDone = 0;
    error = store.GetMetaText(kIndexKeyPrefix + lstReaders[i].strMDT, strIndex);
    if (error.IsSuccess()) error = FXString::ToInt64(strIndex, llDone);
    lstFrom.emplace_back(lstReaders[i], llDone + 1);
  }
  if (error.IsSuccess()) error = CheckRecordsAvailable(lstFrom, "before the job");
  if (error.IsError()) {
    ZRLOG(-1, "Cannot continue from the scan database of the last backup: %s. So changing the Scan type to FULL",
          error.AsString().c_str());
    return false;
  }
  return true;
}

CQiError CLustreScanEngine::NoteEndOfChangelogReaders() {
  std::vector<sLustreChangelogInfo> lstReaders;
  QI_RETURN_IF_ERROR(CLustreReaderFile::Read(ReadersFile(), lstReaders, false));
  for (sLustreChangelogInfo& reader : lstReaders) {
    CQiError error = m_pApi->GetChangelogCurrentIndex({reader.strMDT, reader.strHost}, m_strLustreUser,
                                                      reader.llEndIndex);
    if (error.IsError()) {
      ZRLOG(-1, "Check whether keyless ssh is enabled between MDT and the Data Access Node.Cannot note down the end of "
                "changelog record number for MDT %s on Host %s. Changelog ID %s. Error : %s",
            Esc(reader.strMDT).c_str(), Esc(reader.strHost).c_str(), Esc(reader.strChangelogId).c_str(),
            error.AsString().c_str());
      return QI_PUSH(error, "Cannot note down the end of changelog record number for MDT %s on Host %s , Changelog ID %s",
                     Esc(reader.strMDT).c_str(), Esc(reader.strHost).c_str(), Esc(reader.strChangelogId).c_str());
    }
  }
  QI_RETURN_IF_ERROR(CLustreReaderFile::Write(StatisticsFile(kStatsTmp), lstReaders, true));
  return CQiError();
}

CQiError CLustreScanEngine::ReadEndOfChangelogReaders(const char* szKind, std::vector<sLustreChangelogInfo>& lstInfo) {
  QI_RETURN_IF_ERROR(CLustreReaderFile::Read(StatisticsFile(szKind), lstInfo, true));
  return CQiError();
}

CQiError CLustreScanEngine::OpenFileSystemScanDB(bool bFull) {
  const std::string strFolder = CScanDbFiles::GetKindFolder(m_strPrefix, EScanDbKind::kTemporary);
  CQiError error = CScanDbFiles::Remove(strFolder);
  if (error.IsError()) {
    ZRLOG(-1, "Cannot Remove Database files in %s Directory due to %s", Esc(strFolder).c_str(), error.AsString().c_str());
    ZRLOG(-1, "Remove this Directory %s for backup job to proceed", Esc(strFolder).c_str());
    return QI_PUSH(error);
  }
  if (!bFull) {
    const std::string strFrom = CScanDbFiles::GetKindFolder(m_strPrefix, EScanDbKind::kCurrent);
    error = CScanDbFiles::Copy(strFrom, strFolder);
    if (error.IsError()) {
      ZRLOG(-1, "Cannot copy database files from %s to %s due to %s", Esc(strFrom).c_str(), Esc(strFolder).c_str(),
            error.AsString().c_str());
      return QI_PUSH(error);
    }
  }
  m_pStore = std::make_unique<CScanDbStore>();
  error = m_pStore->Open(strFolder);
  // Changelogs touch the database all over: a larger page cache saves most of the reads.
  if (error.IsSuccess()) error = m_pStore->SetCacheSize(kScanDbCacheMiB);
  if (error.IsSuccess() && bFull) error = m_pStore->SetReferenceTime(m_ullReferenceTime);
  if (error.IsError()) {
    ZRLOG(-1, "Cannot Initialize Database in the Directory : %s due to %s", Esc(strFolder).c_str(),
          error.AsString().c_str());
    m_pStore.reset();
    return QI_PUSH(error);
  }
  ZRLOG(1, "Set Reference Time for ZrScanDB as %llu", m_ullReferenceTime);
  QI_RETURN_IF_ERROR(WriteText(m_strPrefix + "_ScanInfo.zrf",
                               std::string("ScanType\t") + (bFull ? "FULL" : "INCR") + "\nFolder\t" + strFolder + "\n"));
  return CQiError();
}

CQiError CLustreScanEngine::CloseFileSystemScanDB() {
  if (!m_pStore) return CQiError();
  const bool bOpenBulk = m_pStore->IsInBulk();
  CQiError error = m_pStore->Close();
  m_pStore.reset();
  if (bOpenBulk) ZRLOG(-1, "The Database is not closed properly");
  if (error.IsError()) return QI_PUSH(error, "The Database is not closed properly");
  return CQiError();
}

void CLustreScanEngine::SetUpTraversal(CEnumerateFiles& traversal, const CWorkUnitPtr& pWorkUnit) {
  traversal.SetExcludedAttributes(m_uExcludedAttributes);
  traversal.SetWorkUnitBag(pWorkUnit->GetBag());
  traversal.SetScanContent(pWorkUnit->GetScanContent());
  traversal.SetFilters(pWorkUnit->GetFilters());
  traversal.SetSystemFilters(pWorkUnit->GetSystemFilters());
  traversal.SetAbortCheck(m_pScannerCallback.get());
  traversal.SetProcessTopLevelContentItem(m_bTopLevel);
  for (const CScanPathPtr& pScanPath : pWorkUnit->GetScanPaths())
    traversal.AddFolderToList(pScanPath->GetLocalScanPath(), pScanPath->GetSourceScanPath());
  if (pWorkUnit->GetScanPaths().empty())
    traversal.AddFolderToList(pWorkUnit->GetLocalVolumeName(), pWorkUnit->GetSourceVolumeName());
}

CQiError CLustreScanEngine::ProcessWorkUnitFull(const CWorkUnitPtr& pWorkUnit) {
  ZRDEBUG_FUNCTION(2);
  ZRLOG(1, "Lustre File system %s for mount path %s has this as MGS server [%s]", Esc(m_strFileSystem).c_str(),
        Esc(m_strMount).c_str(), m_lstMdt.empty() ? "" : Esc(m_lstMdt.front().strHost).c_str());
  ZRDebugBreak::Hook(kFullSleepHook, [this] { return IsJobAborted(); });
  std::vector<sLustreChangelogInfo> lstEnds;
  QI_RETURN_IF_ERROR(ReadEndOfChangelogReaders(kStatsTmp, lstEnds));
  m_pHardlinks->Clear();
  QI_RETURN_IF_ERROR(m_pStore->BeginBulk());
  CLustreRecursiveEnumerateFiles traversal(this, *m_pStore, *m_pApi, *m_pHardlinks);
  SetUpTraversal(traversal, pWorkUnit);
  int iWorkers = 0;
  ReadParameter(SXScannerConfigurationBagId::idMaxWorkers, iWorkers);
  if (iWorkers > 0) traversal.SetMaxWorkers(iWorkers);
  for (const std::string& strRoot : m_lstRoots) {
    struct stat st {};
    CQiError error = lstat(strRoot.c_str(), &st) == 0 ? traversal.AddRecord(strRoot, st)
                                                      : QI_ERROR_ERRNO(errno, "stat(%s) failed", Esc(strRoot).c_str());
    if (error.IsError()) {
      ZRLOG(-1, "Error in Adding Folder %s", Esc(strRoot).c_str());
      return QI_PUSH(error);
    }
    ZRLOG(5, "Adding Folder %s", Esc(strRoot).c_str());
  }
  m_bDelivering = true;
  QI_RETURN_IF_ERROR(traversal.Traverse());
  // The index up to which this database is complete commits with it.
  for (const sLustreChangelogInfo& info : lstEnds)
    QI_RETURN_IF_ERROR(m_pStore->SetMetaText(kIndexKeyPrefix + info.strMDT, std::to_string(info.llEndIndex)));
  QI_RETURN_IF_ERROR(m_pStore->EndBulk(true));
  ZRLOG(1, "Full scan added %llu records to the scan database", static_cast<unsigned long long>(traversal.GetAddedCount()));
  const std::string strHardlinks = m_strPrefix + "_HardlinkFID";
  CQiError error = m_pHardlinks->SaveData(strHardlinks);
  if (error.IsError()) {
    ZRLOG(-1, "Cannot save Hardlink Information to %s due to %s", Esc(strHardlinks).c_str(), error.AsString().c_str());
    return QI_PUSH(error);
  }
  return CQiError();
}

CQiError CLustreScanEngine::ProcessWorkUnitNext(const CWorkUnitPtr& pWorkUnit) {
  ZRDEBUG_FUNCTION(2);
  const std::string strHardlinks = m_strPrefix + "_HardlinkFID";
  CQiError error = m_pHardlinks->LoadData(strHardlinks);
  if (error.IsError()) {
    ZRLOG(-1, "Cannot load Hardlink data from %s due to %s", Esc(strHardlinks).c_str(), error.AsString().c_str());
    return QI_PUSH(error);
  }
  std::set<std::string> setRescan;
  error = ProcessScanFailures(setRescan);
  if (error.IsError()) {
    ZRLOG(-1, "Error while processing the Scan Failures due to %s", error.AsString().c_str());
    return QI_PUSH(error);
  }
  std::vector<sLustreChangelogInfo> lstPrevious, lstPreviousFull, lstCurrent;
  QI_RETURN_IF_ERROR(ReadEndOfChangelogReaders(kStatsCurrent, lstPrevious),
                     "Cannot read the changelog reader information from previous backup");
  QI_RETURN_IF_ERROR(ReadEndOfChangelogReaders(kStatsTotal, lstPreviousFull),
                     "Cannot read the changelog reader information from previous FULL backup");
  QI_RETURN_IF_ERROR(ReadEndOfChangelogReaders(kStatsTmp, lstCurrent),
                     "Cannot read the changelog reader information from current backup");
  ZRDebugBreak::Hook(kApplySleepHook, [this] { return IsJobAborted(); });
  // Every MDT's records in one stream ordered by time (CLustreChangelogMerger), each MDT from the
  // record after the one the database says it holds. The statistics file says the same unless a
  // job died between its post-operations.
  CLustreChangelogApplier applier(*m_pStore, *m_pApi, m_strMount, m_lstRoots, m_pHardlinks.get());
  const std::string strRenameList = FXPath::Append(m_strJobResults, kRenameListFile);
  std::unique_ptr<FILE, int (*)(FILE*)> pRenameList(fopen(strRenameList.c_str(), "we"), fclose);
  if (!pRenameList) return QI_ERROR_ERRNO(errno, "Cannot create %s", Esc(strRenameList).c_str());
  applier.SetRenameList(pRenameList.get());
  CLustreChangelogMerger merger(*m_pStore, *m_pApi, applier, m_strMount,
                                FXPath::Append(m_strJobResults, kChangelogFolder), m_llBatchSize,
                                m_pScannerCallback.get());
  std::vector<std::pair<sLustreChangelogInfo, int64_t>> lstFrom;  // each reader, the first record needed
  for (const sLustreChangelogInfo& info : lstCurrent) {
    std::string strIndex;
    long long llDone = 0;
    QI_RETURN_IF_ERROR(m_pStore->GetMetaText(kIndexKeyPrefix + info.strMDT, strIndex));
    QI_RETURN_IF_ERROR(FXString::ToInt64(strIndex, llDone));
    merger.AddMdt(info.strMDT, llDone, info.llEndIndex);
    lstFrom.emplace_back(info, llDone + 1);
  }
  QI_RETURN_IF_ERROR(merger.Run());
  QI_RETURN_IF_ERROR(CheckRecordsAvailable(lstFrom, "during the job"));
  if (fclose(pRenameList.release()) != 0) return QI_ERROR_ERRNO(errno, "Cannot write %s", Esc(strRenameList).c_str());
  error = m_pHardlinks->ProcessHardLinks(*m_pStore, *m_pApi, m_strMount, m_lstRoots);
  if (error.IsError()) {
    ZRLOG(-1, "Processing Hardlinks for Lustre Filesystem %s Failed", Esc(m_strFileSystem).c_str());
    return QI_PUSH(error);
  }
  QI_RETURN_IF_ERROR(EnumerateChanges(pWorkUnit, setRescan));
  error = m_pHardlinks->SaveData(strHardlinks);
  if (error.IsError()) {
    ZRLOG(-1, "Cannot save Hardlink Information to %s due to %s", Esc(strHardlinks).c_str(), error.AsString().c_str());
    return QI_PUSH(error);
  }
  LustreChangelogCleanup();
  return CQiError();
}

CQiError CLustreScanEngine::ProcessScanFailures(std::set<std::string>& setRescan) {
  ZRDebugBreak::Hook(kFailuresSleepHook, [this] { return IsJobAborted(); });
  const std::string strFile = FXPath::Append(m_strJobResults, kScanFailuresFile);
  std::ifstream in(strFile, std::ios::binary);
  if (!in.is_open()) return CQiError();  // no failures last time
  CLustreChangelogApplier adder(*m_pStore, *m_pApi, m_strMount, m_lstRoots, m_pHardlinks.get());
  for (std::string strLine; std::getline(in, strLine);) {
    // "file PATH:CODE" or "folder PATH:CODE"
    const size_t blank = strLine.find(' '), colon = strLine.rfind(':');
    if (blank == std::string::npos || colon == std::string::npos || colon <= blank + 1) {
      ZRLOG(-1, "Invalid line [%s] in %s", Esc(strLine).c_str(), Esc(strFile).c_str());
      continue;
    }
    const bool bFolder = strLine.compare(0, blank, "folder") == 0;
    const std::string strPath = strLine.substr(blank + 1, colon - blank - 1);
    bool bInside = false;
    for (const std::string& strRoot : m_lstRoots) bInside = bInside || FXPath::IsAncestorOf(strRoot, strPath, true);
    if (!bInside) continue;
    ZRLOG(1, bFolder ? "Processing %s failed folder from previous backup" : "Processing %s failed file from previous backup",
          Esc(strPath).c_str());
    struct stat st {};
    if (lstat(strPath.c_str(), &st) != 0) {
      const CQiError error = QI_ERROR_ERRNO(errno, "stat");
      ZRLOG(1, "stat(%s) failed due to %s", Esc(strPath).c_str(), error.AsString().c_str());
      continue;  // gone: nothing to scan again
    }
    CQiError error = adder.AddSubtree(strPath);
    if (error.IsError()) {
      ZRLOG(-1, bFolder ? "Error in Adding Folder %s due to %s" : "Error in Adding File %s due to %s",
            Esc(strPath).c_str(), error.AsString().c_str());
      return QI_PUSH(error);
    }
    ZRLOG(5, bFolder ? "Adding Folder %s" : "Adding File %s", Esc(strPath).c_str());
    setRescan.insert(strPath);
  }
  return CQiError();
}

CQiError CLustreScanEngine::EnumerateChanges(const CWorkUnitPtr& pWorkUnit, const std::set<std::string>& setRescan) {
  CScanDbStore previous;
  QI_RETURN_IF_ERROR(previous.Open(CScanDbFiles::GetKindFolder(m_strPrefix, EScanDbKind::kCurrent)));
  auto pEnumerator = std::make_shared<CLustreScanDBPathEnumerator>(*m_pStore, previous, this, setRescan);
  m_bDelivering = true;
  // The content roots themselves, when they changed.
  for (const std::string& strRoot : m_lstRoots) {
    CScanDbRecord now, before;
    if (m_pStore->Lookup(strRoot, now).IsError()) continue;
    const bool bBefore = previous.Lookup(strRoot, before).IsSuccess();
    if (!m_bTopLevel || !pEnumerator->IsChanged(now, bBefore ? &before : nullptr)) continue;
    CItemPtr pItem;
    if (pEnumerator->GetItemByPath(pWorkUnit->GetBag(), strRoot, strRoot, pItem).IsSuccess() && pItem)
      QI_RETURN_IF_ERROR(ScanQueryCallback(pItem));
  }
  CLustreScanDBEnumerateFiles traversal(this, pEnumerator);
  traversal.SetMaxWorkers(1);
  SetUpTraversal(traversal, pWorkUnit);
  traversal.SetProcessTopLevelContentItem(false);
  // The records the enumeration refreshes or drops commit once, not one transaction each.
  QI_RETURN_IF_ERROR(m_pStore->BeginBulk());
  CQiError error = traversal.Traverse();
  CQiError endError = m_pStore->EndBulk(error.IsSuccess());
  if (error.IsSuccess()) error = endError;
  QI_RETURN_IF_ERROR(error);
  ZRLOG(1, "%llu entries were deleted since the last backup",
        static_cast<unsigned long long>(pEnumerator->GetDeletedCount()));
  return CQiError();
}

CQiError CLustreScanEngine::CheckRecordsAvailable(const std::vector<std::pair<sLustreChangelogInfo, int64_t>>& lstFrom,
                                                  const char* szWhen) {
  // An MDT purges only what every reader cleared, and the first record it keeps only rises: a
  // reader still there whose first record is not beyond the first one needed proves that every
  // record needed was there until now.
  for (const auto& [info, llFirstNeeded] : lstFrom) {
    int64_t llStart = 0, llEnd = 0;
    CQiError error = m_pApi->GetStartAndEndChangelogRecordNumbers({info.strMDT, info.strHost}, m_strLustreUser,
                                                                  info.strChangelogId, llStart, llEnd);
    if (error.IsWin32(QiErrorCode::NotFound))
      return QI_ERROR_WIN32(QiErrorCode::InvalidData, "The changelog reader %s is no longer registered on MDT %s (dropped %s)",
                            Esc(info.strChangelogId).c_str(), Esc(info.strMDT).c_str(), szWhen);
    QI_RETURN_IF_ERROR(error, "Error retrieving the changelog reader start and end record index : [%s]",
                       error.AsString().c_str());
    if (llStart > llFirstNeeded)
      return QI_ERROR_WIN32(QiErrorCode::InvalidData,
                            "Changelog records %lld to %lld of MDT %s are no longer available (the first record of "
                            "reader %s is %lld)",
                            static_cast<long long>(llFirstNeeded), static_cast<long long>(llStart - 1),
                            Esc(info.strMDT).c_str(), Esc(info.strChangelogId).c_str(), static_cast<long long>(llStart));
  }
  return CQiError();
}

void CLustreScanEngine::LustreChangelogCleanup() {
  if (access(kKeepChangelogsMarker, F_OK) == 0) return;
  const std::string strFolder = FXPath::Append(m_strJobResults, kChangelogFolder);
  std::error_code ec;
  std::filesystem::remove_all(strFolder, ec);
  if (ec) ZRLOG(-1, "Cannot remove the changelog folder %s", Esc(strFolder).c_str());
}

CQiError CLustreScanEngine::RunPostOperations(const std::string& strJobResults, unsigned long long ullJobId) {
  std::vector<std::string> lstPending;
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator(strJobResults, ec)) {
    const std::string strName = entry.path().filename().string();
    if (FXString::EndsWith(strName, kPostOpSuffix)) lstPending.push_back(entry.path().string());
  }
  if (ec) return QI_ERROR_ERRNO(ec.value(), "Cannot list %s", Esc(strJobResults).c_str());
  for (const std::string& strPending : lstPending) {
    const std::string strPrefix = strPending.substr(0, strPending.size() - strlen(kPostOpSuffix));
    std::ifstream in(strPending);
    std::string strType, strMount;
    std::getline(in, strType);
    std::getline(in, strMount);
    strMount = strMount.substr(std::min(strMount.size(), size_t(6)));  // after "Mount:"
    const std::string strTemp = CScanDbFiles::GetKindFolder(strPrefix, EScanDbKind::kTemporary);
    if (strType == "ScanType:FULL") {
      QI_RETURN_IF_ERROR(CScanDbFiles::Copy(strTemp, CScanDbFiles::GetKindFolder(strPrefix, EScanDbKind::kFull)));
      std::filesystem::copy_file(StatisticsFileOf(strPrefix, kStatsTmp), StatisticsFileOf(strPrefix, kStatsTotal),
                                 std::filesystem::copy_options::overwrite_existing, ec);
      if (ec) return QI_ERROR_ERRNO(ec.value(), "Cannot copy %s", Esc(StatisticsFileOf(strPrefix, kStatsTmp)).c_str());
    }
    QI_RETURN_IF_ERROR(CScanDbFiles::Replace(strTemp, CScanDbFiles::GetKindFolder(strPrefix, EScanDbKind::kCurrent)));
    if (rename(StatisticsFileOf(strPrefix, kStatsTmp).c_str(), StatisticsFileOf(strPrefix, kStatsCurrent).c_str()) != 0)
      return QI_ERROR_ERRNO(errno, "Cannot rotate %s", Esc(StatisticsFileOf(strPrefix, kStatsTmp)).c_str());
    // The MDTs may now purge what the current database covers.
    std::vector<sLustreChangelogInfo> lstEnds;
    if (CLustreReaderFile::Read(StatisticsFileOf(strPrefix, kStatsCurrent), lstEnds, true).IsSuccess()) {
      for (const sLustreChangelogInfo& info : lstEnds) {
        CQiError error = LustreAPI::Current()->ClearChangelog(strMount, info.strMDT, info.strChangelogId, info.llEndIndex);
        if (error.IsError())
          ZRLOG(-1, "Cannot clear the changelog of MDT %s up to %lld, error=%s", Esc(info.strMDT).c_str(),
                static_cast<long long>(info.llEndIndex), error.AsString().c_str());
      }
    }
    (void)unlink(strPending.c_str());
  }
  QI_RETURN_IF_ERROR(WriteText(FXPath::Append(strJobResults, kPostOpStateFile), std::to_string(ullJobId) + "\n"));
  return CQiError();
}
