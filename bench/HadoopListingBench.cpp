// Hadoop listing over WebHDFS: 1,000,000 entries (1,000 folders of 1,000 files, batches of 1,000
// entries) served by the local WebHDFS server on 127.0.0.1, listed
//   - Client: by CWebHdfsFS::ListDirectory, folder after folder (HTTP, JSON, entry records);
//   - Engine: by CHadoopScanEngine over the whole tree (the client, the Hadoop path enumerator,
//     items, the traversal with its filters and an output handler that counts), as a backup
//     job scans a Hadoop file system.
// The server answers every folder with the same prepared page, so that it costs next to nothing
// and the numbers are the client's. Counters: entries per second (wall clock: the server is
// another thread, and the time waited for it belongs to the listing) and connections opened.
#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdio>
#include <memory>
#include <string>

#include "Platform/WebHdfsFS.h"
#include "Scan/OutputHandler.h"
#include "Scan/ScannerCallback.h"
#include "Scan/Unix/HadoopScanEngine.h"
#include "Scan/WorkUnit.h"
#include "Support/WebHdfsServer.h"

namespace {
constexpr int kFolders = 1000;
constexpr int kFilesPerFolder = 1000;

std::string FolderName(int i) {
  char szName[32];
  snprintf(szName, sizeof(szName), "d%04d", i);
  return szName;
}

// /bench lists kFolders folders; every folder below it lists the same kFilesPerFolder files.
CWebHdfsServer& Server() {
  static CWebHdfsServer* s_pServer = [] {
    auto* pServer = new CWebHdfsServer(kFilesPerFolder);
    pServer->AddFolder("/bench");
    std::string strFolders, strFiles;
    for (int i = 0; i < kFolders; ++i)
      strFolders += (i == 0 ? "" : ",") + CWebHdfsServer::StatusJson(FolderName(i), "DIRECTORY", 0, 1000 + i, false);
    for (int i = 0; i < kFilesPerFolder; ++i) {
      char szName[32];
      snprintf(szName, sizeof(szName), "file-%06d.dat", i);
      strFiles += (i == 0 ? "" : ",") + CWebHdfsServer::StatusJson(szName, "FILE", 4096 + i, 20000 + i, false);
    }
    pServer->SetLister([strFolders, strFiles](const std::string& strFolder, const std::string&, std::string& strEntries) {
      strEntries = strFolder == "/bench" ? strFolders : strFiles;
      return 0L;
    });
    return pServer;
  }();
  return *s_pServer;
}

SWebHdfsConfig Config() {
  SWebHdfsConfig config;
  config.iPort = Server().Port();
  config.strUser = "bench";
  return config;
}

void BM_Client(benchmark::State& state) {
  uint64_t ullEntries = 0, ullConnections = 0;
  for (auto _ : state) {
    CWebHdfsFS client(Config());
    CHadoopFileInfoArray arrEntries;
    int iCount = 0;
    for (int i = 0; i < kFolders; ++i) {
      if (client.ListDirectory("/bench/" + FolderName(i), arrEntries, iCount).IsError()) state.SkipWithError("listing failed");
      ullEntries += static_cast<uint64_t>(iCount);
    }
    ullConnections += client.GetConnectionCount();
  }
  state.counters["entries"] = static_cast<double>(ullEntries) / static_cast<double>(state.iterations());
  state.counters["entries_per_second"] = benchmark::Counter(static_cast<double>(ullEntries), benchmark::Counter::kIsRate);
  state.counters["connections"] = static_cast<double>(ullConnections) / static_cast<double>(state.iterations());
}

class CCountingHandler : public COutputHandler {
 public:
  CQiError OnItem(CItemPtr /*pItem*/) override {
    ++m_ullItems;
    return CQiError();
  }
  std::atomic<uint64_t> m_ullItems{0};
};

class CBenchCallback : public CScannerCallback {
 public:
  CQiError GetOutputHandler(const std::string&, COutputHandlerPtr& pHandler) override {
    pHandler = m_pHandler;
    return CQiError();
  }
  std::shared_ptr<CCountingHandler> m_pHandler = std::make_shared<CCountingHandler>();
};

void BM_Engine(benchmark::State& state) {
  uint64_t ullEntries = 0, ullConnections = 0;
  for (auto _ : state) {
    auto pClient = std::make_shared<CWebHdfsFS>(Config());
    auto pCallback = std::make_shared<CBenchCallback>();
    CHadoopScanEngine engine(pClient);
    (void)engine.SetScannerCallback(pCallback);
    auto pUnit = std::make_shared<CWorkUnit>();
    pUnit->SetLocalVolumeName("quillon_hadoop_vol");
    pUnit->SetSourceVolumeName("quillon_hadoop_vol");
    pUnit->AddScanPath(std::make_shared<CScanPath>("/bench", "/bench"));
    if (pUnit->AddScanContentItem("/bench").IsError() || engine.ProcessWorkUnit(pUnit).IsError())
      state.SkipWithError("scan failed");
    ullEntries += pCallback->m_pHandler->m_ullItems;
    ullConnections += pClient->GetConnectionCount();
  }
  state.counters["entries"] = static_cast<double>(ullEntries) / static_cast<double>(state.iterations());
  state.counters["entries_per_second"] = benchmark::Counter(static_cast<double>(ullEntries), benchmark::Counter::kIsRate);
  state.counters["connections"] = static_cast<double>(ullConnections) / static_cast<double>(state.iterations());
}
}  // namespace

BENCHMARK(BM_Client)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);
BENCHMARK(BM_Engine)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);
BENCHMARK_MAIN();
