#include <gtest/gtest.h>

#include <dlfcn.h>
#include <limits.h>
#include <stdlib.h>

#include <cerrno>
#include <filesystem>
#include <optional>

#include "Platform/FXErrorUtil.h"
#include "Platform/QiLibrary.h"
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
  SetPluginPath("/opt/a::/opt/b:");
  std::vector<std::string> expected = {"/opt/a", "/opt/b", CQiLibrary::GetOwnFolder()};
  EXPECT_EQ(CQiLibrary::GetSearchFolders(), expected);
  unsetenv(CQiLibrary::kPluginPathVariable);
  EXPECT_EQ(CQiLibrary::GetSearchFolders(), std::vector<std::string>{CQiLibrary::GetOwnFolder()});
}

TEST_F(QiLibraryFixture, LoadsByLogicalNameThroughThePluginPathAndCallsExports) {
  SetPluginPath(m_tree.Root() + ":" + kModuleDir);
  CQiLibrary library;
  ASSERT_TRUE(library.Load(kModule).IsSuccess());
  EXPECT_TRUE(library.IsLoaded());
  EXPECT_EQ(library.GetName(), kModule);
  EXPECT_EQ(library.GetPath(), kModuleDir + "/libFsScanTestModule.so");

  int (*answer)() = nullptr;
  ASSERT_TRUE(library.Resolve("FsScanTestModuleAnswer", answer).IsSuccess());
  ASSERT_NE(answer, nullptr);
  EXPECT_EQ(answer(), 42);
  void* address = nullptr;
  ASSERT_TRUE(library.GetProcAddress("FsScanTestModuleNextValue", address).IsSuccess());
  EXPECT_NE(address, nullptr);
}

TEST_F(QiLibraryFixture, ThePluginPathComesBeforeTheOwnFolder) {
  // A copy of the module in a folder of the variable wins over the one next to the executable.
  std::string copy = m_tree.MakeDir("plugins") + "/libFsScanTestModule.so";
  std::filesystem::copy_file(kModuleDir + "/libFsScanTestModule.so", copy);
  SetPluginPath(m_tree.Path("plugins"));
  CQiLibrary library;
  ASSERT_TRUE(library.Load(kModule).IsSuccess());
  EXPECT_EQ(library.GetPath(), copy);
  EXPECT_TRUE(IsMapped(copy));
}

TEST_F(QiLibraryFixture, WithoutThePluginPathTheOwnFolderIsSearched) {
  CQiLibrary library;
  ASSERT_TRUE(library.Load(kModule).IsSuccess());
  EXPECT_EQ(library.GetPath(), CQiLibrary::GetOwnFolder() + "/libFsScanTestModule.so");
}

TEST_F(QiLibraryFixture, ANameWithASlashIsLoadedAsAPath) {
  // Logical-name search would find a different file first; a path bypasses it.
  m_tree.MakeFile("libFsScanTestModule.so", std::string(200, 'x'));
  SetPluginPath(m_tree.Root());
  CQiLibrary library;
  std::string path = kModuleDir + "/libFsScanTestModuleLacking.so";
  ASSERT_TRUE(library.Load(path).IsSuccess());
  EXPECT_EQ(library.GetPath(), path);
  int (*answer)() = nullptr;
  EXPECT_TRUE(library.Resolve("FsScanTestModuleAnswer", answer).IsSuccess());
}

struct SExportCase {
  const char* name;
  std::string module;
  std::string exportName;
  uint32_t expectedCode;  // 0: resolves
};

void PrintTo(const SExportCase& c, std::ostream* out) { *out << c.name; }

class QiLibraryExportTable : public QiLibraryFixture,
                             public ::testing::WithParamInterface<SExportCase> {};

TEST_P(QiLibraryExportTable, ResolvesOrReportsTheMissingExport) {
  const SExportCase& c = GetParam();
  SetPluginPath(kModuleDir);
  CQiLibrary library;
  ASSERT_TRUE(library.Load(c.module).IsSuccess());
  int (*function)() = reinterpret_cast<int (*)()>(1);
  CQiError error = library.Resolve(c.exportName, function);
  if (c.expectedCode == 0) {
    ASSERT_TRUE(error.IsSuccess()) << error.AsString();
    EXPECT_NE(function, nullptr);
    return;
  }
  ASSERT_TRUE(error.IsWin32(c.expectedCode)) << error.AsString();
  if (c.expectedCode == QiErrorCode::ProcNotFound) {
    EXPECT_EQ(error.GetMessage(), "Export [" + c.exportName + "] not found in library [" +
                                      kModuleDir + "/lib" + c.module + ".so]");
  }
  // The output is cleared on failure, never left pointing somewhere.
  EXPECT_EQ(function, nullptr);
}

INSTANTIATE_TEST_SUITE_P(
    Exports, QiLibraryExportTable,
    ::testing::Values(
        SExportCase{"Present", kModule, "FsScanTestModuleNextValue", 0},
        SExportCase{"PresentInLacking", kLacking, "FsScanTestModuleAnswer", 0},
        SExportCase{"MissingInLacking", kLacking, "FsScanTestModuleNextValue",
                    QiErrorCode::ProcNotFound},
        SExportCase{"DatabaseFactoryMissing", kModule, "GetDatabaseObject",
                    QiErrorCode::ProcNotFound},
        SExportCase{"CaseMatters", kModule, "fsscantestmoduleanswer", QiErrorCode::ProcNotFound},
        SExportCase{"EmptyName", kModule, "", QiErrorCode::InvalidParameter},
        SExportCase{"NulInName", kModule, std::string("FsScanTestModuleAnswer\0x", 24),
                    QiErrorCode::InvalidParameter}),
    [](const ::testing::TestParamInfo<SExportCase>& info) { return info.param.name; });

// Load failures: each case names what Load is given, what the plug-in folder holds, and the
// code and message that must come back.
struct SLoadFailureCase {
  const char* name;
  std::string (*setUp)(CTempTree& tree);  // returns the name to load; tree is the plug-in path
  CQiError::EQiErrorSpace space;
  uint32_t code;
  std::string (*expectedMessage)(const CTempTree& tree);  // exact message
};

void PrintTo(const SLoadFailureCase& c, std::ostream* out) { *out << c.name; }

std::string OwnFolder() { return CQiLibrary::GetOwnFolder(); }

class QiLibraryLoadFailureTable : public QiLibraryFixture,
                                  public ::testing::WithParamInterface<SLoadFailureCase> {};

TEST_P(QiLibraryLoadFailureTable, FailsWithAClearError) {
  const SLoadFailureCase& c = GetParam();
  SetPluginPath(m_tree.Root());
  std::string name = c.setUp(m_tree);
  CQiLibrary library;
  CQiError error = library.Load(name);
  ASSERT_TRUE(error.IsError());
  EXPECT_EQ(error.GetSpace(), c.space) << error.AsString();
  EXPECT_EQ(error.GetCode(), c.code) << error.AsString();
  EXPECT_EQ(error.GetMessage(), c.expectedMessage(m_tree));
  EXPECT_FALSE(library.IsLoaded());
  EXPECT_EQ(library.GetPath(), "");
}

INSTANTIATE_TEST_SUITE_P(
    LoadFailures, QiLibraryLoadFailureTable,
    ::testing::Values(
        SLoadFailureCase{
            "MissingLibrary", [](CTempTree&) { return std::string("FsScanNoSuchPlugin"); },
            CQiError::EQiErrorSpace::ErrNo, ENOENT,
            [](const CTempTree& tree) {
              return "Library [FsScanNoSuchPlugin] not found: file [libFsScanNoSuchPlugin.so] is "
                     "in none of the folders [" + tree.Root() + ", " + OwnFolder() +
                     "] and the system loader failed: libFsScanNoSuchPlugin.so: cannot open "
                     "shared object file: No such file or directory";
            }},
        SLoadFailureCase{
            "NotASharedObject",
            [](CTempTree& tree) {
              tree.MakeFile("libBogus.so", "This is a text file, not a shared object; the "
                                           "loader must refuse it with a clear message.\n");
              return std::string("Bogus");
            },
            CQiError::EQiErrorSpace::ErrNo, ENOEXEC,
            [](const CTempTree& tree) {
              return "Library [Bogus] cannot be loaded from [" + tree.Path("libBogus.so") +
                     "]: " + tree.Path("libBogus.so") + ": invalid ELF header";
            }},
        SLoadFailureCase{
            "EmptyFile",
            [](CTempTree& tree) {
              tree.MakeFile("libEmpty.so");
              return std::string("Empty");
            },
            CQiError::EQiErrorSpace::ErrNo, ENOEXEC,
            [](const CTempTree& tree) {
              return "Library [Empty] cannot be loaded from [" + tree.Path("libEmpty.so") +
                     "]: " + tree.Path("libEmpty.so") + ": file too short";
            }},
        SLoadFailureCase{
            // A folder that happens to carry the file name is not a candidate; the search goes
            // on and ends at the system loader.
            "FolderWithTheFileName",
            [](CTempTree& tree) {
              tree.MakeDir("libFolder.so");
              return std::string("Folder");
            },
            CQiError::EQiErrorSpace::ErrNo, ENOENT,
            [](const CTempTree& tree) {
              return "Library [Folder] not found: file [libFolder.so] is in none of the "
                     "folders [" + tree.Root() + ", " + OwnFolder() +
                     "] and the system loader failed: libFolder.so: cannot open shared object "
                     "file: No such file or directory";
            }},
        SLoadFailureCase{
            "MissingPath", [](CTempTree& tree) { return tree.Path("nowhere/libX.so"); },
            CQiError::EQiErrorSpace::ErrNo, ENOENT,
            [](const CTempTree& tree) {
              return "Library file [" + tree.Path("nowhere/libX.so") + "] cannot be accessed";
            }},
        SLoadFailureCase{
            "PathToAFolder", [](CTempTree& tree) { return tree.MakeDir("dir"); },
            CQiError::EQiErrorSpace::ErrNo, ENOEXEC,
            [](const CTempTree& tree) {
              return "Library file [" + tree.Path("dir") + "] is not a regular file";
            }},
        SLoadFailureCase{
            "EmptyName", [](CTempTree&) { return std::string(); },
            CQiError::EQiErrorSpace::Win32, QiErrorCode::InvalidParameter,
            [](const CTempTree&) { return std::string("Library name is empty"); }},
        SLoadFailureCase{
            "NulByte", [](CTempTree&) { return std::string("Zr\0DB", 5); },
            CQiError::EQiErrorSpace::Win32, QiErrorCode::InvalidParameter,
            [](const CTempTree&) {
              return std::string("Library name [Zr\\x00DB] contains a NUL byte");
            }},
        SLoadFailureCase{
            "LongerThanPathMax", [](CTempTree&) { return std::string(PATH_MAX, 'a'); },
            CQiError::EQiErrorSpace::ErrNo, ENAMETOOLONG,
            [](const CTempTree&) {
              return "Library name is longer than PATH_MAX (" + std::to_string(PATH_MAX) +
                     " bytes)";
            }},
        SLoadFailureCase{
            // Bytes that are not UTF-8 are legal in file names: such a name is simply searched.
            "NonUtf8Name", [](CTempTree&) { return std::string("Plug\xff\xfe"); },
            CQiError::EQiErrorSpace::ErrNo, ENOENT,
            [](const CTempTree& tree) {
              return "Library [Plug\xff\xfe] not found: file [libPlug\xff\xfe.so] is in none of "
                     "the folders [" + tree.Root() + ", " + OwnFolder() +
                     "] and the system loader failed: libPlug\xff\xfe.so: cannot open shared "
                     "object file: No such file or directory";
            }}),
    [](const ::testing::TestParamInfo<SLoadFailureCase>& info) { return info.param.name; });

TEST_F(QiLibraryFixture, AFoundFileThatFailsToLoadEndsTheSearch) {
  // The bogus file in the first folder hides the good module in the own folder: a broken
  // plug-in is reported, not silently replaced by another copy.
  m_tree.MakeFile("libFsScanTestModule.so", std::string(200, 'x'));
  SetPluginPath(m_tree.Root());
  CQiLibrary library;
  CQiError error = library.Load(kModule);
  ASSERT_TRUE(error.IsErrNo(ENOEXEC)) << error.AsString();
  EXPECT_NE(error.GetMessage().find(m_tree.Path("libFsScanTestModule.so")), std::string::npos);
}

TEST_F(QiLibraryFixture, UnloadDropsTheModuleAndItsState) {
  SetPluginPath(kModuleDir);
  const std::string path = kModuleDir + "/libFsScanTestModule.so";
  ASSERT_FALSE(IsMapped(path));
  CQiLibrary library;
  ASSERT_TRUE(library.Load(kModule).IsSuccess());
  int (*next)() = nullptr;
  ASSERT_TRUE(library.Resolve("FsScanTestModuleNextValue", next).IsSuccess());
  EXPECT_EQ(next(), 1);
  EXPECT_EQ(next(), 2);

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
  ASSERT_TRUE(library.Resolve("FsScanTestModuleNextValue", next).IsSuccess());
  EXPECT_EQ(next(), 1);
}

TEST_F(QiLibraryFixture, TwoObjectsShareOneMappingUntilTheLastUnloads) {
  SetPluginPath(kModuleDir);
  const std::string path = kModuleDir + "/libFsScanTestModule.so";
  CQiLibrary first;
  CQiLibrary second;
  ASSERT_TRUE(first.Load(kModule).IsSuccess());
  ASSERT_TRUE(second.Load(path).IsSuccess());
  int (*next)() = nullptr;
  ASSERT_TRUE(first.Resolve("FsScanTestModuleNextValue", next).IsSuccess());
  EXPECT_EQ(next(), 1);
  ASSERT_TRUE(first.Unload().IsSuccess());
  EXPECT_TRUE(IsMapped(path));
  ASSERT_TRUE(second.Resolve("FsScanTestModuleNextValue", next).IsSuccess());
  EXPECT_EQ(next(), 2);
  ASSERT_TRUE(second.Unload().IsSuccess());
  EXPECT_FALSE(IsMapped(path));
}

}  // namespace
