#include "Scan/Unix/LustreChangelogMerger.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <functional>

#include "Platform/FXErrorUtil.h"
#include "Platform/FXPath.h"
#include "Platform/FXString.h"
#include "Platform/LogWriterInterface.h"
#include "Scan/Unix/LustreScanEngine.h"

namespace {
std::string Esc(const std::string& strText) { return FXString::EscapeControl(strText); }

// The heap's order: the smallest time first, then the first MDT.
using THeapEntry = std::pair<int64_t, size_t>;
constexpr std::greater<THeapEntry> kLater;

CQiError MakeFolder(const std::string& strFolder) {
  if (mkdir(strFolder.c_str(), 0700) == 0 || errno == EEXIST) return CQiError();
  return QI_ERROR_ERRNO(errno, "Cannot create a Temporary folder %s for keeping the changelog records",
                        Esc(strFolder).c_str());
}
}  // namespace

CLustreChangelogMerger::CLustreChangelogMerger(CScanDbStore& store, LustreAPI& api, CLustreChangelogApplier& applier,
                                               std::string strMount, std::string strFolder, int64_t llBatchSize,
                                               const CAbortOperationCheck* pAbort)
    : m_store(store), m_api(api), m_applier(applier), m_strMount(std::move(strMount)),
      m_strFolder(std::move(strFolder)), m_llBatchSize(std::max<int64_t>(1, llBatchSize)), m_pAbort(pAbort) {}

void CLustreChangelogMerger::AddMdt(const std::string& strMDT, int64_t llDone, int64_t llEnd) {
  auto pStream = std::make_unique<SStream>();
  pStream->strMDT = strMDT;
  pStream->llDone = llDone;
  pStream->llFetched = llDone;
  pStream->llEnd = llEnd;
  m_lstStreams.push_back(std::move(pStream));
}

void CLustreChangelogMerger::Enter(size_t uStream) {
  m_heap.emplace_back(m_lstStreams[uStream]->head.m_llTime, uStream);
  std::push_heap(m_heap.begin(), m_heap.end(), kLater);
}

CQiError CLustreChangelogMerger::Fail(CQiError error) {
  if (m_bInTransaction) (void)m_store.EndBulk(false);
  m_bInTransaction = false;
  return error;
}

CQiError CLustreChangelogMerger::Fetch(SStream& stream) {
  const int64_t llFrom = stream.llFetched + 1, llTo = std::min(stream.llEnd, stream.llFetched + m_llBatchSize);
  // The MDT's name becomes a folder name: it must be one path component.
  const std::string strFolder = FXPath::Append(m_strFolder, stream.strMDT);
  if (stream.strMDT.empty() || stream.strMDT == "." || stream.strMDT == ".." ||
      stream.strMDT.find('/') != std::string::npos)
    return QI_ERROR_WIN32(QiErrorCode::InvalidData,
                          "Cannot create a Temporary folder %s for keeping the changelog records", Esc(strFolder).c_str());
  QI_RETURN_IF_ERROR(MakeFolder(m_strFolder));
  QI_RETURN_IF_ERROR(MakeFolder(strFolder));
  ZRLOG(1, "Getting changelogs from MDT %s from %lld to %lld", Esc(stream.strMDT).c_str(),
        static_cast<long long>(llFrom), static_cast<long long>(llTo));
  const std::string strFile = FXPath::Append(
      strFolder, FXString::Format("Changelog_%lld_to_%lld", static_cast<long long>(llFrom), static_cast<long long>(llTo)));
  QI_RETURN_IF_ERROR(m_api.GetChangelogs(m_strMount, stream.strMDT, llFrom, llTo, strFile),
                     "Cannot obtain changelogs from MDT %s from %lld to %lld", Esc(stream.strMDT).c_str(),
                     static_cast<long long>(llFrom), static_cast<long long>(llTo));
  stream.llFetched = llTo;
  stream.bBatchDone = false;
  QI_RETURN_IF_ERROR(stream.reader.Open(strFile, llFrom, llTo));
  return Advance(stream);
}

CQiError CLustreChangelogMerger::Advance(SStream& stream) {
  bool bEnd = false;
  stream.bHead = false;
  CQiError error = stream.reader.Next(stream.head, bEnd);
  if (error.IsError()) {
    ++m_counts.ullFailed;
    ZRLOG(-1, "Changelog of MDT %s not applied, error=%s", Esc(stream.strMDT).c_str(), error.AsString().c_str());
    return QI_PUSH(error);
  }
  if (!bEnd) {
    ++m_counts.ullRecords;
    stream.bHead = true;
    return CQiError();
  }
  // Every record of the batch is applied: its end is done, whatever indexes it lacked.
  ZRLOG(1, "MDT %s records %lld to %lld: %llu read", Esc(stream.strMDT).c_str(),
        static_cast<long long>(stream.reader.GetFirst()), static_cast<long long>(stream.reader.GetLast()),
        static_cast<unsigned long long>(stream.reader.GetLinesRead()));
  stream.llDone = stream.llFetched;
  stream.bBatchDone = true;
  m_lstUsedFiles.push_back(stream.reader.GetFile());
  return CQiError();
}

CQiError CLustreChangelogMerger::Commit() {
  QI_RETURN_IF_ERROR(m_applier.Flush(m_counts));
  // Every MDT's index goes with the records: the database says exactly what it holds.
  for (const auto& pStream : m_lstStreams)
    QI_RETURN_IF_ERROR(m_store.SetMetaText(CLustreScanEngine::kIndexKeyPrefix + pStream->strMDT,
                                           std::to_string(pStream->llDone)));
  m_bInTransaction = false;
  QI_RETURN_IF_ERROR(m_store.EndBulk(true));
  ZRLOG(1, "Changelog records committed: %llu read, %llu applied, %llu changing nothing",
        static_cast<unsigned long long>(m_counts.ullRecords), static_cast<unsigned long long>(m_counts.ullApplied),
        static_cast<unsigned long long>(m_counts.ullIgnored));
  m_totals.ullRecords += m_counts.ullRecords;
  m_totals.ullApplied += m_counts.ullApplied;
  m_totals.ullIgnored += m_counts.ullIgnored;
  m_counts = CLustreChangelogApplier::SCounts();
  if (access(CLustreScanEngine::kKeepChangelogsMarker, F_OK) != 0)
    for (const std::string& strFile : m_lstUsedFiles) (void)unlink(strFile.c_str());
  m_lstUsedFiles.clear();
  return CQiError();
}

CQiError CLustreChangelogMerger::Run() {
  for (size_t i = 0; i < m_lstStreams.size(); ++i) {
    SStream& stream = *m_lstStreams[i];
    ZRLOG(1, "For this Backup we need to collect changelog records from %s to %s",
          std::to_string(stream.llDone + 1).c_str(), std::to_string(stream.llEnd).c_str());
    if (stream.llDone >= stream.llEnd) continue;
    if (m_pAbort != nullptr && m_pAbort->IsAborted())
      return QI_ERROR_WIN32(QiErrorCode::OperationAborted, "Operation aborted");
    QI_RETURN_IF_ERROR(Fetch(stream), "Cannot Process Changelogs");
    if (stream.bHead) Enter(i);
  }
  QI_RETURN_IF_ERROR(m_store.BeginBulk());
  m_bInTransaction = true;
  int64_t llInTransaction = 0;
  for (;;) {
    const bool bBatchDone = std::any_of(m_lstStreams.begin(), m_lstStreams.end(),
                                        [](const auto& pStream) { return pStream->bBatchDone; });
    if (bBatchDone || llInTransaction >= m_llBatchSize) {
      CQiError error = Commit();
      if (error.IsError()) return Fail(QI_PUSH(error, "Cannot Process Changelogs"));
      if (m_pAbort != nullptr && m_pAbort->IsAborted())
        return QI_ERROR_WIN32(QiErrorCode::OperationAborted, "Operation aborted");
      // The MDTs whose batch is used up go on with their next batch.
      for (size_t i = 0; i < m_lstStreams.size(); ++i) {
        SStream& stream = *m_lstStreams[i];
        if (!stream.bBatchDone) continue;
        stream.bBatchDone = false;
        if (stream.llDone >= stream.llEnd) continue;
        QI_RETURN_IF_ERROR(Fetch(stream), "Cannot Process Changelogs");
        if (stream.bHead) Enter(i);
      }
      QI_RETURN_IF_ERROR(m_store.BeginBulk());
      m_bInTransaction = true;
      llInTransaction = 0;
      continue;
    }
    if (m_heap.empty()) break;
    std::pop_heap(m_heap.begin(), m_heap.end(), kLater);
    const size_t uStream = m_heap.back().second;
    m_heap.pop_back();
    SStream& stream = *m_lstStreams[uStream];
    CQiError error = m_applier.Apply(stream.head, m_counts);
    if (error.IsError()) {
      ++m_counts.ullFailed;
      return Fail(QI_PUSH(error, "Cannot Process Changelogs"));
    }
    stream.llDone = stream.head.m_llIndex;
    ++llInTransaction;
    error = Advance(stream);
    if (error.IsError()) return Fail(QI_PUSH(error, "Cannot Process Changelogs"));
    if (stream.bHead) Enter(uStream);
  }
  CQiError error = Commit();
  if (error.IsError()) return Fail(QI_PUSH(error, "Cannot Process Changelogs"));
  return CQiError();
}
