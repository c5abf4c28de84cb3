// fsscan: scans folder trees with the scan library and lists what it finds.
//
//   fsscan [options] PATH...
//
// Each PATH is content of the scan (a folder, or a single file, which is then reported alone);
// relative paths are taken from the working directory and reported as absolute paths. Every
// object below a content folder is reported once: symbolic links are reported, never followed;
// nested mount points are left out. The content folder itself is reported only with --top-level
// (`find PATH -mindepth 1` lists the same objects as fsscan, `find PATH` those of --top-level).
//
// Output (stdout, or -o FILE): one line per object "<type> <mode> <size> <mtime> <path>" (see
// ItemLineOutputHandler.h), or with --print0 the raw paths each ended by a NUL byte, exactly as
// `find -print0` writes them. Objects that could not be scanned go to the failures file
// (--failures FILE, the library's format "file|folder <path>:<error>") or, without one, to stderr
// as "fsscan: cannot scan '<path>' (error <code>)". A summary goes to stderr at the end, and a
// live progress line while scanning when stderr is a terminal.
//
// Exit status: 0 when everything was scanned; 1 when some content failed (a failure was
// recorded, or a work unit did not complete; a PATH that does not exist is content that failed
// and is recorded as a failure); 2 on a usage or set-up error (unknown option, bad number, an
// output, failures or log file that cannot be opened, items that cannot be written); 130 when
// interrupted (SIGINT/SIGTERM abort the scan).
//
// --workers 1 (the default) runs the scanner facade (CBasicScanner: the FindFirst engine, one
// traversal worker per physical medium). --workers N > 1 runs the fast FindFirst engine with N
// traversal workers per medium through CFastScanDriver, since the facade cannot.
#include <getopt.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "FailureReportConsumer.h"
#include "FastScanDriver.h"
#include "FsscanCallback.h"
#include "ItemLineOutputHandler.h"
#include "Platform/FXString.h"
#include "Platform/FileLogWriter.h"
#include "Scan/BasicScanner.h"
#include "Scan/ScannerConfigurationBagId.h"
#include "ProgressLine.h"

namespace {

constexpr int kExitSuccess = 0;
constexpr int kExitContentFailed = 1;
constexpr int kExitUsage = 2;
constexpr int kExitInterrupted = 130;
constexpr const char* kInstanceName = "fsscan";
// The callback parameter that lets the fast engine accept work.
constexpr const char* kEnableFolderLevelMultithread = "EnableFolderLevelMultithread";

using ItemSet = std::set<std::string, __less_fscase_cmp>;

struct SOptions {
  std::string strOutput;
  std::string strFailures;
  std::string strLog;
  bool bLog = false;
  int iLogLevel = 1;
  int iWorkers = 1;
  bool bPrint0 = false;
  bool bTopLevel = false;
  ItemSet setExcludes;
  ItemSet setExceptions;
  ItemSet setContentExceptions;
  std::vector<std::string> lstPaths;
};

const char kUsage[] =
    "Usage: fsscan [options] PATH...\n"
    "Scans the folder trees below each PATH and lists every object found.\n"
    "\n"
    "  -o, --output FILE            write the item list to FILE (default: stdout)\n"
    "  -0, --print0                 list only the paths, each ended by a NUL byte (as find -print0)\n"
    "      --top-level              also report each content PATH itself\n"
    "  -f, --failures FILE          write objects that could not be scanned to FILE\n"
    "                               (default: one message each on stderr)\n"
    "  -x, --exclude PATTERN        leave out objects matching PATTERN (filter item)\n"
    "  -e, --exception PATTERN      keep objects matching PATTERN although excluded\n"
    "  -c, --content-exception PATH leave PATH out of the content\n"
    "  -w, --workers N              traversal workers per physical medium (default 1)\n"
    "  -l, --log FILE               write the library's log to FILE ('-' for stderr)\n"
    "  -L, --log-level N            log level, -1 to 7 (default 1; alone: log to stderr)\n"
    "  -h, --help                   show this help\n"
    "\n"
    "Output line: <type f|d|l|p|s|c|b|U> <mode octal> <size> <mtime s.ns> <path, control bytes escaped>\n"
    "Exit status: 0 all scanned, 1 some content failed, 2 usage or set-up error, 130 interrupted.\n";

bool ParseInt(const char* szText, int iMin, int iMax, int& iValue) {
  long long llValue = 0;
  if (FXString::ToInt64(szText, llValue).IsError() || llValue < iMin || llValue > iMax) return false;
  iValue = static_cast<int>(llValue);
  return true;
}

// 0 to go on, kExitUsage on a usage error, -1 when the help was printed.
int ParseOptions(int argc, char** argv, SOptions& options) {
  enum { kOptTopLevel = 256 };
  static const struct option kLongOptions[] = {
      {"output", required_argument, nullptr, 'o'},   {"print0", no_argument, nullptr, '0'},
      {"top-level", no_argument, nullptr, kOptTopLevel}, {"failures", required_argument, nullptr, 'f'},
      {"exclude", required_argument, nullptr, 'x'},  {"exception", required_argument, nullptr, 'e'},
      {"content-exception", required_argument, nullptr, 'c'}, {"workers", required_argument, nullptr, 'w'},
      {"log", required_argument, nullptr, 'l'},      {"log-level", required_argument, nullptr, 'L'},
      {"help", no_argument, nullptr, 'h'},           {nullptr, 0, nullptr, 0}};
  int iOption;
  while ((iOption = getopt_long(argc, argv, "o:0f:x:e:c:w:l:L:h", kLongOptions, nullptr)) != -1) {
    switch (iOption) {
      case 'o': options.strOutput = optarg; break;
      case '0': options.bPrint0 = true; break;
      case kOptTopLevel: options.bTopLevel = true; break;
      case 'f': options.strFailures = optarg; break;
      case 'x': options.setExcludes.insert(optarg); break;
      case 'e': options.setExceptions.insert(optarg); break;
      case 'c': options.setContentExceptions.insert(optarg); break;
      case 'w':
        if (!ParseInt(optarg, 1, 1024, options.iWorkers)) {
          fprintf(stderr, "fsscan: --workers wants a number from 1 to 1024, not '%s'\n", optarg);
          return kExitUsage;
        }
        break;
      case 'l': options.strLog = optarg; options.bLog = true; break;
      case 'L':
        if (!ParseInt(optarg, -1, 7, options.iLogLevel)) {
          fprintf(stderr, "fsscan: --log-level wants a number from -1 to 7, not '%s'\n", optarg);
          return kExitUsage;
        }
        options.bLog = true;
        break;
      case 'h': fputs(kUsage, stdout); return -1;
      default: fputs("Try 'fsscan --help' for more information.\n", stderr); return kExitUsage;
    }
  }
  for (int i = optind; i < argc; ++i) options.lstPaths.emplace_back(argv[i]);
  if (options.lstPaths.empty()) {
    fputs("fsscan: no PATH given\nTry 'fsscan --help' for more information.\n", stderr);
    return kExitUsage;
  }
  return 0;
}

std::string MakeAbsolute(const std::string& strPath) {
  if (strPath.empty() || strPath[0] == '/') return strPath;
  std::unique_ptr<char, decltype(&free)> pCwd(getcwd(nullptr, 0), &free);
  if (!pCwd) return strPath;  // the library refuses the relative path and it is recorded as failed
  std::string strCwd = pCwd.get();
  if (strCwd.empty() || strCwd.back() != '/') strCwd.push_back('/');
  return strCwd + strPath;
}

void OnSignal(int) { CFsscanCallback::RequestInterrupt(); }

void InstallSignalHandlers() {
  struct sigaction action {};
  action.sa_handler = OnSignal;
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

struct SFileCloser {
  void operator()(FILE* pFile) const {
    if (pFile != nullptr && pFile != stdout) fclose(pFile);
  }
};

// Checks every work unit; prints those that did not complete and returns their number.
size_t ReportUnfinishedUnits(const CWorkUnitManager& manager, CProgressLine& progress) {
  size_t nFailed = 0;
  for (const auto& [strKey, pWorkUnit] : manager.GetWorkUnitMap()) {
    if (!pWorkUnit || pWorkUnit->IsSuccessfullyProcessed()) continue;
    ++nFailed;
    progress.PrintMessage(FXString::Format("fsscan: content on %s not fully scanned: %s",
                                           FXString::EscapeControl(pWorkUnit->GetLocalVolumeName()).c_str(),
                                           pWorkUnit->DispositionAsString().c_str()));
  }
  return nFailed;
}

}  // namespace

int main(int argc, char** argv) {
  SOptions options;
  const int iParse = ParseOptions(argc, argv, options);
  if (iParse < 0) return kExitSuccess;
  if (iParse != 0) return iParse;
  InstallSignalHandlers();

  if (options.bLog) {
    auto pLogWriter = std::make_shared<CFileLogWriter>(options.iLogLevel);
    const std::string strLogPath = options.strLog == "-" ? std::string() : options.strLog;
    CQiError error = pLogWriter->Open(strLogPath);
    if (error.IsError()) {
      fprintf(stderr, "fsscan: cannot open the log file '%s': %s\n", options.strLog.c_str(),
              error.CodeAsString().c_str());
      return kExitUsage;
    }
    CLogWriterInterface::SetProcessLogWriter(pLogWriter);
  }

  std::unique_ptr<FILE, SFileCloser> pOutput(stdout);
  if (!options.strOutput.empty() && options.strOutput != "-") {
    pOutput.reset(fopen(options.strOutput.c_str(), "w"));
    if (!pOutput) {
      fprintf(stderr, "fsscan: cannot open the output file '%s': %m\n", options.strOutput.c_str());
      return kExitUsage;
    }
  }
  static char s_szOutputBuffer[1 << 20];
  setvbuf(pOutput.get(), s_szOutputBuffer, _IOFBF, sizeof(s_szOutputBuffer));

  CScanFailureConsumerPtr pFailuresFile;
  if (!options.strFailures.empty()) {
    pFailuresFile = std::make_shared<CScanFailureConsumer>(0, options.strFailures, "w");
    if (!pFailuresFile->IsOpen()) {
      fprintf(stderr, "fsscan: cannot open the failures file '%s'\n", options.strFailures.c_str());
      return kExitUsage;
    }
  }

  CProgressLine progress(isatty(STDERR_FILENO) == 1);
  auto pFailures = std::make_shared<CFailureReportConsumer>(
      pFailuresFile, [&progress](const std::string& strLine) { progress.PrintMessage(strLine); });
  auto pItems = std::make_shared<CItemLineOutputHandler>(
      pOutput.get(), options.bPrint0 ? CItemLineOutputHandler::EFormat::Print0 : CItemLineOutputHandler::EFormat::Lines);
  auto pCallback = std::make_shared<CFsscanCallback>(pItems, pFailures);

  auto pBag = std::make_shared<CBag>();
  if (options.bTopLevel) (void)pBag->Write(SXScannerConfigurationBagId::idProcessTopLevelContent, true);
  if (options.iWorkers > 1) (void)pBag->Write(kEnableFolderLevelMultithread, true);
  (void)pCallback->SetScannerConfigurationBag(pBag);

  const auto tStart = std::chrono::steady_clock::now();
  progress.Start([&pItems, &pFailures, tStart] {
    const double dSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - tStart).count();
    return FXString::Format("%llu items, %llu folders, %llu failures, %.0f items/s",
                            static_cast<unsigned long long>(pItems->GetItemCount()),
                            static_cast<unsigned long long>(pItems->GetFolderCount()),
                            static_cast<unsigned long long>(pFailures->getProcessedItemsCount()),
                            dSeconds > 0 ? static_cast<double>(pItems->GetItemCount()) / dSeconds : 0.0);
  });

  const int64_t llScanId = static_cast<int64_t>(getpid());
  size_t nAssigned = 0;
  bool bSetUpFailed = false;
  size_t nUnfinishedUnits = 0;
  auto fnAssignFailed = [&](const std::string& strPath, const CQiError& error) {
    ZRLOG(-1, "Content could not be assigned, Path=%s, error=%s", strPath.c_str(), error.AsString().c_str());
    (void)pFailures->RecordContentFailure(strPath, error);
  };

  if (options.iWorkers == 1) {
    CBasicScanner scanner(llScanId, kInstanceName, pCallback);
    (void)scanner.SetLogWriter(CLogWriterInterface::GetProcessLogWriter());
    (void)scanner.SetConfigurationBag(pBag);
    for (const std::string& strPath : options.lstPaths) {
      const std::string strAbsolute = MakeAbsolute(strPath);
      CQiError error = scanner.AddLocalContentItem(strAbsolute);
      if (error.IsError()) fnAssignFailed(strAbsolute, error); else ++nAssigned;
    }
    for (const std::string& strItem : options.setContentExceptions) (void)scanner.AddScanContentExceptionItem(strItem);
    for (const std::string& strItem : options.setExcludes) (void)scanner.AddFilterItem(strItem);
    for (const std::string& strItem : options.setExceptions) (void)scanner.AddFilterExceptionItem(strItem);
    if (nAssigned > 0) {
      CQiError error = scanner.Start();
      if (error.IsSuccess()) error = scanner.WaitForScanToComplete();
      if (error.IsError()) {
        progress.PrintMessage("fsscan: the scan could not run: " + error.GetMessage());
        bSetUpFailed = true;
      } else {
        nUnfinishedUnits = ReportUnfinishedUnits(*scanner.GetWorkUnitManager(), progress);
      }
    }
  } else {
    CFastScanDriver driver(llScanId, kInstanceName, pCallback, pBag, options.iWorkers);
    for (const std::string& strPath : options.lstPaths) {
      const std::string strAbsolute = MakeAbsolute(strPath);
      CQiError error = driver.AddLocalContentItem(strAbsolute);
      if (error.IsError()) fnAssignFailed(strAbsolute, error); else ++nAssigned;
    }
    if (nAssigned > 0) {
      CQiError error = driver.Run(options.setContentExceptions, options.setExcludes, options.setExceptions);
      if (error.IsError()) {
        progress.PrintMessage("fsscan: the scan could not run: " + error.GetMessage());
        bSetUpFailed = true;
      } else {
        for (const std::string& strError : driver.GetMediumErrors()) progress.PrintMessage("fsscan: " + strError);
        nUnfinishedUnits = ReportUnfinishedUnits(*driver.GetWorkUnitManager(), progress);
      }
    }
  }
  progress.Stop();

  const double dSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - tStart).count();
  CQiError flushError = pItems->Flush();
  if (flushError.IsError()) {
    fprintf(stderr, "fsscan: cannot write the item list: %s\n", flushError.CodeAsString().c_str());
    bSetUpFailed = true;
  }
  if (pFailuresFile) (void)pFailuresFile->Close();
  const uint64_t ullFailures = pFailures->getProcessedItemsCount();
  fprintf(stderr, "fsscan: %llu items, %llu folders, %llu bytes, %llu failures, %.3f seconds, %.0f items/s%s\n",
          static_cast<unsigned long long>(pItems->GetItemCount()),
          static_cast<unsigned long long>(pItems->GetFolderCount()),
          static_cast<unsigned long long>(pItems->GetByteCount()), static_cast<unsigned long long>(ullFailures),
          dSeconds, dSeconds > 0 ? static_cast<double>(pItems->GetItemCount()) / dSeconds : 0.0,
          CFsscanCallback::IsInterrupted() ? " (interrupted)" : "");
  if (auto pLog = CLogWriterInterface::GetProcessLogWriter()) pLog->Flush();

  if (CFsscanCallback::IsInterrupted()) return kExitInterrupted;
  if (bSetUpFailed) return kExitUsage;
  if (ullFailures > 0 || nUnfinishedUnits > 0) return kExitContentFailed;
  return kExitSuccess;
}
