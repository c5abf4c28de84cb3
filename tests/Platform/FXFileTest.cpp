#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <fstream>
#include <set>
#include <string>
#include <vector>

#include "Platform/FXFile.h"
#include "Platform/FXString.h"
#include "Support/TempTree.h"

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
  while (error.IsSuccess()) {
    out.records.push_back(record);
    error = FXFile::ZRFindNextFile(handle, record, options);
  }
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

CTimeStamp Earliest(const struct timespec& a, const struct timespec& b) {
  CTimeStamp ta(a), tb(b);
  return ta < tb ? ta : tb;
}

// Every accessor of a valid record against an lstat of the same path. Listing a folder may
// update its access time (relatime), so folders that were listed skip that one.
void ExpectMatchesLstat(const CFileData& record, const std::string& path,
                        bool bCompareAccessTime = true) {
  struct stat st;
  ASSERT_EQ(lstat(path.c_str(), &st), 0) << path;
  ASSERT_EQ(record.getStatusState(), CFileData::kStatusValid);
  EXPECT_EQ(record.getLastError(), 0);
  EXPECT_EQ(record.getAttributes(), static_cast<uint32_t>(st.st_mode));
  EXPECT_EQ(record.getSize(), static_cast<uint64_t>(st.st_size));
  EXPECT_EQ(record.getCompressedSize(), static_cast<uint64_t>(st.st_size));
  EXPECT_EQ(record.getFileID(), static_cast<uint64_t>(st.st_ino));
  EXPECT_EQ(record.getDeviceId(), static_cast<uint64_t>(st.st_dev));
  EXPECT_EQ(record.getRawData().st_nlink, st.st_nlink);
  EXPECT_EQ(record.getRawData().st_blocks, st.st_blocks);
  EXPECT_EQ(record.getLastWriteTime(), CTimeStamp(st.st_mtim));
  EXPECT_EQ(record.getLastChangeTime(), CTimeStamp(st.st_ctim));
  if (bCompareAccessTime) {
    EXPECT_EQ(record.getLastAccessTime(), CTimeStamp(st.st_atim));
  }
  EXPECT_EQ(record.getCreationTime(), Earliest(st.st_ctim, st.st_mtim));
  EXPECT_EQ(record.isDirectory(), S_ISDIR(st.st_mode));
  EXPECT_EQ(record.isRegularFile(), S_ISREG(st.st_mode));
  EXPECT_EQ(record.isReparsePoint(), S_ISLNK(st.st_mode));
  EXPECT_EQ(record.getReparseTag(), S_ISLNK(st.st_mode) ? CFileData::kReparseTagSymlink : 0u);
  EXPECT_FALSE(record.isArchiveSet());
}

std::string OpenMessage(const std::string& path) {
  return "Failed to open folder for listing, Path=" + FXString::EscapeControl(path);
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Listing: names as bytes, entry kinds, end of folder.

TEST(FXFileListing, ListsEveryCreatedNameAsBytes) {
  CTempTree tree;
  const std::string longName(255, 'L');
  const std::vector<std::string> names = {"plain",    "new\nline", "tab\there", "\xff\xfe",
                                          longName,    "pipe",      "link",      "sub"};
  tree.MakeFile("plain", "x");
  tree.MakeFile("new\nline");
  tree.MakeFile("tab\there");
  tree.MakeFile("\xff\xfe");
  tree.MakeFile(longName);
  tree.MakeFifo("pipe");
  tree.MakeSymlink("link", "does/not/exist");
  tree.MakeDir("sub");

  SListing listing = ListFolder(tree.Root());
  EXPECT_TRUE(listing.end.IsWin32(QiErrorCode::NoMoreFiles)) << listing.end.AsString();
  EXPECT_EQ(NamesOf(listing.records), std::set<std::string>(names.begin(), names.end()));
  std::set<std::string> all = NamesOf(listing.records, true);
  EXPECT_TRUE(all.count(".") && all.count(".."));
  EXPECT_EQ(listing.records.size(), names.size() + 2);
  for (CFileData r : listing.records) {
    EXPECT_EQ(r.getParentDirectoryName(), tree.Root());
    EXPECT_EQ(r.getFileNameMode(), CFileData::kModeFullPath);
    EXPECT_EQ(r.getFullPath(), tree.Root() + "/" + r.getFileNameAsString());
    EXPECT_EQ(std::string(r.getRawDirent().d_name), r.getFileNameAsString());
    if (r.isRelativeFolder()) {
      // Listed without status (no fstatat for them); good() reads it from the full path.
      EXPECT_EQ(r.getStatusState(), CFileData::kStatusNotRead);
      EXPECT_TRUE(r.good());
    }
    ExpectMatchesLstat(r, r.getFullPath(), !r.isDirectory());
  }
}

TEST(FXFileListing, EndOfFolderIsWin32_18AndStaysSo) {
  CTempTree tree;
  FXFile::auto_find_handle handle;
  CFileData record;
  CQiError error = FXFile::ZRFindFirstFile(handle, tree.Root(), record);
  int count = 0;
  while (error.IsSuccess()) {
    ++count;
    error = FXFile::ZRFindNextFile(handle, record);
  }
  EXPECT_EQ(count, 2);  // "." and ".."
  EXPECT_TRUE(error.IsWin32(QiErrorCode::NoMoreFiles)) << error.AsString();
  EXPECT_TRUE(FXFile::ZRFindNextFile(handle, record).IsWin32(QiErrorCode::NoMoreFiles));
  FXFile::ZRFindClose(handle);
  CQiError closed = FXFile::ZRFindNextFile(handle, record);
  EXPECT_TRUE(closed.IsWin32(QiErrorCode::InvalidHandle));
  EXPECT_EQ(closed.GetMessage(), "Find handle is not open");
}

struct SKindRow {
  const char* label;
  std::string name;
  char kind;  // 'f' file, 'd' folder, 'p' FIFO, 'l' symbolic link
  std::string content;  // file content or link target
  mode_t type;
  unsigned char direntType;
};
class FXFileEntryKind : public ::testing::TestWithParam<SKindRow> {};

TEST_P(FXFileEntryKind, RecordCarriesLstatDataWithoutFollowingLinks) {
  const SKindRow& row = GetParam();
  CTempTree tree;
  tree.MakeDir("target");  // an existing folder, so that a link to it would be a folder if followed
  switch (row.kind) {
    case 'f': tree.MakeFile(row.name, row.content); break;
    case 'd': tree.MakeDir(row.name); break;
    case 'p': tree.MakeFifo(row.name); break;
    case 'l': tree.MakeSymlink(row.name, row.content); break;
  }
  SListing listing = ListFolder(tree.Root());
  ASSERT_TRUE(listing.end.IsWin32(QiErrorCode::NoMoreFiles)) << listing.end.AsString();
  const CFileData* r = FindRecord(listing.records, row.name);
  ASSERT_NE(r, nullptr) << row.label;
  ExpectMatchesLstat(*r, tree.Path(row.name));
  EXPECT_EQ(r->getAttributes() & 0xF000, static_cast<uint32_t>(row.type)) << row.label;
  EXPECT_EQ(r->getRawDirent().d_type, row.direntType);
  EXPECT_EQ(r->getRawDirent().d_ino, r->getRawData().st_ino);
  if (row.kind == 'l' || row.kind == 'f') {
    EXPECT_EQ(r->getSize(), row.content.size());
  }
  if (row.kind == 'l') {
    EXPECT_FALSE(r->isDirectory());
    EXPECT_TRUE(r->isReparsePoint());
    EXPECT_EQ(r->getReparseTag(), CFileData::kReparseTagSymlink);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Table, FXFileEntryKind,
    ::testing::Values(
        SKindRow{"file", "plain", 'f', "hello", S_IFREG, DT_REG},
        SKindRow{"newline", "new\nline", 'f', "ab", S_IFREG, DT_REG},
        SKindRow{"tab", "tab\there", 'f', "", S_IFREG, DT_REG},
        SKindRow{"invalid utf-8", "\xff\xfe", 'f', "xyz", S_IFREG, DT_REG},
        SKindRow{"255 bytes", std::string(255, 'L'), 'f', "1", S_IFREG, DT_REG},
        SKindRow{"folder", "sub", 'd', "", S_IFDIR, DT_DIR},
        SKindRow{"fifo", "pipe", 'p', "", S_IFIFO, DT_FIFO},
        SKindRow{"dangling link", "dangling", 'l', "no/such/target", S_IFLNK, DT_LNK},
        SKindRow{"link to folder", "dirlink", 'l', "target", S_IFLNK, DT_LNK}),
    [](const ::testing::TestParamInfo<SKindRow>& info) { return std::to_string(info.index); });

TEST(FXFileListing, FolderLargerThanOneBufferIsListedCompletely) {
  CTempTree tree;
  std::set<std::string> created;
  for (int i = 0; i < 3000; ++i) {
    std::string name = FXString::Format("entry-with-a-rather-long-name-%05d", i);
    tree.MakeFile(name);
    created.insert(name);
  }
  SListing listing = ListFolder(tree.Root());
  EXPECT_TRUE(listing.end.IsWin32(QiErrorCode::NoMoreFiles)) << listing.end.AsString();
  EXPECT_EQ(listing.records.size(), created.size() + 2);
  EXPECT_EQ(NamesOf(listing.records), created);
  for (const CFileData& r : listing.records)
    EXPECT_EQ(r.getStatusState(),
              r.isRelativeFolder() ? CFileData::kStatusNotRead : CFileData::kStatusValid);
}

TEST(FXFileListing, EntryRemovedBeforeItsStatusIsNotGoodWithENOENT) {
  CTempTree tree;
  std::vector<std::string> names;
  for (int i = 0; i < 5; ++i) names.push_back(tree.MakeFile(FXString::Format("file%d", i)));

  FXFile::auto_find_handle handle;
  CFileData record;
  ASSERT_TRUE(FXFile::ZRFindFirstFile(handle, tree.Root(), record).IsSuccess());
  // The kernel has handed over every entry already; remove the files before they are returned.
  const std::string first = record.getFileNameAsString();
  for (const std::string& path : names) ASSERT_EQ(unlink(path.c_str()), 0);

  int removed = 0;
  CQiError error;
  while ((error = FXFile::ZRFindNextFile(handle, record)).IsSuccess()) {
    if (record.isRelativeFolder()) {
      EXPECT_TRUE(record.good());
      continue;
    }
    ++removed;
    EXPECT_EQ(record.getStatusState(), CFileData::kStatusFailed);
    EXPECT_FALSE(record.good());
    EXPECT_EQ(record.getLastError(), ENOENT);
    EXPECT_EQ(record.getAttributes(), CFileData::kAttributesUnknown);
    EXPECT_EQ(record.getSize(), 0u);
  }
  EXPECT_TRUE(error.IsWin32(QiErrorCode::NoMoreFiles)) << error.AsString();
  EXPECT_EQ(removed, first.rfind("file", 0) == 0 ? 4 : 5);
}

TEST(FXFileListing, NoStatusOptionLeavesStatusToALazyLstat) {
  CTempTree tree;
  tree.MakeFile("kept", "12345");
  const std::string gone = tree.MakeFile("gone");
  SListing listing = ListFolder(tree.Root(), FXFile::kFindOptionNoStatus);
  ASSERT_TRUE(listing.end.IsWin32(QiErrorCode::NoMoreFiles));
  ASSERT_EQ(listing.records.size(), 4u);
  for (const CFileData& r : listing.records) {
    EXPECT_EQ(r.getStatusState(), CFileData::kStatusNotRead);
    EXPECT_EQ(r.getAttributes(), CFileData::kAttributesUnknown);
  }
  ASSERT_EQ(unlink(gone.c_str()), 0);
  CFileData kept = *FindRecord(listing.records, "kept");
  EXPECT_TRUE(kept.good());
  ExpectMatchesLstat(kept, tree.Path("kept"));
  CFileData removed = *FindRecord(listing.records, "gone");
  EXPECT_FALSE(removed.good());
  EXPECT_EQ(removed.getLastError(), ENOENT);
}

TEST(FXFileListing, OneHandleListsFolderAfterFolder) {
  CTempTree tree;
  for (int i = 0; i < 200; ++i) tree.MakeFile(FXString::Format("a/first-folder-entry-%03d", i));
  tree.MakeFile("b/only");
  FXFile::auto_find_handle handle;
  CFileData record;
  ASSERT_TRUE(FXFile::ZRFindFirstFile(handle, tree.Path("a"), record).IsSuccess());
  ASSERT_TRUE(FXFile::ZRFindNextFile(handle, record).IsSuccess());
  // Open the second folder while the first is half read: nothing of the first may leak through.
  std::vector<CFileData> records;
  CQiError error = FXFile::ZRFindFirstFile(handle, tree.Path("b"), record);
  while (error.IsSuccess()) {
    records.push_back(record);
    error = FXFile::ZRFindNextFile(handle, record);
  }
  EXPECT_TRUE(error.IsWin32(QiErrorCode::NoMoreFiles));
  EXPECT_EQ(NamesOf(records), std::set<std::string>{"only"});
  for (const CFileData& r : records) EXPECT_EQ(r.getParentDirectoryName(), tree.Path("b"));
}

TEST(FXFileListing, CopyOfAHandleStartsClosedAndLeavesTheOriginalOpen) {
  CTempTree tree;
  tree.MakeFile("x");
  FXFile::auto_find_handle handle;
  CFileData record;
  ASSERT_TRUE(FXFile::ZRFindFirstFile(handle, tree.Root(), record).IsSuccess());
  FXFile::auto_find_handle copy(handle);
  EXPECT_FALSE(copy.is_open());
  EXPECT_TRUE(FXFile::ZRFindNextFile(copy, record).IsWin32(QiErrorCode::InvalidHandle));
  int rest = 0;
  while (FXFile::ZRFindNextFile(handle, record).IsSuccess()) ++rest;
  EXPECT_EQ(rest, 2);
}

// ---------------------------------------------------------------------------------------------
// Patterns.

struct SPatternRow {
  const char* pattern;
  const char* folder;
};
class FXFilePattern : public ::testing::TestWithParam<SPatternRow> {};

TEST_P(FXFilePattern, NamesTheListedFolder) {
  EXPECT_EQ(FXFile::FolderFromPattern(GetParam().pattern), GetParam().folder);
}

INSTANTIATE_TEST_SUITE_P(Table, FXFilePattern,
                         ::testing::Values(SPatternRow{"/a/b", "/a/b"}, SPatternRow{"/a/b/", "/a/b"},
                                           SPatternRow{"/a/b/*", "/a/b"},
                                           SPatternRow{"/a/b//", "/a/b"}, SPatternRow{"/", "/"},
                                           SPatternRow{"/*", "/"}, SPatternRow{"*", "."},
                                           SPatternRow{"/a/*/", "/a/*"},
                                           SPatternRow{"/a/b*", "/a/b*"}));

TEST(FXFileListing, PatternFormsListTheSameFolderWithTheSameParent) {
  CTempTree tree;
  tree.MakeFile("dir/one");
  tree.MakeFile("dir/two");
  for (const char* suffix : {"", "/", "/*", "//"}) {
    SListing listing = ListFolder(tree.Path("dir") + suffix);
    EXPECT_TRUE(listing.end.IsWin32(QiErrorCode::NoMoreFiles)) << suffix;
    EXPECT_EQ(NamesOf(listing.records), (std::set<std::string>{"one", "two"})) << suffix;
    for (const CFileData& r : listing.records)
      EXPECT_EQ(r.getParentDirectoryName(), tree.Path("dir")) << suffix;
  }
}

// ---------------------------------------------------------------------------------------------
// Open failures.

struct SOpenFailureRow {
  const char* label;
  int expectedErrno;
};
class FXFileOpenFailure : public ::testing::TestWithParam<SOpenFailureRow> {};

TEST_P(FXFileOpenFailure, GivesTheErrnoAndAClosedHandle) {
  const SOpenFailureRow& row = GetParam();
  CTempTree tree;
  tree.MakeFile("file");
  std::string path, message;
  const std::string label = row.label;
  if (label == "missing") {
    path = tree.Path("missing");
    message = OpenMessage(path);
  } else if (label == "missing parent") {
    path = tree.Path("no/such/folder");
    message = OpenMessage(path);
  } else if (label == "empty") {
    message = "Failed to open folder for listing: empty path";
  } else if (label == "nul byte") {
    path = tree.Root() + std::string("/a\0b", 4);
    message = "Failed to open folder for listing: path holds a NUL byte, Path=" +
              FXString::EscapeControl(path);
  } else if (label == "longer than PATH_MAX") {
    path = tree.Root() + "/" + std::string(PATH_MAX + 10, 'x');
    message = OpenMessage(path);
  } else if (label == "component too long") {
    path = tree.Root() + "/" + std::string(NAME_MAX + 1, 'x');
    message = OpenMessage(path);
  } else if (label == "file as folder") {
    path = tree.Path("file");
    message = OpenMessage(path);
  } else if (label == "file on the way") {
    path = tree.Path("file/below");
    message = OpenMessage(path);
  }

  FXFile::auto_find_handle handle;
  CFileData record;
  CQiError error = FXFile::ZRFindFirstFile(handle, path, record);
  EXPECT_TRUE(error.IsErrNo(row.expectedErrno)) << row.label << ": " << error.AsString();
  EXPECT_EQ(error.GetMessage(), message);
  EXPECT_FALSE(handle.is_open());
  EXPECT_TRUE(FXFile::ZRFindNextFile(handle, record).IsWin32(QiErrorCode::InvalidHandle));
}

INSTANTIATE_TEST_SUITE_P(
    Table, FXFileOpenFailure,
    ::testing::Values(SOpenFailureRow{"missing", ENOENT}, SOpenFailureRow{"missing parent", ENOENT},
                      SOpenFailureRow{"empty", ENOENT}, SOpenFailureRow{"nul byte", EINVAL},
                      SOpenFailureRow{"longer than PATH_MAX", ENAMETOOLONG},
                      SOpenFailureRow{"component too long", ENAMETOOLONG},
                      SOpenFailureRow{"file as folder", ENOTDIR},
                      SOpenFailureRow{"file on the way", ENOTDIR}),
    [](const ::testing::TestParamInfo<SOpenFailureRow>& info) { return std::to_string(info.index); });

namespace {
struct SNobodyArgs {
  std::string path;
};
// Exit codes of the child: 0 as expected, 1 listing succeeded, 2 wrong code, 3 wrong message.
int ListUnreadableAsNobody(void* arg) {
  const auto* args = static_cast<SNobodyArgs*>(arg);
  FXFile::auto_find_handle handle;
  CFileData record;
  CQiError error = FXFile::ZRFindFirstFile(handle, args->path, record);
  if (error.IsSuccess()) return 1;
  if (!error.IsErrNo(EACCES)) return 2;
  if (error.GetMessage() != OpenMessage(args->path)) return 3;
  return 0;
}
// 0 when every entry but "." and ".." is listed with state -1 and EACCES; 10 + n otherwise.
int ListUnsearchableAsNobody(void* arg) {
  const auto* args = static_cast<SNobodyArgs*>(arg);
  FXFile::auto_find_handle handle;
  CFileData record;
  CQiError error = FXFile::ZRFindFirstFile(handle, args->path, record);
  int files = 0;
  while (error.IsSuccess()) {
    if (!record.isRelativeFolder()) {
      ++files;
      if (record.getStatusState() != CFileData::kStatusFailed) return 11;
      if (record.getLastError() != EACCES) return 12;
    }
    error = FXFile::ZRFindNextFile(handle, record);
  }
  if (!error.IsWin32(QiErrorCode::NoMoreFiles)) return 13;
  return files == 2 ? 0 : 14;
}
}  // namespace

TEST(FXFileListing, UnreadableFolderGivesEACCES) {
  CTempTree tree;
  tree.MakeFile("locked/secret");
  SNobodyArgs args{tree.MakeDir("locked", 0700)};
  EXPECT_EQ(RunAsNobody(ListUnreadableAsNobody, &args), 0);
}

TEST(FXFileListing, EntriesOfAnUnsearchableFolderAreListedWithEACCES) {
  CTempTree tree;
  tree.MakeFile("readonly/one");
  tree.MakeFile("readonly/two");
  SNobodyArgs args{tree.MakeDir("readonly", 0744)};  // readable, not searchable by others
  EXPECT_EQ(RunAsNobody(ListUnsearchableAsNobody, &args), 0);
}

// ---------------------------------------------------------------------------------------------
// Folders deeper than PATH_MAX, listed by path and relative to their parent's descriptor.

TEST(FXFileListing, FolderBeyondPathMaxIsListedRelativeToItsParent) {
  CTempTree tree;
  const std::string component(250, 'd');
  const int depth = PATH_MAX / 251 + 2;
  {
    int fd = open(tree.Root().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    for (int i = 0; i < depth; ++i) {
      ASSERT_EQ(mkdirat(fd, component.c_str(), 0755), 0);
      int child = openat(fd, component.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
      close(fd);
      ASSERT_GE(child, 0);
      fd = child;
    }
    int leaf = openat(fd, "leaf", O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    ASSERT_GE(leaf, 0);
    ASSERT_EQ(write(leaf, "abc", 3), 3);
    close(leaf);
    close(fd);
  }
  std::string longPath = tree.Root();
  for (int i = 0; i < depth; ++i) longPath += "/" + component;
  ASSERT_GT(longPath.size(), static_cast<size_t>(PATH_MAX));

  // By its full path the folder is opened piece by piece, each piece shorter than PATH_MAX.
  CFileData record;
  FXFile::auto_find_handle direct;
  CQiError error = FXFile::ZRFindFirstFile(direct, longPath, record);
  ASSERT_TRUE(error.IsSuccess()) << error.AsString();
  std::set<std::string> setDirect;
  do {
    if (!record.isRelativeFolder()) setDirect.insert(record.getFileNameAsString());
  } while ((error = FXFile::ZRFindNextFile(direct, record)).IsSuccess());
  EXPECT_TRUE(error.IsWin32(QiErrorCode::NoMoreFiles)) << error.AsString();
  EXPECT_EQ(setDirect, std::set<std::string>{"leaf"});
  direct.reset();

  // Descend handle by handle: each folder is opened relative to the one above.
  FXFile::auto_find_handle handles[2];
  std::string path = tree.Root();
  ASSERT_TRUE(FXFile::ZRFindFirstFile(handles[0], path, record).IsSuccess());
  for (int i = 0; i < depth; ++i) {
    path += "/" + component;
    FXFile::auto_find_handle& parent = handles[i % 2];
    FXFile::auto_find_handle& child = handles[(i + 1) % 2];
    error = FXFile::ZRFindFirstFileAt(child, parent.fd(), component, path, record);
    ASSERT_TRUE(error.IsSuccess()) << i << ": " << error.AsString();
  }
  std::vector<CFileData> records;
  FXFile::auto_find_handle& last = handles[depth % 2];
  do {
    records.push_back(record);
  } while ((error = FXFile::ZRFindNextFile(last, record)).IsSuccess());
  EXPECT_TRUE(error.IsWin32(QiErrorCode::NoMoreFiles));
  EXPECT_EQ(NamesOf(records), std::set<std::string>{"leaf"});
  const CFileData* leaf = FindRecord(records, "leaf");
  ASSERT_NE(leaf, nullptr);
  EXPECT_EQ(leaf->getStatusState(), CFileData::kStatusValid);
  EXPECT_EQ(leaf->getSize(), 3u);
  EXPECT_TRUE(leaf->isRegularFile());
  EXPECT_EQ(leaf->getParentDirectoryName(), longPath);
  EXPECT_EQ(leaf->getFullPath(), longPath + "/leaf");

  // A record built from the long path cannot read its status by path.
  CFileData byPath(longPath + "/leaf", CFileData::kModeFullPath);
  EXPECT_FALSE(byPath.good());
  EXPECT_EQ(byPath.getLastError(), ENAMETOOLONG);

  // No parent descriptor: a clear error, no crash.
  FXFile::auto_find_handle closed;
  error = FXFile::ZRFindFirstFileAt(closed, -1, component, path, record);
  EXPECT_TRUE(error.IsErrNo(EBADF));
  EXPECT_EQ(error.GetMessage(),
            "Failed to open folder for listing: no parent folder open, Path=" + path);

  handles[0].reset();
  handles[1].reset();
  int rootFd = open(tree.Root().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  RemoveTreeAt(rootFd, component.c_str());
  close(rootFd);
}

// ---------------------------------------------------------------------------------------------
// Records built from a path.

struct SSplitRow {
  const char* path;
  const char* parent;
  const char* name;
};
class FXFileDataSplit : public ::testing::TestWithParam<SSplitRow> {};

TEST_P(FXFileDataSplit, FullPathModeSplitsParentAndName) {
  CFileData record(GetParam().path, CFileData::kModeFullPath);
  EXPECT_EQ(record.getParentDirectoryName(), GetParam().parent);
  EXPECT_EQ(record.getFileNameAsString(), GetParam().name);
  EXPECT_EQ(record.getStatusState(), CFileData::kStatusNotRead);
}

INSTANTIATE_TEST_SUITE_P(Table, FXFileDataSplit,
                         ::testing::Values(SSplitRow{"/", "", "/"}, SSplitRow{"/a/b", "/a", "b"},
                                           SSplitRow{"/a/b/", "/a", "b"}, SSplitRow{"/a", "/", "a"},
                                           SSplitRow{"rel", "", "rel"},
                                           SSplitRow{"/x/new\nline", "/x", "new\nline"},
                                           SSplitRow{"", "", ""}));

TEST(FXFileData, RootInFullPathModeReadsTheRootFolder) {
  CFileData root("/", CFileData::kModeFullPath);
  EXPECT_EQ(root.getFullPath(), "/");
  EXPECT_TRUE(root.good());
  EXPECT_TRUE(root.isDirectory());
  ExpectMatchesLstat(root, "/");
}

TEST(FXFileData, StatusIsReadOnceOnFirstUse) {
  CTempTree tree;
  const std::string path = tree.MakeFile("f", "1234");
  CFileData record(path, CFileData::kModeFullPath);
  EXPECT_EQ(record.getStatusState(), CFileData::kStatusNotRead);
  EXPECT_EQ(record.getAttributes(), CFileData::kAttributesUnknown);
  EXPECT_TRUE(record.good());
  ExpectMatchesLstat(record, path);
  std::ofstream(path, std::ios::app) << "more";
  EXPECT_TRUE(record.good());
  EXPECT_EQ(record.getSize(), 4u);  // not read again
}

TEST(FXFileData, MissingPathIsNotGoodWithItsErrno) {
  CTempTree tree;
  CFileData record(tree.Path("missing"), CFileData::kModeFullPath);
  EXPECT_FALSE(record.good());
  EXPECT_EQ(record.getStatusState(), CFileData::kStatusFailed);
  EXPECT_EQ(record.getLastError(), ENOENT);
  EXPECT_EQ(record.getAttributes(), CFileData::kAttributesUnknown);
  EXPECT_EQ(record.getSize(), 0u);
  EXPECT_FALSE(record.isDirectory());
  EXPECT_EQ(record.getLastWriteTime(), CTimeStamp());

  CFileData withNul(tree.Root() + std::string("/a\0b", 4), CFileData::kModeFullPath);
  EXPECT_FALSE(withNul.good());
  EXPECT_EQ(withNul.getLastError(), EINVAL);
  CFileData empty("", CFileData::kModeFullPath);
  EXPECT_FALSE(empty.good());
  EXPECT_EQ(empty.getLastError(), ENOENT);
}

TEST(FXFileData, GivenStatIsTakenAsValidOnlyInFullPathMode) {
  struct stat st;
  std::memset(&st, 0, sizeof(st));
  st.st_mode = S_IFREG | 0600;
  st.st_size = 12345;
  CFileData full("/no/such/path/anywhere", CFileData::kModeFullPath, &st);
  EXPECT_TRUE(full.good());
  EXPECT_EQ(full.getSize(), 12345u);
  EXPECT_TRUE(full.isRegularFile());

  CFileData parentMode("/no/such/path/anywhere", CFileData::kModeParentDirectory, &st);
  EXPECT_EQ(parentMode.getParentDirectoryName(), "/no/such/path/anywhere");
  EXPECT_EQ(parentMode.getFileNameAsString(), "");
  EXPECT_FALSE(parentMode.good());  // the empty name is what gets read
  EXPECT_EQ(parentMode.getLastError(), ENOENT);
}

TEST(FXFileData, DeviceNodeByPathIsACharacterDevice) {
  CFileData record("/dev/null", CFileData::kModeFullPath);
  ASSERT_TRUE(record.good());
  EXPECT_EQ(record.getParentDirectoryName(), "/dev");
  EXPECT_EQ(record.getFileNameAsString(), "null");
  EXPECT_TRUE(S_ISCHR(record.getRawData().st_mode));
  EXPECT_EQ(record.getAttributes() & 0xF000, 0x2000u);
  EXPECT_FALSE(record.isRegularFile());
  ExpectMatchesLstat(record, "/dev/null");
}

TEST(FXFileData, SymbolicLinkByPathIsNotFollowed) {
  CTempTree tree;
  tree.MakeDir("target");
  const std::string link = tree.MakeSymlink("link", "target");
  CFileData record(link, CFileData::kModeFullPath);
  ASSERT_TRUE(record.good());
  EXPECT_TRUE(record.isReparsePoint());
  EXPECT_FALSE(record.isDirectory());
  EXPECT_EQ(record.getSize(), strlen("target"));
}

TEST(FXFileData, CopiesAreIndependent) {
  CTempTree tree;
  tree.MakeFile("a");
  SListing listing = ListFolder(tree.Root());
  CFileData copy = *FindRecord(listing.records, "a");
  copy.setParentDirectoryName("/elsewhere");
  copy.setOffline(true);
  EXPECT_EQ(FindRecord(listing.records, "a")->getParentDirectoryName(), tree.Root());
  EXPECT_FALSE(FindRecord(listing.records, "a")->isOffline());
  EXPECT_EQ(copy.getFullPath(), "/elsewhere/a");
}

// ---------------------------------------------------------------------------------------------
// zrfopen.

struct SFopenRow {
  const char* label;
  const char* mode;
  int expectedErrno;
};
class FXFileFopen : public ::testing::TestWithParam<SFopenRow> {};

TEST_P(FXFileFopen, FailsWithAClearError) {
  const SFopenRow& row = GetParam();
  CTempTree tree;
  tree.MakeDir("folder");
  const std::string label = row.label;
  std::string path, message;
  if (label == "empty path") {
    message = "Failed to open file: empty path";
  } else if (label == "nul byte") {
    path = tree.Root() + std::string("/f\0g", 4);
    message = "Failed to open file: path holds a NUL byte, Path=" + FXString::EscapeControl(path);
  } else if (label == "empty mode") {
    path = tree.Path("new");
    message = "Failed to open file: invalid mode [], Path=" + path;
  } else {
    path = label == "missing" ? tree.Path("missing") : tree.Path("folder");
    message = "Failed to open file, Path=" + path + ", Mode=" + row.mode;
  }
  FXFile::FILEPtr file;
  CQiError error = FXFile::zrfopen(path, row.mode, file);
  EXPECT_TRUE(error.IsErrNo(row.expectedErrno)) << row.label << ": " << error.AsString();
  EXPECT_EQ(error.GetMessage(), message);
  EXPECT_EQ(file, nullptr);

  errno = 0;
  EXPECT_EQ(FXFile::zrfopen(path, row.mode), nullptr);
  EXPECT_EQ(errno, row.expectedErrno);
}

INSTANTIATE_TEST_SUITE_P(Table, FXFileFopen,
                         ::testing::Values(SFopenRow{"empty path", "w", ENOENT},
                                           SFopenRow{"nul byte", "w", EINVAL},
                                           SFopenRow{"empty mode", "", EINVAL},
                                           SFopenRow{"missing", "r", ENOENT},
                                           SFopenRow{"folder", "w", EISDIR}),
                         [](const ::testing::TestParamInfo<SFopenRow>& info) {
                           return std::to_string(info.index);
                         });

TEST(FXFileFopen, OpensAnyByteNameCloseOnExec) {
  CTempTree tree;
  const std::string path = tree.Path("out\xff\nname");
  for (const char* mode : {"w", "we"}) {
    FXFile::FILEPtr file;
    ASSERT_TRUE(FXFile::zrfopen(path, mode, file).IsSuccess());
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(fcntl(fileno(file.get()), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC) << mode;
    EXPECT_EQ(fputs("data", file.get()), 1);
  }
  FILE* raw = FXFile::zrfopen(path, "r");
  ASSERT_NE(raw, nullptr);
  char buffer[8] = {};
  EXPECT_EQ(fread(buffer, 1, sizeof(buffer), raw), 4u);
  EXPECT_STREQ(buffer, "data");
  fclose(raw);
}

// ---------------------------------------------------------------------------------------------
// Device size.

struct SDeviceRow {
  const char* label;
  int expectedErrno;  // 0: success with the expected size
};
class FXFileDeviceSize : public ::testing::TestWithParam<SDeviceRow> {};

TEST_P(FXFileDeviceSize, AnswersForEachKindOfPath) {
  const SDeviceRow& row = GetParam();
  CTempTree tree;
  const std::string label = row.label;
  std::string path, message;
  if (label == "regular file") {
    path = tree.MakeFile("image", std::string(5000, 'z'));
  } else if (label == "link to file") {
    tree.MakeFile("image", std::string(5000, 'z'));
    path = tree.MakeSymlink("link", "image");
  } else if (label == "character device") {
    path = "/dev/null";
  } else if (label == "folder") {
    path = tree.Root();
  } else if (label == "fifo") {
    path = tree.MakeFifo("pipe");  // must not block
  } else if (label == "missing") {
    path = tree.Path("missing");
    message = "Failed to get device size: stat failed, Path=" + path;
  } else if (label == "empty") {
    message = "Failed to get device size: empty path";
  }
  if (row.expectedErrno == ENOTBLK)
    message = "Failed to get device size: not a block device or regular file, Path=" + path;

  uint64_t size = 7;
  CQiError error = FXFile::GetDeviceSize(path, size);
  if (row.expectedErrno == 0) {
    ASSERT_TRUE(error.IsSuccess()) << error.AsString();
    EXPECT_EQ(size, 5000u);
  } else {
    EXPECT_TRUE(error.IsErrNo(row.expectedErrno)) << row.label << ": " << error.AsString();
    EXPECT_EQ(error.GetMessage(), message);
    EXPECT_EQ(size, 7u);
  }
}

INSTANTIATE_TEST_SUITE_P(Table, FXFileDeviceSize,
                         ::testing::Values(SDeviceRow{"regular file", 0},
                                           SDeviceRow{"link to file", 0},
                                           SDeviceRow{"character device", ENOTBLK},
                                           SDeviceRow{"folder", ENOTBLK},
                                           SDeviceRow{"fifo", ENOTBLK},
                                           SDeviceRow{"missing", ENOENT},
                                           SDeviceRow{"empty", ENOENT}),
                         [](const ::testing::TestParamInfo<SDeviceRow>& info) {
                           return std::to_string(info.index);
                         });

TEST(FXFileDeviceSizeBlock, MatchesTheKernelsSectorCount) {
  // Any block device of this machine that has a node in /dev and a size in sysfs.
  DIR* dir = opendir("/sys/class/block");
  if (dir == nullptr) GTEST_SKIP() << "no /sys/class/block";
  std::string device;
  uint64_t sectors = 0;
  while (struct dirent* e = readdir(dir)) {
    if (e->d_name[0] == '.') continue;
    std::string node = std::string("/dev/") + e->d_name;
    struct stat st;
    if (stat(node.c_str(), &st) != 0 || !S_ISBLK(st.st_mode)) continue;
    std::ifstream sizeFile(std::string("/sys/class/block/") + e->d_name + "/size");
    if (!(sizeFile >> sectors)) continue;
    int fd = open(node.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) continue;
    close(fd);
    device = node;
    break;
  }
  closedir(dir);
  if (device.empty()) GTEST_SKIP() << "no readable block device";
  uint64_t size = 0;
  CQiError error = FXFile::GetDeviceSize(device, size);
  ASSERT_TRUE(error.IsSuccess()) << device << ": " << error.AsString();
  EXPECT_EQ(size, sectors * 512) << device;

  CFileData record(device, CFileData::kModeFullPath);
  uint64_t viaRecord = 0;
  ASSERT_TRUE(record.GetDeviceSize(viaRecord).IsSuccess());
  EXPECT_EQ(viaRecord, size);
}
