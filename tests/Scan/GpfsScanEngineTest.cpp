// The GPFS engine's real code on temporary folders declared GPFS through a fake platform, with
// fake mmapplypolicy, mmgetstate, mmfsctl and pstree scripts (Support/FakeGpfsTools.h): policy
// runs and their outcomes, suspension, remote devices, aborts, hostile scan paths, the policy
// texts, and the collect records the enumerator accepts and refuses.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Platform/FXPath.h"
#include "Platform/SendEventInterface.h"
#include "Platform/ZRPlatformInfo.h"
#include "Scan/Unix/GpfsPathEnumerator.h"
#include "Scan/Unix/GpfsPlatform.h"
#include "Scan/Unix/GpfsPolicy.h"
#include "Scan/Unix/GpfsScanEngine.h"
#include "Support/FakeGpfsTools.h"
#include "Support/FileText.h"
#include "Support/TempTree.h"
#include "TraversalTestSupport.h"

using namespace TraversalTestSupport;
using namespace std::string_literals;

namespace {

// Declares one folder GPFS (device "gpfs0") and shortens every wait.
class CFakePlatform : public CGpfsPlatform {
 public:
  CFakePlatform(std::string strRoot, std::string strTemp) : m_strRoot(std::move(strRoot)), m_strTemp(std::move(strTemp)) {
    SetTimings({20, 20, 10, 1});
  }
  CQiError GetFileSystemMagic(const std::string& strPath, uint64_t& ullMagic) override {
    return ullMagic = FXPath::IsAncestorOf(m_strRoot, strPath, true) ? kGpfsMagic : 0xEF53, CQiError();
  }
  CQiError GetMountDevice(const std::string&, std::string& strDevice) override { return strDevice = "gpfs0", CQiError(); }
  bool IsRemoteDevice(const std::string&, const std::string&) override { return m_bRemote; }
  std::string getOrreryTempDirectory() override { return m_strTemp; }
  bool m_bRemote = false;

 private:
  std::string m_strRoot, m_strTemp;
};

class CEventRecorder : public ISendEventInterface {
 public:
  CQiError SendEvent(const CQiError& event, const CEventArgumentList& args) override {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_vEvents.push_back(FXString::Format("0x%X", event.GetCode()) + ISendEventInterface::ArgumentsAsString(args));
    return CQiError();
  }
  std::mutex m_mutex;
  std::vector<std::string> m_vEvents;  // read once the engine is done
};

// A policy output in the collect layout: progress, a path split by its newline, statistics.
std::string PolicyOutput(const std::string& r) {
  return "[I] GPFS Current Data Pool Utilization in KB and %\n"
         "[I] Loaded policy rules from " + r + "/policy.\n"
         "[I] 2026-11-23@10:00:00.000 Directory entries scanned: 6.\n"
         "WEIGHT(INF) LIST 'UNMODIFIED' " + r + "/old.txt SHOW(-:100:1)\n"
         "WEIGHT(INF) LIST 'MODIFIED' " + r + "/dir SHOW(d:4096:2)\n"
         "WEIGHT(INF) LIST 'MODIFIED' " + r + "/dir/new\nline.txt SHOW(-:7:1)\n"
         "weight(inf) list 'modified' " + r + "/link SHOW(l:9:1)\n"
         "WEIGHT(INF) LIST 'UNMODIFIED' " + r + " SHOW(d:4096:3)\n"
         "[I] Summary of Rule Applicability and File Choices:\n"
         " Rule#  Hit_Cnt  KB_Hit  Chosen  KB_Chosen  KB_Ill  Rule\n"
         "     0        3     100       3        100       0  RULE 'A' LIST 'modified'\n"
         "[I] A total of 5 files have been inspected.\n";
}

// What the handler must get (sorted by path), as bytes.
std::vector<SRecord> ExpectedItems(const std::string& r) {
  return {{r, 4096, S_IFDIR}, {r + "/dir", 4096, S_IFDIR}, {r + "/dir/new\nline.txt", 7, S_IFREG},
          {r + "/link", 9, S_IFLNK}, {r + "/old.txt", 100, S_IFREG}};
}

std::vector<SRecord> Delivered(const CTestCallback& callback) {
  std::vector<SRecord> records = callback.m_pHandler->Records();
  std::sort(records.begin(), records.end());
  return records;
}

class GpfsFixture {
 public:
  explicit GpfsFixture(const std::string& strVolumeName = "vol")
      : m_strRoot(m_tree.MakeDir(strVolumeName)), m_strBin(m_tree.Path("bin")), m_strJob(m_tree.MakeDir("job")),
        m_pPlatform(std::make_shared<CFakePlatform>(m_strRoot, m_tree.MakeDir("work"))) {
    CGpfsPlatform::SetCurrent(m_pPlatform);
    ISendEventInterface::SetProcessEventSink(m_pEvents);
    const char* szPath = getenv("PATH");
    m_strOldPath = szPath != nullptr ? szPath : "";
    setenv("PATH", (m_strBin + ":" + m_strOldPath).c_str(), 1);
    m_pCallback->Set("RegKey:GpfsScan", true);
    m_pCallback->Set("JR:subclient", m_strJob);
    m_pCallback->Set("ReferenceTime", 1000ull);
    m_pCallback->Set("JO:MTIME", true);
  }
  ~GpfsFixture() {
    setenv("PATH", m_strOldPath.c_str(), 1);
    CGpfsPlatform::SetCurrent(nullptr);
    ISendEventInterface::SetProcessEventSink(nullptr);
    ZRPlatformInfo::Instance().LoadFromText("", "");
  }
  // Loads the settings (sGpfsBin first) and runs a new engine over one work unit of the volume.
  CQiError Run(const std::string& strSettings = "") {
    ZRPlatformInfo::Instance().LoadFromText("[FileSystemAgent]\nsGpfsBin=" + m_strBin + "\n" + strSettings, "test");
    auto pEngine = std::make_shared<CGpfsScanEngine>();
    (void)pEngine->SetScannerCallback(m_pCallback);
    (void)pEngine->SetScannerConfigurationBag(m_pCallback->GetScannerConfigurationBag());
    CWorkUnitPtr pUnit = MakeUnit({m_strRoot}, m_strRoot);
    pUnit->SetLocalVolumeUniqueId("id1");
    return pEngine->ProcessWorkUnit(pUnit);
  }
  size_t Runs() const { return ReadFileLines(m_strBin + "/mmapplypolicy.runs").size(); }
  bool FailJobSet() const {
    bool bSet = false;
    return m_pCallback->GetScannerConfigurationBag()->Read("FailJobSet", bSet).IsSuccess() && bSet;
  }

  CTempTree m_tree;
  std::string m_strRoot, m_strBin, m_strJob, m_strOldPath;
  std::shared_ptr<CFakePlatform> m_pPlatform;
  std::shared_ptr<CEventRecorder> m_pEvents = std::make_shared<CEventRecorder>();
  std::shared_ptr<CTestCallback> m_pCallback = std::make_shared<CTestCallback>();
};

// True when the process still runs 5 s later: a SIGKILL sent takes a moment to end a process
// (a zombie counts as gone).
bool IsRunning(const std::string& strPidFile) {
  const int pid = atoi(ReadFileText(strPidFile).c_str());
  for (int i = 0; i < 500; ++i, std::this_thread::sleep_for(std::chrono::milliseconds(10))) {
    if (pid <= 1 || kill(pid, 0) != 0) return false;
    const std::string strStat = ReadFileText("/proc/" + std::to_string(pid) + "/stat");
    const size_t pos = strStat.rfind(')');
    if (pos == std::string::npos || pos + 2 >= strStat.size() || strStat[pos + 2] == 'Z') return false;
  }
  return true;
}

// ---- policy runs, their outcomes, and bad input: each gives its code, message and events ----

using Prepare = void (*)(GpfsFixture&, SFakeGpfs&);
struct SRunCase {
  const char* szName;
  SFakeGpfs fake;
  const char* szSettings;
  Prepare prepare;     // changes the fixture or the fake tools' output (nullptr: none)
  int iResult;         // 0 success, -1 errno EINVAL, else the Win32 code
  size_t nRuns;
  std::vector<std::string> lstEvents;
  const char* szLog;   // a message that must be logged (%R the volume, %J the job folder, %B the tools)
};

void Remote(GpfsFixture& f, SFakeGpfs&) { f.m_pPlatform->m_bRemote = true; }
const char kEnoent[] = "[E] Error on gpfs_iopen([/vol/gone],1234): No such file or directory\n"
                       "[E] Summary of errors:: _dirscan failed: 1 errors.\n";
const char kFatal[] = "[E] Error on gpfs_iopen([/vol/x],99): Permission denied\n";
const char kRemote[] = "gpfs0 is a gpfs device mounted from a remote cluster. GPFS optimized scan cannot be used";
const SRunCase kRunCases[] = {
    {"Success", {}, "", nullptr, 0, 1, {}, "'%J/GpfsCollect_id1.zrf' sorted."},
    {"Exit2OnlyEnoent", {.strPolicyStderr = kEnoent, .iPolicyExit = 2}, "", nullptr, 0, 1, {},
     "Parsing %J/GpfsCollect_id1.zrf.stderr to validate gpfs error"},
    {"Exit2ParsingDisabled", {.strPolicyStderr = kFatal, .iPolicyExit = 2}, "nDisableParseGpfsScanErrors=1\n", nullptr, 0, 1, {},
     "mmapplypolicy command failed with return code 2"},
    {"Exit2OtherError", {.strPolicyStderr = kFatal, .iPolicyExit = 2}, "", nullptr, 1627, 1, {"0x11000077"},
     "Found a fatal error. Do not use mmapplypolicy output. Line: '[E] Error on gpfs_iopen([/vol/x],99): Permission denied'"},
    {"Exit1RunsThreeTimes", {.iPolicyExit = 1}, "", nullptr, 1627, 3, {"0x11000077"}, "Gpfs scan will be retried again. Num Retries left: 1."},
    {"Exit1OneAttempt", {.iPolicyExit = 1}, "nGpfsScanNumRetry=1\n", nullptr, 1627, 1, {"0x11000077"},
     "mmapplypolicy command failed. GPFS scan will not be performed. error 1"},
    {"Exit1FailsTheJob", {.iPolicyExit = 1}, "nGpfsScanNumRetry=1\nnGpfsFailOnScanError=1\n", nullptr, 995, 1, {"0x11000079"},
     "GpfsScan error will be considered fatal and job will be failed."},
    {"ClusterDown", {.strState = "down"}, "", nullptr, -1, 0, {}, "Current status 'down:active:'."},
    {"ClusterDownFailsTheJob", {.strState = "down"}, "nGpfsFailOnScanError=1\n", nullptr, 995, 0, {}, "Current status 'down:active:'."},
    {"SuspendHangs", {.strSuspendWrite = "exec sleep 30"}, "nGpfsTimeout=1\n", nullptr, 1627, 0, {},
     "taking more time than 1 seconds. Reverting back to default scan"},
    {"SuspendWriteUnsupported", {.strSuspendWrite = "exit 1", .bUsageHasSuspendWrite = false}, "", nullptr, 0, 1, {},
     "mmfsctl suspend-write is not supported."},
    {"RemoteDevice", {.strSuspendWrite = "exit 1"}, "", Remote, 1627, 0, {"0x1100009A\"gpfs0\""}, kRemote},
    {"RemoteDeviceFailsTheJob", {.strSuspendWrite = "exit 1"}, "nGpfsFailOnScanError=1\n", Remote, 995, 0, {"0x1100009A\"gpfs0\""}, kRemote},
    {"NoPolicyTool", {.bWithPolicyTool = false}, "", nullptr, 995, 0, {},
     "Unable to locate GPFS binary path at %B/. Please set correct location of GPFS binary path in registry key "
     "'sGpfsBin' in in Additional Settings of GUI and resume the job."},
    {"EmptyPolicyOutput", {}, "", [](GpfsFixture&, SFakeGpfs& fake) { fake.strPolicyStdout.clear(); }, 1627, 1, {"0x11000077"},
     "Gpfs Scan failed. %J/GpfsCollect_id1.zrf.stdout does not exist or is empty."},
    {"UnwritableJobFolder", {}, "", [](GpfsFixture& f, SFakeGpfs&) { f.m_pCallback->Set("JR:subclient", f.m_tree.MakeFile("plain") + "/job"); },
     1627, 0, {"0x11000077"}, "Unable to create Gpfs scripts"},
    {"NeitherTimeSelected", {}, "", [](GpfsFixture& f, SFakeGpfs&) { f.m_pCallback->Set("JO:MTIME", false); }, 1627, 0,
     {"0x11000077"}, "Invalid option. Both m_bUseMtimeForIncr and m_bUseCtimeForIncr not selected"},
    {"NotEnabled", {}, "", [](GpfsFixture& f, SFakeGpfs&) { f.m_pCallback->Set("RegKey:GpfsScan", false); }, -1, 0, {},
     "Gpfs Scan not enabled. "},
    {"TruncatedRecord", {}, "",
     [](GpfsFixture& f, SFakeGpfs& fake) { fake.strPolicyStdout = "WEIGHT(INF) LIST 'MODIFIED' " + f.m_strRoot + "/cut"; }, -1, 1,
     {}, "Invalid entry WEIGHT(INF) LIST 'MODIFIED' %R/cut%ZRnewLine% in %J/GpfsCollect_id1.zrf"},
    {"NotAGpfsVolume", {}, "",
     [](GpfsFixture& f, SFakeGpfs&) { CGpfsPlatform::SetCurrent(std::make_shared<CFakePlatform>(f.m_tree.Path("other"), f.m_tree.Path("work"))); },
     -1, 0, {}, ""},
    {"NoCollectRecordAtAll", {}, "", [](GpfsFixture&, SFakeGpfs& fake) { fake.strPolicyStdout = "[I] nothing\n"; }, 0, 1, {},
     "'%J/GpfsCollect_id1.zrf' sorted."},
};

class GpfsRunTest : public ::testing::TestWithParam<SRunCase> {};

std::string Expand(std::string strText, const GpfsFixture& f) {
  for (const auto& [key, value] : {std::pair<std::string, std::string>{"%R", f.m_strRoot}, {"%J", f.m_strJob}, {"%B", f.m_strBin}})
    for (size_t pos; (pos = strText.find(key)) != std::string::npos;) strText.replace(pos, 2, value);
  return strText;
}

TEST_P(GpfsRunTest, OutcomeItemsAndEvents) {
  const SRunCase& c = GetParam();
  CLogCapture log;
  GpfsFixture f;
  SFakeGpfs fake = c.fake;
  fake.strPolicyStdout = PolicyOutput(f.m_strRoot);
  if (c.prepare != nullptr) c.prepare(f, fake);
  WriteFakeGpfsTools(f.m_strBin, fake);
  CQiError error = f.Run(c.szSettings);
  EXPECT_TRUE(c.iResult == 0 ? error.IsSuccess() : c.iResult < 0 ? error.IsErrNo(EINVAL) : error.IsWin32(c.iResult))
      << error.AsString();
  // Items come only from a good policy output, and only when the scan succeeds.
  const bool bItems = c.iResult == 0 && fake.strPolicyStdout == PolicyOutput(f.m_strRoot);
  EXPECT_EQ(Delivered(*f.m_pCallback), bItems ? ExpectedItems(f.m_strRoot) : std::vector<SRecord>{});
  EXPECT_EQ(f.Runs(), c.nRuns);
  EXPECT_EQ(f.m_pEvents->m_vEvents, c.lstEvents);
  // The job is failed exactly when the settings ask for it.
  EXPECT_EQ(f.FailJobSet(), std::string(c.szSettings).find("nGpfsFailOnScanError=1") != std::string::npos);
  EXPECT_GE(log->CountContaining(Expand(c.szLog, f)), 1u) << Expand(c.szLog, f);
}

INSTANTIATE_TEST_SUITE_P(Gpfs, GpfsRunTest, ::testing::ValuesIn(kRunCases),
                         [](const auto& info) { return std::string(info.param.szName); });

// ---- abort: the whole child tree goes, also when it ignores SIGTERM ----

struct SAbortCase {
  const char* szName;
  bool bInSuspend;
  bool bIgnoreTerm;
};

class GpfsAbortTest : public ::testing::TestWithParam<SAbortCase> {};

TEST_P(GpfsAbortTest, KillsEveryChild) {
  const SAbortCase& c = GetParam();
  GpfsFixture f;
  SFakeGpfs fake{.strPolicyStdout = PolicyOutput(f.m_strRoot)};
  const std::string strTool = c.bInSuspend ? "mmfsctl" : "mmapplypolicy", strChild = f.m_strBin + "/" + strTool + ".child";
  (c.bInSuspend ? fake.strSuspendWrite : fake.strPolicyBody) =
      std::string(c.bIgnoreTerm ? "trap '' TERM; " : "") + "sleep 60 & echo $! > \"$D/" + strTool + ".child\"; wait";
  WriteFakeGpfsTools(f.m_strBin, fake);
  std::thread aborter([&] {
    for (int i = 0; i < 1000 && ReadFileText(strChild).empty(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    (void)f.m_pCallback->Abort();
  });
  CQiError error = f.Run("nGpfsScanNumRetry=1\n");  // long enough for the suspension not to time out first
  aborter.join();
  EXPECT_TRUE(error.IsWin32(995)) << error.AsString();
  EXPECT_FALSE(IsRunning(f.m_strBin + "/" + strTool + ".pid"));
  EXPECT_FALSE(IsRunning(strChild));
  EXPECT_TRUE(Delivered(*f.m_pCallback).empty());
}

const SAbortCase kAbortCases[] = {{"DuringPolicyRun", false, false}, {"DuringPolicyRunIgnoringTerm", false, true},
                                  {"DuringSuspend", true, false}, {"DuringSuspendIgnoringTerm", true, true}};
INSTANTIATE_TEST_SUITE_P(Gpfs, GpfsAbortTest, ::testing::ValuesIn(kAbortCases),
                         [](const auto& info) { return std::string(info.param.szName); });

// ---- a scan path and job folder full of shell syntax run nothing ----

TEST(GpfsQuotingTest, MetacharactersInPathsRunNothing) {
  GpfsFixture f("v $(touch PWNED) `touch PWNED` \"q\" \\x 'y' -d\nnl");
  f.m_strJob = f.m_tree.MakeDir("job $(touch PWNED) 'z';touch PWNED");
  f.m_pCallback->Set("JR:subclient", f.m_strJob);
  WriteFakeGpfsTools(f.m_strBin, {.strPolicyStdout = PolicyOutput(f.m_strRoot)});
  char szCwd[4096];
  ASSERT_NE(getcwd(szCwd, sizeof(szCwd)), nullptr);
  CQiError error = f.Run();
  EXPECT_TRUE(error.IsSuccess()) << error.AsString();
  std::string strExpected;
  for (const std::string& strArg : {f.m_strRoot + "/", "-L"s, "2"s, "-P"s, f.m_strJob + "/GpfsMmPolicy_id1", "-I"s, "test"s,
                                    "-M"s, "RefTime=1000"s, "-s"s, f.m_tree.Path("work")})
    strExpected += strArg + '\0';
  EXPECT_EQ(ReadFileText(f.m_strBin + "/mmapplypolicy.args"), strExpected);
  EXPECT_EQ(Delivered(*f.m_pCallback), ExpectedItems(f.m_strRoot));
  EXPECT_NE(access((std::string(szCwd) + "/PWNED").c_str(), F_OK), 0);
  EXPECT_NE(access(f.m_tree.Path("PWNED").c_str(), F_OK), 0);
}

// ---- the texts handed to the GPFS tools, byte for byte ----

const std::string kShowBase =
    "SHOW( CONCAT( CONCAT( CONCAT( CONCAT( CONCAT( CONCAT( '', VARCHAR(MODE,1) ), ':'), VARCHAR(FILE_SIZE) ), ':' ), "
    "VARCHAR(NLINK) ), '' ) )";
const std::string kShowLinks =
    "SHOW( CONCAT( CONCAT( CONCAT( CONCAT( CONCAT( CONCAT( CONCAT( CONCAT( CONCAT( CONCAT( '', VARCHAR(MODE,1) ), "
    "':'), VARCHAR(FILE_SIZE) ), ':' ), VARCHAR(NLINK) ), ':' ), VARCHAR(INODE) ), ':' ), "
    "VARCHAR(toUnixSeconds(CHANGE_TIME)) ), '' ) )";
const std::string kShowAll =
    "SHOW( CONCAT( CONCAT( CONCAT( CONCAT( CONCAT( CONCAT( CONCAT( CONCAT( CONCAT( CONCAT( CONCAT( CONCAT( CONCAT( "
    "CONCAT( '', VARCHAR(MODE,1) ), ':'), VARCHAR(FILE_SIZE) ), ':' ), VARCHAR(NLINK) ), ':' ), VARCHAR(INODE) ), ':' "
    "), VARCHAR(toUnixSeconds(CHANGE_TIME)) ), ':'), VARCHAR(toUnixSeconds(ACCESS_TIME)) ), ':' ), "
    "VARCHAR(toUnixSeconds(MODIFICATION_TIME)) ), '' ) )";
const std::string kDefines =
    "define([toSeconds],[(($1) SECONDS(12,6))])\ndefine([toUnixSeconds],[toSeconds($1 - '1970-1-1@0:00')])\n";

struct STextCase {
  const char* szName;
  std::string (*make)();
  std::string strExpected;
};

std::string Policy(bool bLinks, bool bTrueUp, bool bMtime, bool bCtime, bool bOffline) {
  CGpfsPolicy::SOptions options;
  options.bHardLinks = bLinks, options.bTrueUp = bTrueUp, options.bUseMtime = bMtime;
  options.bUseCtime = bCtime, options.bSkipOffline = bOffline;
  std::string strText;
  return CGpfsPolicy::BuildPolicyText(options, strText).IsError() ? "error" : strText;
}

const STextCase kTextCases[] = {
    {"PolicyMtime", [] { return Policy(false, false, true, false, false); },
     "RULE 'A' LIST 'modified' DIRECTORIES_PLUS " + kShowBase + "WHERE (MODIFICATION_TIME > TIMESTAMP(RefTime))\n" +
         "RULE 'B' LIST 'unmodified' DIRECTORIES_PLUS " + kShowBase + "WHERE (MODIFICATION_TIME <= TIMESTAMP(RefTime))"},
    {"PolicyHardLinksBothTimesOffline", [] { return Policy(true, false, true, true, true); },
     kDefines + "RULE 'A' LIST 'modified' DIRECTORIES_PLUS " + kShowLinks +
         "WHERE ((MODIFICATION_TIME > TIMESTAMP(RefTime) or CHANGE_TIME > TIMESTAMP(RefTime)) and not "
         "REGEX(MISC_ATTRIBUTES, '[o]'))\nRULE 'B' LIST 'unmodified' DIRECTORIES_PLUS " + kShowLinks +
         "WHERE (MODIFICATION_TIME <= TIMESTAMP(RefTime) and CHANGE_TIME <= TIMESTAMP(RefTime) and not "
         "REGEX(MISC_ATTRIBUTES, '[o]'))"},
    {"PolicyTrueUpCtimeOffline", [] { return Policy(false, true, false, true, true); },
     kDefines + "RULE 'A' LIST 'modified' DIRECTORIES_PLUS " + kShowAll +
         "WHERE ((CHANGE_TIME > TIMESTAMP(RefTime)) and not REGEX(MISC_ATTRIBUTES, '[o]'))\n"
         "RULE 'B' LIST 'unmodified' DIRECTORIES_PLUS " + kShowAll +
         "WHERE ((CHANGE_TIME <= TIMESTAMP(RefTime)) and not REGEX(MISC_ATTRIBUTES, '[o]'))"},
    {"PolicyNoTime", [] { return Policy(true, true, false, false, true); }, "error"},
    {"ScriptLine",
     [] {
       return CGpfsPolicy::BuildScriptLine("/usr/lpp/mmfs/bin/", "/gpfs/fs1/dir", "/jr/GpfsMmPolicy_7", 1700000000,
                                           "/jr/GpfsCollect_7.zrf.stderr", "/tmp", "/jr/GpfsCollect_7.zrf.stdout");
     },
     "/usr/lpp/mmfs/bin/mmapplypolicy \"/gpfs/fs1/dir/\" -L 2 -P /jr/GpfsMmPolicy_7 -I test -M RefTime=1700000000 "
     "2>/jr/GpfsCollect_7.zrf.stderr -s /tmp > /jr/GpfsCollect_7.zrf.stdout"},
};

class GpfsTextTest : public ::testing::TestWithParam<STextCase> {};
TEST_P(GpfsTextTest, IsExact) { EXPECT_EQ(GetParam().make(), GetParam().strExpected); }
INSTANTIATE_TEST_SUITE_P(Gpfs, GpfsTextTest, ::testing::ValuesIn(kTextCases),
                         [](const auto& info) { return std::string(info.param.szName); });

// ---- collect records: what the enumerator makes of each, and what it refuses ----

struct SRecordCase {
  const char* szName;
  int iColumns;  // 0 base, 1 hard links, 2 true-up
  std::vector<std::string> lstLines;
  // "path|mode|size|links|inode|ctime|atime|mtime|blocks|device" per item; "EINVAL" ends the listing
  std::vector<std::string> lstExpected;
};

const SRecordCase kRecordCases[] = {
    {"BaseColumnsFolderGetsReferenceTimePlusOne", 0,
     {"WEIGHT(INF) LIST 'MODIFIED' /r/d SHOW(d:0:2)", "WEIGHT(INF) LIST 'UNMODIFIED' /r/f SHOW(-:1025:1)"},
     {"/src/d|40000|0|2|0|1001|0|1001|0|77", "/src/f|100000|1025|1|0|0|0|0|3|77"}},
    {"HardLinkColumns", 1, {"WEIGHT(INF) LIST 'MODIFIED' /r/a SHOW(-:10:2:4711:1500)"},
     {"/src/a|100000|10|2|4711|1500|0|0|0|77"}},
    {"AllTimeColumns", 2, {"Weight(Inf) List 'Unmodified' /r/b SHOW(l:5:1:9:1501:1502:1503)"},
     {"/src/b|120000|5|1|9|1501|1502|1503|1|77"}},
    {"NewlineMarkerAndShowInName", 0, {"WEIGHT(INF) LIST 'MODIFIED' /r/a%ZRnewLine% SHOW(x SHOW(-:1:1)"},
     {"/src/a\n SHOW(x|100000|1|1|0|0|0|0|0|77"}},
    {"NameWithoutSlashIsSkipped", 0,
     {"WEIGHT(INF) LIST 'MODIFIED' name SHOW(-:1:1)", "WEIGHT(INF) LIST 'MODIFIED' /r/n SHOW(-:2:1)"},
     {"/src/n|100000|2|1|0|0|0|0|0|77"}},
    {"NoListPrefix", 0, {"WEIGHT(INF) LIST 'OTHER' /r/a SHOW(-:1:1)"}, {"EINVAL"}},
    {"TruncatedRecord", 0, {"WEIGHT(INF) LIST 'MODIFIED' /r/a SHOW(-:1"}, {"EINVAL"}},
    {"TooFewValues", 1, {"WEIGHT(INF) LIST 'MODIFIED' /r/a SHOW(-:1:1)"}, {"EINVAL"}},
    {"NotANumber", 0, {"WEIGHT(INF) LIST 'MODIFIED' /r/a SHOW(-:x1:1)"}, {"EINVAL"}},
    {"NotUtf8", 0, {"WEIGHT(INF) LIST 'MODIFIED' /r/ok SHOW(-:1:1)", "WEIGHT(INF) LIST 'MODIFIED' /r/\xff\xfe SHOW(-:1:1)"},
     {"/src/ok|100000|1|1|0|0|0|0|0|77", "EINVAL"}},
};

class GpfsRecordTest : public ::testing::TestWithParam<SRecordCase> {};

TEST_P(GpfsRecordTest, ItemsFromRecords) {
  const SRecordCase& c = GetParam();
  CLogCapture log;
  CTempTree tree;
  std::string strText;
  for (const std::string& strLine : c.lstLines) strText += strLine + "\n";
  const std::string strCollect = tree.MakeFile("collect.zrf", strText);
  uint64_t ullDevice = 77, ullReference = 1000;
  CGpfsPathEnumerator enumerator(strCollect, ullDevice, ullReference, "/r/", "/src", c.iColumns == 1, false,
                                 c.iColumns == 2);
  CItemPtr pRoot;
  ASSERT_TRUE(enumerator.GetItemByPath(tree.Root(), tree.Root(), pRoot).IsSuccess());
  std::vector<std::string> lstSeen;
  CItemPtr pItem;
  CQiError error = enumerator.FindFirst("/r/", pRoot, pItem);
  for (; error.IsSuccess(); error = enumerator.FindNext(pItem)) {
    const auto* pFound = dynamic_cast<CFindFirstItem*>(pItem.get());
    ASSERT_NE(pFound, nullptr);
    const struct stat& st = pFound->GetFindFirstRawData();
    lstSeen.push_back(FXString::Format("%s|%o|%lld|%llu|%llu|%lld|%lld|%lld|%lld|%llu",
                                       pItem->GetSourceFullyQualifiedItemName().c_str(), st.st_mode,
                                       static_cast<long long>(st.st_size), static_cast<unsigned long long>(st.st_nlink),
                                       static_cast<unsigned long long>(st.st_ino), static_cast<long long>(st.st_ctime),
                                       static_cast<long long>(st.st_atime), static_cast<long long>(st.st_mtime),
                                       static_cast<long long>(st.st_blocks), static_cast<unsigned long long>(st.st_dev)));
  }
  if (error.IsErrNo(EINVAL)) {
    lstSeen.push_back("EINVAL");
    EXPECT_EQ(log->CountContaining("Invalid entry " + FXString::EscapeControl(c.lstLines.back()) + " in " + strCollect), 1u);
    EXPECT_TRUE(enumerator.GetCollectError().IsErrNo(EINVAL));
  } else {
    EXPECT_TRUE(error.IsWin32(18)) << error.AsString();
  }
  EXPECT_EQ(lstSeen, c.lstExpected);
  // Any other folder lists nothing: every record came with the scan path.
  EXPECT_TRUE(enumerator.FindFirst("/r/d/", pRoot, pItem).IsWin32(18));
}

INSTANTIATE_TEST_SUITE_P(Gpfs, GpfsRecordTest, ::testing::ValuesIn(kRecordCases),
                         [](const auto& info) { return std::string(info.param.szName); });

}  // namespace
