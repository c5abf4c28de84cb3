// The Lustre engine's full walk (CLustreRecursiveEnumerateFiles into a scan database, two
// workers) over a real tree of FOLDERS folders of FILES files, with the FIDs had three ways:
//   simulated  in this process (an lstat per entry, as with liblustreapi's llapi_path2fid);
//   batched    the tools API without the library: one `lfs path2fid` per batch of entries;
//   per-entry  one `lfs path2fid PATH` per entry (the walk before batching), on the first
//              PER_ENTRY folders only: it is that slow.
// The `lfs` is a Perl stand-in written to OUT/bin (one process per call, an lstat per path, the
// output lines of the real tool), so the figures are the cost of the processes and the walk.
// Prints "NAME_entries N" and "NAME_s SECONDS" lines.
//
// Usage: LustreFullWalkBench OUT [FOLDERS [FILES [PER_ENTRY]]]
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "Platform/FXFile.h"
#include "Scan/ScanDB/ScanDbFiles.h"
#include "Scan/ScanDB/ScanDbStore.h"
#include "Scan/Unix/LustreHardlinkManager.h"
#include "Scan/Unix/LustreRecursiveEnumerateFiles.h"
#include "Scan/Unix/LustreToolsAPI.h"
#include "Scan/Unix/SimulatedLustreAPI.h"

namespace {

const char* const kFakeLfs =
    "#!/usr/bin/perl\n"
    "shift; my $rc = 0;\n"
    "for my $p (@ARGV) {\n"
    "  my @s = lstat $p;\n"
    "  if (!@s) { print STDERR \"lfs path2fid: cannot get fid for '$p': No such file or directory\\n\"; $rc = 2; next }\n"
    "  my $f = sprintf('[0x%x:0x%x:0x0]', 0x200000400 + ($s[1] >> 32), $s[1] & 0xffffffff);\n"
    "  print @ARGV == 1 ? \"$f\\n\" : \"$p: $f\\n\";\n"
    "}\n"
    "exit $rc;\n";

// The tools API as the walk used it before batching: one lfs per entry.
class CPerEntryToolsAPI : public CLustreToolsAPI {
 public:
  CQiError GetFIDsFromPaths(const std::vector<std::string>& lstPaths, std::vector<CLustreFID>& lstFids,
                            std::vector<CQiError>& lstErrors) override {
    return LustreAPI::GetFIDsFromPaths(lstPaths, lstFids, lstErrors);
  }
};

void MakeFile(const std::string& strPath) {
  const int fd = open(strPath.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
  if (fd < 0) {
    perror(strPath.c_str());
    exit(1);
  }
  close(fd);
}

void Check(const CQiError& error, const char* szWhat) {
  if (error.IsSuccess()) return;
  fprintf(stderr, "%s failed: %s\n", szWhat, error.AsString().c_str());
  exit(1);
}

// Walks strRoot into a fresh database below strOut; prints the entries added and the seconds.
void Walk(const char* szName, LustreAPI& api, const std::string& strOut, const std::string& strRoot) {
  const std::string strDb = strOut + "/db-" + szName;
  (void)CScanDbFiles::Remove(strDb);
  CScanDbStore store;
  Check(store.Open(strDb), "Open");
  CLustreHardlinkManager hardlinks;
  const auto t0 = std::chrono::steady_clock::now();
  Check(store.BeginBulk(), "BeginBulk");
  CLustreRecursiveEnumerateFiles walk(nullptr, store, api, hardlinks);
  walk.SetMaxWorkers(2);
  struct stat st {};
  if (lstat(strRoot.c_str(), &st) != 0) exit(1);
  Check(walk.AddRecord(strRoot, st), "AddRecord");
  walk.AddFolderToList(strRoot, strRoot);
  Check(walk.Traverse(), "Traverse");
  Check(store.EndBulk(true), "EndBulk");
  const double dSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  printf("%s_entries %llu\n%s_s %.3f\n", szName, static_cast<unsigned long long>(walk.GetAddedCount()), szName,
         dSeconds);
  fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    fprintf(stderr, "usage: LustreFullWalkBench OUT [FOLDERS [FILES [PER_ENTRY]]]\n");
    return 2;
  }
  (void)mkdir(argv[1], 0755);
  char* szOut = realpath(argv[1], nullptr);  // the database keeps absolute paths
  if (szOut == nullptr) {
    perror(argv[1]);
    return 1;
  }
  const std::string strOut = szOut;
  free(szOut);
  const int iFolders = argc > 2 ? atoi(argv[2]) : 100;
  const int iFiles = argc > 3 ? atoi(argv[3]) : 1000;
  const int iPerEntry = argc > 4 ? atoi(argv[4]) : 2;
  const std::string strRoot = strOut + "/fs", strSmall = strOut + "/small", strBin = strOut + "/bin";
  for (const std::string& strDir : {strOut, strRoot, strSmall, strBin}) (void)mkdir(strDir.c_str(), 0755);
  for (int d = 0; d < iFolders; ++d) {
    const std::string strFolder = strRoot + "/dir " + std::to_string(d);
    const std::string strSmallFolder = strSmall + "/dir " + std::to_string(d);
    (void)mkdir(strFolder.c_str(), 0755);
    if (d < iPerEntry) (void)mkdir(strSmallFolder.c_str(), 0755);
    for (int f = 0; f < iFiles; ++f) {
      const std::string strName = "/file " + std::to_string(f);
      MakeFile(strFolder + strName);
      if (d < iPerEntry) MakeFile(strSmallFolder + strName);
    }
  }
  Check(FXFile::ReplaceWithText(strBin + "/lfs", kFakeLfs), "write lfs");
  (void)chmod((strBin + "/lfs").c_str(), 0755);
  for (const char* szTool : {"lctl", "ssh"}) (void)symlink("/bin/true", (strBin + "/" + szTool).c_str());
  const char* szPath = getenv("PATH");
  setenv("PATH", (strBin + ":" + (szPath != nullptr ? szPath : "")).c_str(), 1);

  CSimulatedLustreAPI simulated(strRoot, {{"lustre-MDT0000", "mds0"}});
  Walk("simulated", simulated, strOut, strRoot);
  CLustreToolsAPI batched({strOut + "/no-liblustreapi.so"});
  Check(batched.LoadFunctions(), "LoadFunctions");
  Walk("batched", batched, strOut, strRoot);
  CPerEntryToolsAPI perEntry;
  Walk("per_entry", perEntry, strOut, strSmall);
  return 0;
}
