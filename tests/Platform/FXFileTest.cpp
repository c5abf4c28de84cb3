#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <fstream>
#include <map>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "Platform/FXFile.h"
#include "Platform/FXString.h"
#include "Support/PlatformTestSupport.h"
#include "Support/RunAsNobody.h"

namespace {
using CFileData = FXFile::CFileData;

struct SListing {
  std::vector<CFileData> records;
  CQiError end;  // the error that ended the listing
};

SListing ListFolder(const std::string& pattern, long long options = 0) {
  SListing out;
  FXFile::auto_find_handle handle;
  CFileData record;
  CQiError error = FXFile::ZRFindFirstFile(handle, pattern, record, options);
  for (; error.IsSuccess(); error = FXFile::ZRFindNextFile(handle, record, options))
    out.records.push_back(record);
  out.end = error;
  return out;
}

std::set<std::string> NamesOf(const std::vector<CFileData>& records, bool bWithDots = false) {
  std::set<std::string> names;
  for (const CFileData& r : records)
    if (bWithDots || !r.isRelativeFolder()) names.insert(r.getFileNameAsString());
  return names;
}

const CFileData* FindRecord(const std::vector<CFileData>& records, const std::string& name) {
  for (const CFileData& r : records)
    if (r.getFileNameAsString() == name) return &r;
  return nullptr;
}

// Everything a valid record tells of an item, to compare whole with an lstat of the same path.
// Listing a folder may update its access time (relatime), so listed folders leave it out.
auto Facts(const CFileData& r, bool bAccessTime = true) {
  const struct stat& raw = r.getRawData();
  return std::make_tuple(r.getStatusState(), r.getLastError(), r.getAttributes(), r.getSize(),
                         r.getCompressedSize(), r.getFileID(), r.getDeviceId(),
                         uint64_t(raw.st_nlink), int64_t(raw.st_blocks), r.getLastWriteTime(),
                         r.getLastChangeTime(), bAccessTime ? r.getLastAccessTime() : CTimeStamp(),
                         r.getCreationTime(), r.isDirectory(), r.isRegularFile(),
                         r.isReparsePoint(), r.getReparseTag(), r.isArchiveSet());
}
auto LstatFacts(const std::string& path, bool bAccessTime = true) {
  struct stat st {};
  EXPECT_EQ(lstat(path.c_str(), &st), 0) << path;
  CTimeStamp m(st.st_mtim), c(st.st_ctim);
  return std::make_tuple(
      int32_t(CFileData::kStatusValid), 0, uint32_t(st.st_mode), uint64_t(st.st_size),
      uint64_t(st.st_size), uint64_t(st.st_ino), uint64_t(st.st_dev), uint64_t(st.st_nlink),
      int64_t(st.st_blocks), m, c, bAccessTime ? CTimeStamp(st.st_atim) : CTimeStamp(),
      c < m ? c : m, bool(S_ISDIR(st.st_mode)), bool(S_ISREG(st.st_mode)),
      bool(S_ISLNK(st.st_mode)), S_ISLNK(st.st_mode) ? CFileData::kReparseTagSymlink : 0u, false);
}

const char* const kOpenFailed = "Failed to open folder for listing, Path=@";
}  // namespace

// ---------------------------------------------------------------------------------------------
// Listing: names as bytes, entry kinds, end of folder.

TEST(FXFileListing, ListsEveryKindAndNameAsBytesWithLstatData) {
  struct SEntry {
    std::string name;
    char kind;            // 'f' file, 'd' folder, 'p' FIFO, 'l' symbolic link
    std::string content;  // file content or link target
    unsigned char direntType;
  };
  const std::vector<SEntry> entries = {
      {"plain", 'f', "hello", DT_REG},
      {"new\nline", 'f', "ab", DT_REG},
      {"tab\there", 'f', "", DT_REG},
      {"\xff\xfe", 'f', "xyz", DT_REG},
      {std::string(255, 'L'), 'f', "1", DT_REG},
      {"sub", 'd', "", DT_DIR},
      {"pipe", 'p', "", DT_FIFO},
      {"dangling", 'l', "no/such/target", DT_LNK},
      {"dirlink", 'l', "sub", DT_LNK}};  // a link to a folder is not followed
  CTempTree tree;
  std::map<std::string, int> expected = {{".", DT_DIR}, {"..", DT_DIR}}, types;  // name: d_type
  for (const SEntry& e : entries) {
    if (e.kind == 'f') tree.MakeFile(e.name, e.content);
    if (e.kind == 'd') tree.MakeDir(e.name);
    if (e.kind == 'p') tree.MakeFifo(e.name);
    if (e.kind == 'l') tree.MakeSymlink(e.name, e.content);
    expected[e.name] = e.direntType;
  }
  // Every form of the pattern lists the same folder, which is the records' parent.
  for (const char* suffix : {"", "/", "/*", "//"}) {
    SListing listing = ListFolder(tree.Root() + suffix);
    EXPECT_TRUE(listing.end.IsWin32(QiErrorCode::NoMoreFiles)) << listing.end.AsString();
    EXPECT_EQ(listing.records.size(), expected.size());
    for (CFileData r : listing.records) {
      const std::string& name = r.getFileNameAsString();
      types[name] = r.getRawDirent().d_type;
      EXPECT_EQ(r.getFileNameMode(), CFileData::kModeFullPath);
      EXPECT_EQ(r.getFullPath(), tree.Root() + "/" + name);
      // "." and ".." are listed without status (no fstatat); good() reads it from the full path.
      EXPECT_EQ(r.getStatusState(),
                r.isRelativeFolder() ? CFileData::kStatusNotRead : CFileData::kStatusValid);
      EXPECT_TRUE(r.good());  // reads the status of "." and ".." now
      EXPECT_EQ(Facts(r, !r.isDirectory()), LstatFacts(r.getFullPath(), !r.isDirectory())) << name;
    }
    EXPECT_EQ(types, expected) << suffix;
  }
}

TEST(FXFileListing, OneHandleListsFolderAfterFolderAndItsEndStays) {
  CTempTree tree;
  for (int i = 0; i < 200; ++i) tree.MakeFile(FXString::Format("a/first-folder-entry-%03d", i));
  tree.MakeFile("b/only");
  FXFile::auto_find_handle handle;
  CFileData record;
  ASSERT_TRUE(FXFile::ZRFindFirstFile(handle, tree.Path("a"), record).IsSuccess());
  ASSERT_TRUE(FXFile::ZRFindNextFile(handle, record).IsSuccess());
  // A copy of a handle starts closed and leaves the original open.
  FXFile::auto_find_handle copy(handle);
  EXPECT_FALSE(copy.is_open());
  EXPECT_TRUE(FXFile::ZRFindNextFile(copy, record).IsWin32(QiErrorCode::InvalidHandle));
  ASSERT_TRUE(FXFile::ZRFindNextFile(handle, record).IsSuccess());
  // Open the second folder while the first is half read: nothing of the first may leak through.
  std::vector<CFileData> records;
  CQiError error = FXFile::ZRFindFirstFile(handle, tree.Path("b"), record);
  for (; error.IsSuccess(); error = FXFile::ZRFindNextFile(handle, record))
    records.push_back(record);
  EXPECT_EQ(NamesOf(records, true), (std::set<std::string>{".", "..", "only"}));
  for (const CFileData& r : records) EXPECT_EQ(r.getParentDirectoryName(), tree.Path("b"));
  // The end of the folder is Win32 18 and stays so; a closed handle answers Win32 6.
  EXPECT_TRUE(error.IsWin32(QiErrorCode::NoMoreFiles)) << error.AsString();
  EXPECT_TRUE(FXFile::ZRFindNextFile(handle, record).IsWin32(QiErrorCode::NoMoreFiles));
  FXFile::ZRFindClose(handle);
  error = FXFile::ZRFindNextFile(handle, record);
  EXPECT_TRUE(error.IsWin32(QiErrorCode::InvalidHandle));
  EXPECT_EQ(error.GetMessage(), "Find handle is not open");
}

struct SPatternRow {
  const char* pattern;
  const char* folder;
};
class FXFilePattern : public ::testing::TestWithParam<SPatternRow> {};

TEST_P(FXFilePattern, NamesTheListedFolder) {
  EXPECT_EQ(FXFile::FolderFromPattern(GetParam().pattern), GetParam().folder);
}

INSTANTIATE_TEST_SUITE_P(
    Table, FXFilePattern,
    ::testing::Values(SPatternRow{"/a/b//", "/a/b"}, SPatternRow{"/*", "/"}, SPatternRow{"*", "."},
                      SPatternRow{"/a/*/", "/a/*"}, SPatternRow{"/a/b*", "/a/b*"}));

// ---------------------------------------------------------------------------------------------
// Failures of opening a folder for listing ("list"), of zrfopen ("fopen <mode>") and answers of
// GetDeviceSize ("size", success with the size of the 5000-byte image).

struct SFailureRow {
  const char* op;
  std::string path;     // '@' stands for the tree's root
  const char* code;     // see ErrorCode
  const char* message;  // '@' stands for the path with control bytes escaped
};
class FXFileFailure : public ::testing::TestWithParam<SFailureRow> {};

TEST_P(FXFileFailure, GivesTheErrnoAndTheMessage) {
  const SFailureRow& r = GetParam();
  CTempTree tree;
  tree.MakeFile("file");
  tree.MakeDir("folder");
  tree.MakeFile("image", std::string(5000, 'z'));
  tree.MakeSymlink("link", "image");
  tree.MakeFifo("pipe");  // must not block
  const std::string path = Expand(r.path, tree.Root()), op = r.op;
  CQiError error;
  if (op == "list") {
    FXFile::auto_find_handle handle;
    CFileData record;
    error = FXFile::ZRFindFirstFile(handle, path, record);
    EXPECT_FALSE(handle.is_open());
    EXPECT_TRUE(FXFile::ZRFindNextFile(handle, record).IsWin32(QiErrorCode::InvalidHandle));
  } else if (op == "size") {
    uint64_t size = 7;
    error = FXFile::GetDeviceSize(path, size);
    EXPECT_EQ(size, error.IsSuccess() ? 5000u : 7u);
  } else {
    const std::string mode = op.substr(6);
    FXFile::FILEPtr file;
    error = FXFile::zrfopen(path, mode, file);
    EXPECT_EQ(file, nullptr);
    errno = 0;
    EXPECT_EQ(FXFile::zrfopen(path, mode), nullptr);
    EXPECT_EQ("E" + std::to_string(errno), ErrorCode(error));
  }
  EXPECT_EQ(ErrorCode(error), r.code) << error.AsString();
  EXPECT_EQ(error.GetMessage(), Expand(r.message, FXString::EscapeControl(path)));
}

const char* const kNotBlock =
    "Failed to get device size: not a block device or regular file, Path=@";
INSTANTIATE_TEST_SUITE_P(
    Table, FXFileFailure,
    ::testing::Values(
        SFailureRow{"list", "", "E2", "Failed to open folder for listing: empty path"},
        SFailureRow{"list", std::string("@/a\0b", 5), "E22",
                    "Failed to open folder for listing: path holds a NUL byte, Path=@"},
        SFailureRow{"list", "@/" + std::string(PATH_MAX + 10, 'x'), "E36", kOpenFailed},
        SFailureRow{"fopen w", "", "E2", "Failed to open file: empty path"},
        SFailureRow{"fopen w", std::string("@/f\0g", 5), "E22",
                    "Failed to open file: path holds a NUL byte, Path=@"},
        SFailureRow{"fopen ", "@/new", "E22", "Failed to open file: invalid mode [], Path=@"},
        SFailureRow{"fopen r", "@/missing", "E2", "Failed to open file, Path=@, Mode=r"},
        SFailureRow{"fopen w", "@/folder", "E21", "Failed to open file, Path=@, Mode=w"},
        SFailureRow{"size", "@/link", "ok", ""}, SFailureRow{"size", "/dev/null", "E15", kNotBlock},
        SFailureRow{"size", "@/pipe", "E15", kNotBlock},
        SFailureRow{"size", "@/missing", "E2", "Failed to get device size: stat failed, Path=@"},
        SFailureRow{"size", "", "E2", "Failed to get device size: empty path"}),
    [](const ::testing::TestParamInfo<SFailureRow>& info) { return std::to_string(info.index); });

// ---------------------------------------------------------------------------------------------
// Folders deeper than PATH_MAX, listed by path and relative to their parent's descriptor.

TEST(FXFileListing, FolderBeyondPathMaxIsListedRelativeToItsParent) {
  CTempTree tree;
  const std::string component(250, 'd');
  // Folders `component` in a chain until the path passes PATH_MAX, made relative to
  // descriptors; the file "leaf" in the last.
  std::string longPath = tree.Root();
  int fd = open(longPath.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  for (; fd >= 0 && longPath.size() <= PATH_MAX; longPath += "/" + component) {
    const int next = mkdirat(fd, component.c_str(), 0755) == 0
                         ? openat(fd, component.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)
                         : -1;
    close(fd);
    fd = next;
  }
  const int leaf = fd >= 0 ? openat(fd, "leaf", O_WRONLY | O_CREAT | O_CLOEXEC, 0644) : -1;
  ASSERT_TRUE(leaf >= 0 && write(leaf, "abc", 3) == 3);
  close(leaf);
  close(fd);
  const std::string parentPath = longPath.substr(0, longPath.size() - component.size() - 1);

  // By its full path the folder is opened piece by piece, each piece shorter than PATH_MAX.
  SListing direct = ListFolder(longPath);
  EXPECT_TRUE(direct.end.IsWin32(QiErrorCode::NoMoreFiles)) << direct.end.AsString();
  EXPECT_EQ(NamesOf(direct.records), std::set<std::string>{"leaf"});

  // The same folder opened relative to its parent's descriptor.
  FXFile::auto_find_handle parent, child;
  CFileData record;
  ASSERT_TRUE(FXFile::ZRFindFirstFile(parent, parentPath, record).IsSuccess());
  SListing relative;
  CQiError error = FXFile::ZRFindFirstFileAt(child, parent.fd(), component, longPath, record);
  for (; error.IsSuccess(); error = FXFile::ZRFindNextFile(child, record))
    relative.records.push_back(record);
  EXPECT_TRUE(error.IsWin32(QiErrorCode::NoMoreFiles)) << error.AsString();
  EXPECT_EQ(NamesOf(relative.records), std::set<std::string>{"leaf"});
  EXPECT_EQ(FindRecord(relative.records, "leaf")->getFullPath(), longPath + "/leaf");

  // A record built from the long path cannot read its status by path.
  CFileData byPath(longPath + "/leaf", CFileData::kModeFullPath);
  EXPECT_FALSE(byPath.good());
  EXPECT_EQ(byPath.getLastError(), ENAMETOOLONG);

  // No parent descriptor: a clear error, no crash.
  FXFile::auto_find_handle closed;
  error = FXFile::ZRFindFirstFileAt(closed, -1, component, longPath, record);
  EXPECT_TRUE(error.IsErrNo(EBADF));
  EXPECT_EQ(error.GetMessage(),
            "Failed to open folder for listing: no parent folder open, Path=" + longPath);
}

// ---------------------------------------------------------------------------------------------
// Records built from a path: the status is read once; a given stat is taken as valid in full-path mode only.
TEST(FXFileData, StatusIsReadOnceAndAGivenStatIsTaken) {
  CTempTree tree;
  const std::string path = tree.MakeFile("a", "1234");
  CFileData record(path, CFileData::kModeFullPath);
  EXPECT_TRUE(record.good());
  std::ofstream(path, std::ios::app) << "more";
  EXPECT_TRUE(record.good());
  EXPECT_EQ(record.getSize(), 4u);
  record.setParentDirectoryName("/elsewhere");
  record.setOffline(true);
  EXPECT_EQ(record.getFullPath() + (record.isOffline() ? " offline" : ""), "/elsewhere/a offline");

  struct stat st {};
  st.st_mode = S_IFREG | 0600;
  st.st_size = 12345;
  CFileData full("/no/such/path/anywhere", CFileData::kModeFullPath, &st);
  EXPECT_TRUE(full.good() && full.isRegularFile());
  EXPECT_EQ(full.getSize(), 12345u);
  CFileData parentMode("/no/such/path/anywhere", CFileData::kModeParentDirectory, &st);
  EXPECT_EQ(parentMode.getParentDirectoryName() + "|" + parentMode.getFileNameAsString(),
            "/no/such/path/anywhere|");
  EXPECT_FALSE(parentMode.good());  // the empty name is what gets read
  EXPECT_EQ(parentMode.getLastError(), ENOENT);
}
