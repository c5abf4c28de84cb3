// fsscan: scans folder trees with the scan library and lists what it finds.
//
//   fsscan [options] [PATH...]
//   fsscan [options] --from-file FILE
//
// Each PATH is content of the scan (a folder, or a single file, which is then reported alone; a
// character or block device, or a link to one, is a raw device: the library's raw-device engine
// reports it as one item whose size is the device's size, never reading it);
// relative paths are taken from the working directory and reported as absolute paths. With no
// PATH it scans /usr and, unless -o names an output, prints only the summary. Content
// exceptions and filter items that name a relative path ("build/tmp", not a pattern such as
// "*.o") are taken from the working directory too. Every
// object below a content folder is reported once: symbolic links are reported, never followed;
// nested mount points are left out. The content folder itself is reported only with --top-level
// (`find PATH -mindepth 1` lists the same objects as fsscan, `find PATH` those of --top-level).
//
// Output (stdout, or -o FILE): one line per object "<type> <mode> <size> <mtime> <path>" (see
// ItemLineOutputHandler.h), or with --print0 the raw paths each ended by a NUL byte, exactly as
// `find -print0` writes them. Objects that could not be scanned go to the failures file
// (--failures FILE, the library's format "file|folder <path>:<error>") or, without one, to stderr
// as "fsscan: cannot scan '<path>' (error <code>)"; a record that the failures file refuses goes
// to stderr that way too, after "fsscan: cannot write the failures file '<name>': <error>". A
// summary goes to stderr at the end (counting only the records written; refused failure records
// are counted apart, "N failures (M not written)"), and a live progress line while scanning when
// stderr is a terminal. The first write of the item list that fails ends the scan; nothing is
// written after it and fsscan ends with "fsscan: cannot write the item list: <error>".
//
// Exit status: 0 when everything was scanned; 1 when some content failed (a failure was
// recorded, or a work unit did not complete; a PATH, or a path listed in the --from-file FILE,
// that does not exist is content that failed and is recorded as a failure); 2 on a usage or
// set-up error (unknown option or engine, bad number, an output, failures, log or --from-file
// content file that cannot be opened or read, items or failure records that cannot be written);
// 130 when interrupted (SIGINT/SIGTERM abort the scan). The content file counts as set-up: like the output and
// failures files it is an input of fsscan itself, not content of the scan.
//
// Hadoop content: PATHs given as webhdfs://HOST[:PORT]/PATH (swebhdfs:// for HTTPS, hdfs:// for
// the same REST interface; see HadoopContent.h) are scanned over WebHDFS by the Hadoop engine
// through the scan arbiter, with the same output lines and summary (paths as the Hadoop file
// system names them). All PATHs are then such URLs of one server; --engines, --traverse,
// --top-level and --from-file do not go with them. --hdfs-user (default: the user fsscan runs
// as), --hdfs-token (a delegation token), --hdfs-ca and --hdfs-timeout set up the client.
//
// How the scan runs:
//   - by default, --workers 1: the scanner facade (CBasicScanner: the FindFirst engine, one
//     traversal worker per physical medium);
//   - --workers N > 1 alone: the fast FindFirst engine with N traversal workers per medium
//     through CFastScanDriver, since the facade cannot;
//   - --engines LIST (or --traverse, short for --engines traverse): the library's scan arbiter
//     through CArbiterScanDriver, with --scanners scanner threads; each offers every work unit
//     to the listed engines in order (CEngineFactory names them) and --workers sets the
//     traversal workers per work unit of the engines that have several (fast, traverse); the
//     traverse engine does not take --top-level (its traversal never reports a content root);
//     the ondemand engine reads each PATH as a content file (see --from-file);
//   - device content: each device PATH by the raw-device engine on a work unit of its own,
//     before the rest of the content (see ReportDeviceContent);
//   - --from-file FILE: the arbiter with the on-demand engine alone. FILE (a file, a pipe such as
//     /dev/stdin or /dev/fd/N, a FIFO) is read once into a private copy (CContentFileCopy), the
//     engine's content file, which the engine black-lists. FILE holds one absolute path per line;
//     each object is reported once, however lines repeat or nest (see COnDemandScanEngine); a
//     file is reported alone, a folder is traversed and its objects reported, the folder itself
//     only with --top-level (so a listed folder gives what `find DIR -mindepth 1` lists; a
//     folder listed below another listed folder is reported, as find lists it); empty lines and the line "/" are skipped; a listed path that does not exist is
//     recorded as a failure. No PATH arguments go with it. Volumes mounted below a listed
//     folder are scanned too, each by a traversal of its own whose root (the mount point) is,
//     like the listed folder, reported only with --top-level: that is where the listing
//     differs from find's. The content file is the work unit's only scan path, and a work unit
//     takes only the filter paths that concern its scan paths, so --exclude/--exception take
//     patterns here (a path starting with '/' is a usage error) and --content-exception is
//     refused.
//   - the gpfs engine (--engines gpfs,findfirst) asks GPFS's policy engine for the listing; on a
//     volume that is not GPFS it refuses the unit and the next engine scans. fsscan passes it
//     the job results folder (--job-results, default $TMPDIR or /tmp), the reference time
//     (--since, default 0: everything counts as modified) and both time tests. The test option
//     --test-gpfs-volume DIR declares the file system holding DIR to be GPFS (device "gpfs0")
//     so that tests run the engine against fake GPFS tools ("sGpfsBin" in the settings file).
//   - the lustre engine (--engines lustre,findfirst) keeps its readers, statistics and scan
//     databases in the job results folder: each run is one backup job there, a full one the
//     first time (or whenever the engine finds it must), an incremental from the MDT changelogs
//     after that, listing only what changed; a successful run ends with the job's
//     post-operations. The test option --test-lustre-volume DIR serves DIR as a simulated
//     Lustre (one MDT "lustre-MDT0000" on host "localhost") whose changelog is the text file
//     "<job results>/simulated-lustre/lustre-MDT0000.changelog": tests change DIR and append
//     the records, in the format `lfs changelog` prints, that the change would have written.
#include <fcntl.h>
#include <getopt.h>
#include <pwd.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "ArbiterScanDriver.h"
#include "ContentFileCopy.h"
#include "EngineFactory.h"
#include "FailureReportConsumer.h"
#include "FastScanDriver.h"
#include "FsscanCallback.h"
#include "HadoopContent.h"
#include "ItemLineOutputHandler.h"
#include "Platform/FXErrorUtil.h"
#include "Platform/FXFile.h"
#include "Platform/FXString.h"
#include "Platform/FileLogWriter.h"
#include "Scan/BasicScanner.h"
#include "Scan/ScannerConfigurationBagId.h"
#include "Scan/Unix/RawDeviceScanEngine.h"
#include "ProgressLine.h"
#include "Scan/Unix/LustreScanEngine.h"
#include "Scan/Unix/SimulatedLustreAPI.h"
#include "TestGpfsPlatform.h"

namespace {

constexpr int kExitSuccess = 0;
constexpr int kExitContentFailed = 1;
constexpr int kExitUsage = 2;
constexpr char kDefaultPath[] = "/usr";  // scanned when no PATH is given
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
  bool bEnginesGiven = false;    // --engines or --traverse: run the scan arbiter
  std::vector<std::string> lstEngines;
  int iScanners = 1;
  bool bScannersGiven = false;
  bool bFromFile = false;        // --from-file: the on-demand engine on this content file
  std::string strFromFile;
  std::string strJobResults;      // --job-results: the gpfs engine's job results folder
  unsigned long long ullSince = 0;  // --since: the gpfs engine's reference time
  std::string strTestGpfsVolume;  // --test-gpfs-volume (test option)
  std::string strTestLustreVolume;  // --test-lustre-volume (test option)
  ItemSet setExcludes;
  ItemSet setExceptions;
  ItemSet setContentExceptions;
  std::vector<std::string> lstPaths;
  CHadoopContent hadoop;           // webhdfs:// content
  std::vector<std::string> lstHadoopPaths;
  bool bHdfsUserGiven = false;
  int iHdfsTimeout = 120;
};

// printf format: %s is the list of engine names.
const char kUsage[] =
    "Usage: fsscan [options] [PATH...]\n"
    "       fsscan [options] --from-file FILE\n"
    "Scans the folder trees below each PATH and lists every object found. With no PATH it\n"
    "scans /usr and prints only the summary (unless -o names an output). A PATH may be a\n"
    "device (reported as one item sized as the device) or, for all PATHs alike, a Hadoop URL\n"
    "webhdfs://HOST[:PORT]/PATH (also swebhdfs:// for HTTPS, hdfs:// for the HTTP port).\n"
    "\n"
    "  -o, --output FILE            write the item list to FILE (default: stdout)\n"
    "  -0, --print0                 list only the paths, each ended by a NUL byte (as find -print0)\n"
    "      --top-level              also report each content PATH itself (not with the traverse\n"
    "                               engine, which never reports a content root)\n"
    "  -f, --failures FILE          write objects that could not be scanned to FILE\n"
    "                               (default: one message each on stderr)\n"
    "  -x, --exclude PATTERN        leave out objects matching PATTERN (filter item; a relative\n"
    "                               path without wildcards is taken from the working directory)\n"
    "  -e, --exception PATTERN      keep objects matching PATTERN although excluded\n"
    "  -c, --content-exception PATH leave PATH out of the content\n"
    "  -w, --workers N              traversal workers per physical medium (default 1),\n"
    "                               with the scan arbiter per work unit\n"
    "      --engines LIST           run the scan arbiter with these engines, comma separated,\n"
    "                               tried in order on every work unit (e.g. fast,findfirst);\n"
    "                               engines: %s;\n"
    "                               ondemand reads each PATH as a list of paths (--from-file)\n"
    "      --traverse               short for --engines traverse\n"
    "      --scanners N             scanner threads of the scan arbiter, 1 to 64 (default 1)\n"
    "      --from-file FILE         scan the paths listed in FILE, one absolute path per line,\n"
    "                               with the on-demand engine (no PATH then): a file is\n"
    "                               reported alone, a folder's objects below it (the folder\n"
    "                               itself with --top-level), a missing path is a failure, the\n"
    "                               line \"/\" and empty lines are skipped; volumes mounted\n"
    "                               below a folder are scanned too, their mount points only\n"
    "                               with --top-level; filters are patterns here (no '/' first),\n"
    "                               no --content-exception; FILE may be a pipe or a FIFO (it\n"
    "                               is read once); an object listed twice, or below a listed\n"
    "                               folder, is reported once; a FILE that cannot be read is a\n"
    "                               set-up error (exit 2)\n"
    "      --job-results DIR        the gpfs engine's job folder for its policy, script and\n"
    "                               collect files (default $TMPDIR or /tmp)\n"
    "      --since SECONDS          the gpfs engine's reference time: objects changed after it\n"
    "                               are listed as modified (default 0)\n"
    "      --test-gpfs-volume DIR   test option: treat the file system holding DIR as a GPFS\n"
    "                               volume (device gpfs0) so that fake GPFS tools can serve it\n"
    "      --hdfs-user NAME         the user of webhdfs:// content (default: the user running fsscan)\n"
    "      --hdfs-token TOKEN       a delegation token for webhdfs:// content\n"
    "      --hdfs-ca FILE           the CA certificates for swebhdfs:// (default: the system's)\n"
    "      --hdfs-timeout SECONDS   the time-out of each WebHDFS request, 1 to 3600 (default 120)\n"
    "      --test-lustre-volume DIR test option: serve DIR as a simulated Lustre file system for\n"
    "                               the lustre engine (changelog in the job results folder)\n"
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

// A relative path joined to the working directory (a physical path, so ".." is resolved by
// name); "." and ".." of the relative part are resolved, since the library takes paths as they
// stand. An absolute path is left as given.
std::string MakeAbsolute(const std::string& strPath) {
  if (strPath.empty() || strPath[0] == '/') return strPath;
  std::unique_ptr<char, decltype(&free)> pCwd(getcwd(nullptr, 0), &free);
  if (!pCwd) return strPath;  // the library refuses the relative path and it is recorded as failed
  std::string strAbsolute = pCwd.get();
  if (strAbsolute == "/") strAbsolute.clear();
  for (size_t start = 0; start <= strPath.size();) {
    size_t end = strPath.find('/', start);
    if (end == std::string::npos) end = strPath.size();
    const std::string_view name = std::string_view(strPath).substr(start, end - start);
    if (name == "..") {
      const size_t slash = strAbsolute.rfind('/');
      strAbsolute.erase(slash == std::string::npos ? 0 : slash);
    } else if (!name.empty() && name != ".") {
      strAbsolute.push_back('/');
      strAbsolute.append(name);
    }
    start = end + 1;
  }
  return strAbsolute.empty() ? std::string("/") : strAbsolute;
}

// Items that are relative paths made absolute. With bPatterns, only items that hold a '/' and no
// wildcard are paths: "*.o" or "cache" name a last component at any depth.
ItemSet AnchorRelativePaths(const ItemSet& setItems, bool bPatterns) {
  ItemSet setAnchored;
  for (const std::string& strItem : setItems) {
    const bool bPath = !bPatterns || (strItem.find('/') != std::string::npos &&
                                      strItem.find_first_of("*?[") == std::string::npos);
    setAnchored.insert(bPath ? MakeAbsolute(strItem) : strItem);
  }
  return setAnchored;
}

// Hadoop URLs among the PATHs: all PATHs must be URLs of one server; they are scanned by the
// hadoop engine through the arbiter. 0 to go on, kExitUsage on a usage error.
int ParseHadoopContent(SOptions& options, const char* szTryHelp) {
  size_t nUrls = 0;
  for (const std::string& strPath : options.lstPaths) nUrls += CHadoopContent::IsHadoopUrl(strPath) ? 1 : 0;
  if (nUrls == 0) return 0;
  const char* szConflict = nUrls != options.lstPaths.size() ? "local PATHs"
                           : options.bEnginesGiven          ? "--engines and --traverse"
                           : options.bTopLevel              ? "--top-level"
                                                            : nullptr;
  if (szConflict != nullptr) {
    fprintf(stderr, "fsscan: Hadoop content (webhdfs://) does not go with %s\n%s", szConflict, szTryHelp);
    return kExitUsage;
  }
  for (const std::string& strUrl : options.lstPaths) {
    std::string strPath;
    CQiError error = options.hadoop.Add(strUrl, strPath);
    if (error.IsError()) {
      fprintf(stderr, "fsscan: %s\n%s", error.GetMessage().c_str(), szTryHelp);
      return kExitUsage;
    }
    options.lstHadoopPaths.push_back(strPath);
  }
  SWebHdfsConfig& config = options.hadoop.Config();
  if (!options.bHdfsUserGiven) {
    const struct passwd* pEntry = getpwuid(geteuid());
    config.strUser = pEntry != nullptr ? pEntry->pw_name : std::to_string(geteuid());
  }
  config.lRequestTimeoutMs = options.iHdfsTimeout * 1000L;
  config.lConnectTimeoutMs = std::min(config.lRequestTimeoutMs, 10000L);
  options.lstEngines = {"hadoop"};
  options.bEnginesGiven = true;
  return 0;
}

// The lustre engine's job: its parameters, the last job's id from its post-operation state and,
// with the test option, the simulated file system. kExitSuccess or kExitUsage.
int SetUpLustreJob(const SOptions& options, const std::string& strJobResults, CBag& bag,
                   unsigned long long& ullLastJob) {
  std::ifstream state(strJobResults + "/" + CLustreScanEngine::kPostOpStateFile);
  if (!(state >> ullLastJob)) ullLastJob = 0;
  (void)bag.Write(SXScannerConfigurationBagId::idJobResultsDirectory, strJobResults);
  (void)bag.Write(SXScannerConfigurationBagId::idReferenceTime, options.ullSince);
  (void)bag.Write(CLustreScanEngine::kParamBackupType, std::string("INCREMENTAL"));
  (void)bag.Write(CLustreScanEngine::kParamLastSuccessfulJobId, ullLastJob);
  if (options.strTestLustreVolume.empty()) return kExitSuccess;
  const std::string strState = strJobResults + "/simulated-lustre";
  struct stat st {};
  if ((mkdir(strState.c_str(), 0700) != 0 && errno != EEXIST) ||
      stat(options.strTestLustreVolume.c_str(), &st) != 0) {
    fprintf(stderr, "fsscan: --test-lustre-volume: cannot use '%s': %m\n", options.strTestLustreVolume.c_str());
    return kExitUsage;
  }
  LustreAPI::SetCurrent(std::make_shared<CSimulatedLustreAPI>(
      MakeAbsolute(options.strTestLustreVolume), std::vector<LustreAPI::SMdt>{{"lustre-MDT0000", "localhost"}},
      strState));
  return kExitSuccess;
}

// 0 to go on, kExitUsage on a usage error, -1 when the help was printed.
int ParseOptions(int argc, char** argv, SOptions& options) {
  enum { kOptTopLevel = 256, kOptEngines, kOptTraverse, kOptScanners, kOptFromFile, kOptJobResults, kOptSince,
         kOptTestGpfsVolume, kOptHdfsUser, kOptHdfsToken,
         kOptHdfsCa, kOptHdfsTimeout, kOptTestLustreVolume };
  static const struct option kLongOptions[] = {
      {"output", required_argument, nullptr, 'o'},   {"print0", no_argument, nullptr, '0'},
      {"top-level", no_argument, nullptr, kOptTopLevel}, {"failures", required_argument, nullptr, 'f'},
      {"exclude", required_argument, nullptr, 'x'},  {"exception", required_argument, nullptr, 'e'},
      {"content-exception", required_argument, nullptr, 'c'}, {"workers", required_argument, nullptr, 'w'},
      {"log", required_argument, nullptr, 'l'},      {"log-level", required_argument, nullptr, 'L'},
      {"engines", required_argument, nullptr, kOptEngines}, {"traverse", no_argument, nullptr, kOptTraverse},
      {"scanners", required_argument, nullptr, kOptScanners}, {"from-file", required_argument, nullptr, kOptFromFile},
      {"job-results", required_argument, nullptr, kOptJobResults}, {"since", required_argument, nullptr, kOptSince},
      {"test-gpfs-volume", required_argument, nullptr, kOptTestGpfsVolume},
      {"hdfs-user", required_argument, nullptr, kOptHdfsUser}, {"hdfs-token", required_argument, nullptr, kOptHdfsToken},
      {"hdfs-ca", required_argument, nullptr, kOptHdfsCa}, {"hdfs-timeout", required_argument, nullptr, kOptHdfsTimeout},
      {"test-lustre-volume", required_argument, nullptr, kOptTestLustreVolume},
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
      case kOptEngines: {
        CQiError error = CEngineFactory::ParseList(optarg, options.lstEngines);
        if (error.IsError()) {
          fprintf(stderr, "fsscan: --engines: %s\n", error.GetMessage().c_str());
          return kExitUsage;
        }
        options.bEnginesGiven = true;
        break;
      }
      case kOptTraverse:
        options.lstEngines = {"traverse"};
        options.bEnginesGiven = true;
        break;
      case kOptScanners:
        if (!ParseInt(optarg, 1, 64, options.iScanners)) {
          fprintf(stderr, "fsscan: --scanners wants a number from 1 to 64, not '%s'\n", optarg);
          return kExitUsage;
        }
        options.bScannersGiven = true;
        break;
      case kOptFromFile:
        options.strFromFile = optarg;
        options.bFromFile = true;
        break;
      case kOptJobResults: options.strJobResults = optarg; break;
      case kOptSince:
        if (FXString::ToUInt64(optarg, options.ullSince).IsError()) {
          fprintf(stderr, "fsscan: --since wants a number of seconds since 1970, not '%s'\n", optarg);
          return kExitUsage;
        }
        break;
      case kOptTestGpfsVolume: options.strTestGpfsVolume = optarg; break;
      case kOptHdfsUser:
        options.hadoop.Config().strUser = optarg;
        options.bHdfsUserGiven = true;
        break;
      case kOptHdfsToken: options.hadoop.Config().strDelegationToken = optarg; break;
      case kOptHdfsCa: options.hadoop.Config().strCaFile = optarg; break;
      case kOptHdfsTimeout:
        if (!ParseInt(optarg, 1, 3600, options.iHdfsTimeout)) {
          fprintf(stderr, "fsscan: --hdfs-timeout wants a number of seconds from 1 to 3600, not '%s'\n", optarg);
          return kExitUsage;
        }
        break;
      case kOptTestLustreVolume: options.strTestLustreVolume = optarg; break;
      case 'h': printf(kUsage, CEngineFactory::GetNamesText().c_str()); return -1;
      default: fputs("Try 'fsscan --help' for more information.\n", stderr); return kExitUsage;
    }
  }
  for (int i = optind; i < argc; ++i) options.lstPaths.emplace_back(argv[i]);
  const char* szTryHelp = "Try 'fsscan --help' for more information.\n";
  if (options.bFromFile) {
    if (!options.lstPaths.empty()) {
      fprintf(stderr, "fsscan: --from-file takes no PATH arguments\n%s", szTryHelp);
      return kExitUsage;
    }
    if (options.bEnginesGiven) {
      fprintf(stderr, "fsscan: --from-file runs the ondemand engine; --engines and --traverse do not go with it\n%s",
              szTryHelp);
      return kExitUsage;
    }
    // The content file's work unit takes only the filters that concern its own path, and the
    // on-demand traversal consults no scan content: paths would be dropped without a word.
    if (!options.setContentExceptions.empty()) {
      fprintf(stderr, "fsscan: --content-exception does not go with --from-file\n%s", szTryHelp);
      return kExitUsage;
    }
    for (const ItemSet* pSet : {&options.setExcludes, &options.setExceptions}) {
      for (const std::string& strItem : *pSet) {
        if (strItem.empty() || strItem[0] != '/') continue;
        fprintf(stderr, "fsscan: with --from-file, --exclude and --exception take patterns, not paths: '%s'\n%s",
                FXString::EscapeControl(strItem).c_str(), szTryHelp);
        return kExitUsage;
      }
    }
    options.lstEngines = {"ondemand"};
    options.bEnginesGiven = true;
    return 0;
  }
  const int iHadoop = ParseHadoopContent(options, szTryHelp);
  if (iHadoop != 0) return iHadoop;
  if (options.bScannersGiven && !options.bEnginesGiven) {
    fprintf(stderr, "fsscan: --scanners needs --engines, --traverse or --from-file\n%s", szTryHelp);
    return kExitUsage;
  }
  if (options.lstPaths.empty()) {
    options.lstPaths.emplace_back(kDefaultPath);
    if (options.strOutput.empty()) options.strOutput = "/dev/null";
  }
  // A relative path among the exceptions and filter items would never match the absolute paths
  // of the scan: it is anchored where the user stands, as the content paths are.
  options.setContentExceptions = AnchorRelativePaths(options.setContentExceptions, false);
  options.setExcludes = AnchorRelativePaths(options.setExcludes, true);
  options.setExceptions = AnchorRelativePaths(options.setExceptions, true);
  return 0;
}

// Device content: a character or block device named as PATH, or a symbolic link to one.
bool IsDeviceContent(const std::string& strPath) {
  struct stat st {};
  if (lstat(strPath.c_str(), &st) != 0) return false;
  if (S_ISLNK(st.st_mode) && stat(strPath.c_str(), &st) != 0) return false;
  return S_ISCHR(st.st_mode) || S_ISBLK(st.st_mode);
}

// Reports device content as the library does for a raw device: the work unit manager gives the
// path a raw-device work unit of its own, which the raw-device engine reports as one item sized
// as the device (never reading it). Each device PATH is reported at once, in the order given,
// before the scan of the other content.
CQiError ReportDeviceContent(const std::string& strPath, const CScannerCallbackPtr& pCallback) {
  CWorkUnitManager manager(static_cast<int64_t>(getpid()));
  QI_RETURN_IF_ERROR(manager.AssignLocalWorkUnit(strPath));
  CRawDeviceScanEngine engine;
  QI_RETURN_IF_ERROR(engine.SetScannerCallback(pCallback));
  for (const auto& [strKey, pWorkUnit] : manager.GetWorkUnitMap()) QI_RETURN_IF_ERROR(engine.ProcessWorkUnit(pWorkUnit));
  return CQiError();
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

// Closes the item list's stream (stdout too: a write may show only at the close); its errno.
CQiError CloseOutput(std::unique_ptr<FILE, SFileCloser>& pOutput) {
  errno = 0;
  if (fclose(pOutput.release()) != 0)
    return QI_ERROR_ERRNO(errno != 0 ? errno : EIO, "Failed to close the item list");
  return CQiError();
}

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
  // The list is read once, whatever it is (a pipe, a FIFO, a file), into a private copy that the
  // on-demand engine reads; a list that cannot be read is a set-up error.
  CContentFileCopy contentCopy;
  if (options.bFromFile) {
    CQiError error = contentCopy.Make(options.strFromFile);
    if (error.IsError()) {
      if (CFsscanCallback::IsInterrupted()) return kExitInterrupted;
      fprintf(stderr, "fsscan: %s: %s\n", error.GetMessage().c_str(), strerror(static_cast<int>(error.GetCode())));
      return kExitUsage;
    }
  }

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
  auto pCallback = std::make_shared<CFsscanCallback>(pItems, pFailures, options.lstEngines, kInstanceName);
  // A list that cannot be written ends the scan: nothing it would still find could be listed.
  pItems->SetOnWriteFailure([pRawCallback = pCallback.get()] { (void)pRawCallback->Abort(); });
  // The private copy of the list is no content of the scan, whatever folder is listed.
  if (options.bFromFile) pCallback->SetOnDemandBlackList({contentCopy.GetFolder()});

  auto pBag = std::make_shared<CBag>();
  if (options.bTopLevel) (void)pBag->Write(SXScannerConfigurationBagId::idProcessTopLevelContent, true);
  if (options.iWorkers > 1 || options.bEnginesGiven) (void)pBag->Write(kEnableFolderLevelMultithread, true);
  const char* szTemp = getenv("TMPDIR");
  const std::string strJobResults = !options.strJobResults.empty() ? MakeAbsolute(options.strJobResults)
                                    : szTemp != nullptr && *szTemp != '\0' ? std::string(szTemp)
                                                                            : std::string("/tmp");
  if (std::find(options.lstEngines.begin(), options.lstEngines.end(), "gpfs") != options.lstEngines.end()) {
    if (!options.strTestGpfsVolume.empty()) {
      auto pPlatform = std::make_shared<CTestGpfsPlatform>();
      if (!pPlatform->SetVolume(MakeAbsolute(options.strTestGpfsVolume))) {
        fprintf(stderr, "fsscan: --test-gpfs-volume: cannot read '%s': %m\n", options.strTestGpfsVolume.c_str());
        return kExitUsage;
      }
      CGpfsPlatform::SetCurrent(pPlatform);
    }
    (void)pBag->Write("RegKey:GpfsScan", true);
    (void)pBag->Write("JO:MTIME", true);
    (void)pBag->Write("JO:CTIME", true);
    (void)pBag->Write(SXScannerConfigurationBagId::idJobResultsDirectory, strJobResults);
    (void)pBag->Write(SXScannerConfigurationBagId::idReferenceTime, options.ullSince);
  }
  const bool bLustre =
      std::find(options.lstEngines.begin(), options.lstEngines.end(), "lustre") != options.lstEngines.end();
  unsigned long long ullLustreJob = 0;
  if (bLustre && SetUpLustreJob(options, strJobResults, *pBag, ullLustreJob) != kExitSuccess) return kExitUsage;
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
  // PATH arguments are content, except for the on-demand engine alone, which reads them as lists.
  const bool bPathsAreLists =
      options.bFromFile || options.lstEngines == std::vector<std::string>{"ondemand"};
  // Device content is reported here (see ReportDeviceContent); true when strPath was such content.
  auto fnDeviceContent = [&](const std::string& strPath) {
    if (bPathsAreLists || !IsDeviceContent(strPath)) return false;
    CQiError error = ReportDeviceContent(strPath, pCallback);
    if (error.IsError() && !pItems->HasWriteFailed()) fnAssignFailed(strPath, error);
    return true;
  };
  // When the item list cannot be written the scan was ended for that: what the engines say of
  // their units then is only the consequence, and the write failure is reported at the end.
  auto fnOutputFailed = [&pItems] { return pItems->HasWriteFailed(); };

  if (options.bEnginesGiven) {
    CArbiterScanDriver driver(llScanId, pCallback, pBag, options.iWorkers, options.iScanners);
    if (!options.hadoop.IsEmpty()) pCallback->SetHadoopFS(options.hadoop.MakeClient());
    for (size_t i = 0; i < options.lstHadoopPaths.size(); ++i) {
      CQiError error = driver.AddHadoopContentItem(options.lstHadoopPaths[i]);
      if (error.IsError()) fnAssignFailed(options.lstPaths[i], error); else ++nAssigned;
    }
    // With --from-file the content is the content file: its work unit's scan path names it.
    const std::vector<std::string> lstContent = options.bFromFile          ? std::vector<std::string>{contentCopy.GetPath()}
                                                : options.hadoop.IsEmpty() ? options.lstPaths
                                                                           : std::vector<std::string>{};
    for (const std::string& strPath : lstContent) {
      const std::string strAbsolute = MakeAbsolute(strPath);
      if (fnDeviceContent(strAbsolute)) continue;
      CQiError error = driver.AddLocalContentItem(strAbsolute);
      if (error.IsError()) fnAssignFailed(strAbsolute, error); else ++nAssigned;
    }
    if (nAssigned > 0) {
      CQiError error = driver.Run(options.setContentExceptions, options.setExcludes, options.setExceptions);
      if (fnOutputFailed()) {
        // reported once the list is closed
      } else if (error.IsError() && !error.IsWin32(QiErrorCode::OperationAborted)) {
        progress.PrintMessage("fsscan: the scan could not run: " + error.GetMessage());
        bSetUpFailed = true;
      } else {
        // An abort that no interrupt asked for: a scanner met an error that ends the scan.
        const bool bEndedByError = error.IsError() && !CFsscanCallback::IsInterrupted();
        if (bEndedByError) progress.PrintMessage("fsscan: the scan was ended: " + error.GetMessage());
        nUnfinishedUnits = ReportUnfinishedUnits(*driver.GetWorkUnitManager(), progress) + (bEndedByError ? 1 : 0);
      }
    }
  } else if (options.iWorkers == 1) {
    CBasicScanner scanner(llScanId, kInstanceName, pCallback);
    (void)scanner.SetLogWriter(CLogWriterInterface::GetProcessLogWriter());
    (void)scanner.SetConfigurationBag(pBag);
    for (const std::string& strPath : options.lstPaths) {
      const std::string strAbsolute = MakeAbsolute(strPath);
      if (fnDeviceContent(strAbsolute)) continue;
      CQiError error = scanner.AddLocalContentItem(strAbsolute);
      if (error.IsError()) fnAssignFailed(strAbsolute, error); else ++nAssigned;
    }
    for (const std::string& strItem : options.setContentExceptions) (void)scanner.AddScanContentExceptionItem(strItem);
    for (const std::string& strItem : options.setExcludes) (void)scanner.AddFilterItem(strItem);
    for (const std::string& strItem : options.setExceptions) (void)scanner.AddFilterExceptionItem(strItem);
    if (nAssigned > 0) {
      CQiError error = scanner.Start();
      if (error.IsSuccess()) error = scanner.WaitForScanToComplete();
      if (fnOutputFailed()) {
        // reported once the list is closed
      } else if (error.IsError()) {
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
      if (fnDeviceContent(strAbsolute)) continue;
      CQiError error = driver.AddLocalContentItem(strAbsolute);
      if (error.IsError()) fnAssignFailed(strAbsolute, error); else ++nAssigned;
    }
    if (nAssigned > 0) {
      CQiError error = driver.Run(options.setContentExceptions, options.setExcludes, options.setExceptions);
      if (fnOutputFailed()) {
        // reported once the list is closed
      } else if (error.IsError()) {
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
  CQiError outputError = pItems->Flush();
  {
    CQiError closeError = CloseOutput(pOutput);
    if (outputError.IsSuccess()) outputError = closeError;
  }
  if (outputError.IsError()) {
    fprintf(stderr, "fsscan: cannot write the item list: %s\n", outputError.CodeAsString().c_str());
    bSetUpFailed = true;
  }
  // A failures file that refused a record, or its close: reported by the consumer as it happened.
  if (pFailures->Close().IsError() || pFailures->GetLostCount() > 0) bSetUpFailed = true;
  const uint64_t ullFailures = pFailures->getProcessedItemsCount();
  const std::string strLost =
      pFailures->GetLostCount() == 0
          ? std::string()
          : FXString::Format(" (%llu not written)", static_cast<unsigned long long>(pFailures->GetLostCount()));
  fprintf(stderr, "fsscan: %llu items, %llu folders, %llu bytes, %llu failures%s, %.3f seconds, %.0f items/s%s\n",
          static_cast<unsigned long long>(pItems->GetItemCount()),
          static_cast<unsigned long long>(pItems->GetFolderCount()),
          static_cast<unsigned long long>(pItems->GetByteCount()), static_cast<unsigned long long>(ullFailures),
          strLost.c_str(), dSeconds, dSeconds > 0 ? static_cast<double>(pItems->GetItemCount()) / dSeconds : 0.0,
          CFsscanCallback::IsInterrupted() ? " (interrupted)" : "");
  if (auto pLog = CLogWriterInterface::GetProcessLogWriter()) pLog->Flush();

  if (CFsscanCallback::IsInterrupted()) return kExitInterrupted;
  if (bSetUpFailed) return kExitUsage;
  if (ullFailures > 0 || nUnfinishedUnits > 0) return kExitContentFailed;
  // A whole job: the lustre engine's post-operations make it the base of the next one.
  if (bLustre) {
    CQiError error = CLustreScanEngine::RunPostOperations(strJobResults, ullLustreJob + 1);
    if (error.IsError()) {
      fprintf(stderr, "fsscan: the lustre post-operations failed: %s\n", error.GetMessage().c_str());
      return kExitUsage;
    }
  }
  return kExitSuccess;
}
