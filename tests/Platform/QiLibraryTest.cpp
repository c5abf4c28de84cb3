#include <gtest/gtest.h>

#include <dlfcn.h>
#include <limits.h>
#include <stdlib.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <optional>

#include "Platform/FXErrorUtil.h"
#include "Platform/QiLibrary.h"
#include "Support/PlatformTestSupport.h"
#include "Support/TempTree.h"

#ifndef FSSCAN_TEST_MODULE_DIR
#error "FSSCAN_TEST_MODULE_DIR must name the folder of the test plug-in modules"
#endif

namespace {

const std::string kModuleDir = FSSCAN_TEST_MODULE_DIR;
const std::string kModule = "FsScanTestModule";
const std::string kLacking = "FsScanTestModuleLacking";

// True when the file is mapped into the process right now.
bool IsMapped(const std::string& path) {
  void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_NOLOAD);
  if (handle == nullptr) return false;
  dlclose(handle);
  return true;
}

// Sets FSSCAN_PLUGIN_PATH for one test and restores the previous value afterwards.
class QiLibraryFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    if (const char* value = getenv(CQiLibrary::kPluginPathVariable)) m_oldPath = value;
    unsetenv(CQiLibrary::kPluginPathVariable);
  }
  void TearDown() override {
    if (m_oldPath) {
      setenv(CQiLibrary::kPluginPathVariable, m_oldPath->c_str(), 1);
    } else {
      unsetenv(CQiLibrary::kPluginPathVariable);
    }
  }
  void SetPluginPath(const std::string& value) {
    setenv(CQiLibrary::kPluginPathVariable, value.c_str(), 1);
  }

  std::optional<std::string> m_oldPath;
  CTempTree m_tree;
};

TEST_F(QiLibraryFixture, SearchFoldersAreTheVariablesFoldersThenTheOwnFolder) {
  const std::string own = CQiLibrary::GetOwnFolder();
  CQiLibrary library;
  ASSERT_TRUE(library.Load(kModule).IsSuccess());
  EXPECT_EQ(library.GetName() + " " + library.GetPath(), kModule + " " + own + "/libFsScanTestModule.so");
  EXPECT_EQ(CQiLibrary::GetSearchFolders(), std::vector<std::string>{own});
  SetPluginPath("/opt/a::/opt/b:");
  EXPECT_EQ(CQiLibrary::GetSearchFolders(), (std::vector<std::string>{"/opt/a", "/opt/b", own}));
  // A copy of the module in a folder of the variable wins over the one next to the executable.
  std::string copy = m_tree.MakeDir("plugins") + "/libFsScanTestModule.so";
  std::filesystem::copy_file(kModuleDir + "/libFsScanTestModule.so", copy);
  SetPluginPath(m_tree.Root() + ":" + m_tree.Path("plugins"));
  CQiLibrary fromCopy;
  ASSERT_TRUE(fromCopy.Load(kModule).IsSuccess());
  EXPECT_EQ(fromCopy.GetPath(), copy);
  EXPECT_TRUE(IsMapped(copy));
}

struct SExportCase {
  std::string module;
  std::string exportName;
  const char* code;  // see ErrorCode
};
class QiLibraryExportTable : public QiLibraryFixture,
                             public ::testing::WithParamInterface<SExportCase> {};

TEST_P(QiLibraryExportTable, ResolvesOrReportsTheMissingExport) {
  const SExportCase& c = GetParam();
  SetPluginPath(kModuleDir);
  CQiLibrary library;
  ASSERT_TRUE(library.Load(c.module).IsSuccess());
  int (*function)() = reinterpret_cast<int (*)()>(1);
  CQiError error = library.Resolve(c.exportName, function);
  ASSERT_EQ(ErrorCode(error), c.code) << error.AsString();
  // The output is cleared on failure, never left pointing somewhere.
  EXPECT_EQ(function == nullptr, error.IsError());
  if (error.IsWin32(QiErrorCode::ProcNotFound)) {
    EXPECT_EQ(error.GetMessage(), "Export [" + c.exportName + "] not found in library [" +
                                      kModuleDir + "/lib" + c.module + ".so]");
  }
}

INSTANTIATE_TEST_SUITE_P(
    Exports, QiLibraryExportTable,
    ::testing::Values(SExportCase{kLacking, "FsScanTestModuleNextValue", "W1287"},
                      SExportCase{kModule, "fsscantestmoduleanswer", "W1287"},
                      SExportCase{kModule, "", "W87"},
                      SExportCase{kModule, std::string("FsScanTestModuleAnswer\0x", 24), "W87"}));

// Load failures: what the plug-in folder (the tree, the only folder of the variable) holds, the
// name Load is given, and the code and exact message. '@' stands for the tree's root, '#' for
// the library's own folder.
struct SLoadFailureCase {
  const char* name;
  const char* make;  // "f:<name>" a text file, "d:<name>" a folder
  std::string load;
  const char* code;
  std::string message;
};
class QiLibraryLoadFailureTable : public QiLibraryFixture,
                                  public ::testing::WithParamInterface<SLoadFailureCase> {};

TEST_P(QiLibraryLoadFailureTable, FailsWithAClearError) {
  const SLoadFailureCase& c = GetParam();
  SetPluginPath(m_tree.Root());
  const std::string made = std::string(c.make).substr(std::min<size_t>(2, strlen(c.make)));
  if (c.make[0] == 'f')
    m_tree.MakeFile(
        made, "This is a text file, not a shared object; the loader must refuse it clearly.\n");
  if (c.make[0] == 'd') m_tree.MakeDir(made);
  auto expand = [&](const std::string& text) {
    std::string out = Expand(text, m_tree.Root());
    for (size_t at; (at = out.find('#')) != std::string::npos;)
      out.replace(at, 1, CQiLibrary::GetOwnFolder());
    return out;
  };
  CQiLibrary library;
  CQiError error = library.Load(expand(c.load));
  EXPECT_EQ(ErrorCode(error), c.code) << error.AsString();
  EXPECT_EQ(error.GetMessage(), expand(c.message));
  EXPECT_FALSE(library.IsLoaded());
  EXPECT_EQ(library.GetPath(), "");
}

const char* const kNoSuchFile = ".so: cannot open shared object file: No such file or directory";
INSTANTIATE_TEST_SUITE_P(
    LoadFailures, QiLibraryLoadFailureTable,
    ::testing::Values(
        SLoadFailureCase{"MissingLibrary", "", "FsScanNoSuchPlugin", "E2",
                         "Library [FsScanNoSuchPlugin] not found: file [libFsScanNoSuchPlugin.so] "
                         "is in none of the folders [@, #] and the system loader failed: "
                         "libFsScanNoSuchPlugin" +
                             std::string(kNoSuchFile)},
        SLoadFailureCase{"NotASharedObject", "f:libBogus.so", "Bogus", "E8",
                         "Library [Bogus] cannot be loaded from [@/libBogus.so]: @/libBogus.so: "
                         "invalid ELF header"},
        // A found file that fails to load ends the search: a broken plug-in is reported, not
        // silently replaced by the good copy in the own folder.
        SLoadFailureCase{
            "BrokenCopyHidesTheGoodOne", "f:libFsScanTestModule.so", "FsScanTestModule", "E8",
            "Library [FsScanTestModule] cannot be loaded from "
            "[@/libFsScanTestModule.so]: @/libFsScanTestModule.so: invalid ELF header"},
        // A folder that happens to carry the file name is not a candidate; the search goes on
        // and ends at the system loader.
        SLoadFailureCase{"FolderWithTheFileName", "d:libFolder.so", "Folder", "E2",
                         "Library [Folder] not found: file [libFolder.so] is in none of the "
                         "folders [@, #] and the system loader failed: libFolder" +
                             std::string(kNoSuchFile)},
        SLoadFailureCase{"MissingPath", "", "@/nowhere/libX.so", "E2",
                         "Library file [@/nowhere/libX.so] cannot be accessed"},
        SLoadFailureCase{"PathToAFolder", "d:dir", "@/dir", "E8",
                         "Library file [@/dir] is not a regular file"},
        SLoadFailureCase{"EmptyName", "", "", "W87", "Library name is empty"},
        SLoadFailureCase{"NulByte", "", std::string("Zr\0DB", 5), "W87",
                         "Library name [Zr\\x00DB] contains a NUL byte"},
        SLoadFailureCase{"LongerThanPathMax", "", std::string(PATH_MAX, 'a'), "E36",
                         "Library name is longer than PATH_MAX (4096 bytes)"}),
    [](const ::testing::TestParamInfo<SLoadFailureCase>& info) { return info.param.name; });

// An unload drops the module and its state; two objects share one mapping until the last
// of them unloads.
TEST_F(QiLibraryFixture, UnloadDropsTheModuleWithTheLastObject) {
  SetPluginPath(kModuleDir);
  const std::string path = kModuleDir + "/libFsScanTestModule.so";
  ASSERT_FALSE(IsMapped(path));
  CQiLibrary library, second;
  int (*next)() = nullptr;
  ASSERT_TRUE(library.Load(kModule).IsSuccess());
  ASSERT_TRUE(library.Resolve("FsScanTestModuleNextValue", next).IsSuccess());
  const int first = next();
  EXPECT_EQ(first + 10 * next(), 21);
  ASSERT_TRUE(library.Unload().IsSuccess());
  EXPECT_FALSE(library.IsLoaded());
  EXPECT_FALSE(IsMapped(path));
  void* address = nullptr;
  CQiError error = library.GetProcAddress("FsScanTestModuleNextValue", address);
  EXPECT_TRUE(error.IsWin32(QiErrorCode::InvalidHandle));
  EXPECT_EQ(error.GetMessage(), "No library loaded, Export=[FsScanTestModuleNextValue]");
  EXPECT_TRUE(library.Unload().IsSuccess());  // a second unload does nothing

  // Loaded again, the module starts from fresh state.
  ASSERT_TRUE(library.Load(kModule).IsSuccess());
  ASSERT_TRUE(second.Load(path).IsSuccess());
  ASSERT_TRUE(library.Resolve("FsScanTestModuleNextValue", next).IsSuccess());
  EXPECT_EQ(next(), 1);
  ASSERT_TRUE(library.Unload().IsSuccess());
  EXPECT_TRUE(IsMapped(path));
  ASSERT_TRUE(second.Resolve("FsScanTestModuleNextValue", next).IsSuccess());
  EXPECT_EQ(next(), 2);
  ASSERT_TRUE(second.Unload().IsSuccess());
  EXPECT_FALSE(IsMapped(path));
}

}  // namespace
