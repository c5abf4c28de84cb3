// Items: what items built from real objects report (devices never count data bytes), the
// new-in-image flag, names split from the paths, fabricated items, interface refusals and the
// last-change-time hook.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>

#include "Platform/FXFile.h"
#include "Platform/FXString.h"
#include "Scan/FabricatedItem.h"
#include "Scan/FindFirstItem.h"
#include "Scan/ItemInterface.h"
#include "Support/TempTree.h"

namespace {

struct stat LStat(const std::string& path) {
  struct stat st {};
  EXPECT_EQ(0, lstat(path.c_str(), &st)) << path;
  return st;
}

FXFile::CFileData ReadFileData(const std::string& path) {
  FXFile::CFileData data(path, FXFile::CFileData::kModeFullPath);
  EXPECT_TRUE(data.good()) << path << " errno " << data.getLastError();
  return data;
}

// The error was made in Item.cpp.
bool FromItemCpp(const CQiError& error) {
  return !error.GetFrames().empty() && FXString::EndsWith(error.GetFrames().front().file, "Scan/Item.cpp");
}

// ---------------------------------------------------------------------------------------------
// Items built from real objects of a temporary tree report what lstat says about them.

enum class EKind { File, Folder, Symlink, CharDevice };

struct SObjectCase {
  const char* name;
  EKind kind;
  uint32_t fileType;  // attributes & 0xF000
  bool isFolder, isRegular, isReparse;
  bool sizeIsZero;  // devices report file size 0 whatever stat says
};

class ItemFromObject : public ::testing::TestWithParam<SObjectCase> {};

TEST_P(ItemFromObject, ReportsTheObjectsStatusData) {
  const SObjectCase& c = GetParam();
  CTempTree tree;
  tree.MakeFile("data/sub/inner.txt", "abc");
  const std::string path = c.kind == EKind::File      ? tree.MakeFile("data/report.txt", std::string(10000, 'x'))
                           : c.kind == EKind::Folder  ? tree.Path("data/sub")
                           : c.kind == EKind::Symlink ? tree.MakeSymlink("data/link", "/nowhere/at/all")
                                                      : "/dev/null";
  const struct stat st = LStat(path);
  auto bag = std::make_shared<CBag>();
  auto item = std::make_shared<CFindFirstItem>(bag, path, ReadFileData(path));
  EXPECT_EQ(c.fileType, item->GetAttributes() & 0xF000);
  EXPECT_EQ(std::make_tuple(st.st_mode, c.isFolder, c.isRegular, c.isReparse,
                            c.isReparse ? CFileData::kReparseTagSymlink : 0u),
            std::make_tuple(item->GetAttributes(), item->IsFolder(), item->IsRegularFile(), item->IsReparsePoint(),
                            item->GetReparseTag()));
  EXPECT_EQ(std::make_tuple(c.sizeIsZero ? 0u : static_cast<uint64_t>(st.st_size),
                            static_cast<uint64_t>(st.st_blocks) * 512, static_cast<uint64_t>(st.st_nlink),
                            static_cast<uint64_t>(st.st_ino), static_cast<uint64_t>(st.st_dev), uint64_t{0},
                            static_cast<uint64_t>(st.st_size)),
            std::make_tuple(item->GetFileSize(), item->GetFileSizeOnDisk(), item->GetHardLinkCount(),
                            item->GetFileId(), item->GetDeviceId(), item->GetParentFileId(),
                            item->GetCompressedFileSize()));
  EXPECT_EQ(std::make_tuple(CTimeStamp(st.st_mtim), CTimeStamp(st.st_atim), CTimeStamp(st.st_ctim)),
            std::make_tuple(item->GetLastWriteTime(), item->GetLastAccessTime(), item->GetLastChangeTime()));
  EXPECT_EQ(0, memcmp(&st, &item->GetFindFirstRawData(), sizeof st));
  EXPECT_EQ(bag, item->GetWorkUnitBag());
  EXPECT_EQ(path, item->GetFullyQualifiedItemName());
}

INSTANTIATE_TEST_SUITE_P(Objects, ItemFromObject,
                         ::testing::Values(SObjectCase{"RegularFile", EKind::File, 0x8000, false, true, false, false},
                                           SObjectCase{"Folder", EKind::Folder, 0x4000, true, false, false, false},
                                           SObjectCase{"Symlink", EKind::Symlink, 0xA000, false, false, true, false},
                                           SObjectCase{"DevNull", EKind::CharDevice, 0x2000, false, false, false,
                                                       true}),
                         [](const auto& info) { return std::string(info.param.name); });

// New-in-image spreads from a parent to the items built below it.
TEST(ItemFlags, NewInImageIsTakenFromTheParent) {
  CTempTree tree;
  const std::string path = tree.MakeFile("f", "1");
  const FXFile::CFileData data = ReadFileData(path);
  auto newParent = std::make_shared<CItem>(nullptr), oldParent = std::make_shared<CItem>(nullptr);
  newParent->setNewInImage();
  EXPECT_TRUE(CFindFirstItem(newParent, nullptr, path, data).isNewInImage());
  EXPECT_TRUE(CItem(newParent, nullptr).isNewInImage());
  EXPECT_FALSE(CFindFirstItem(oldParent, nullptr, path, data).isNewInImage());
  EXPECT_FALSE(CFindFirstItem(CItemPtr(), nullptr, path, data).isNewInImage());
  CItem item(nullptr);
  item.setSelected();
  EXPECT_FALSE(item.isNewInImage());
  item.setNewInImage();
  EXPECT_EQ(CItem::kFlagNewInImage | CItem::kFlagSelected, item.GetFlags());
}

// ---------------------------------------------------------------------------------------------
// Names are split from the paths on first use.

struct SNameCase {
  const char* name;
  const char* local;
  const char* source;  // null: the one-path constructor
  const char* itemName;
  const char* localParent;
  const char* sourceParent;
};

class ItemNames : public ::testing::TestWithParam<SNameCase> {};

// What an item answers: name, local parent, source parent, local and source paths. Asked for
// the full paths first, or for the source parent first.
std::vector<std::string> Names(CItem& item, bool bSourceFirst) {
  const std::string sourceParent = bSourceFirst ? item.GetSourceFullyQualifiedParentFolder() : "";
  const std::string localParent = bSourceFirst ? item.GetLocalFullyQualifiedParentFolder() : "";
  std::vector<std::string> names = {"", "", "", item.GetLocalFullyQualifiedItemName(),
                                    item.GetSourceFullyQualifiedItemName()};
  names[0] = item.GetItemName();
  names[1] = bSourceFirst ? localParent : item.GetLocalFullyQualifiedParentFolder();
  names[2] = bSourceFirst ? sourceParent : item.GetSourceFullyQualifiedParentFolder();
  return names;
}

TEST_P(ItemNames, AreSplitFromThePathsWhicheverComesFirst) {
  const SNameCase& c = GetParam();
  const std::string source = c.source == nullptr ? c.local : c.source;
  const std::vector<std::string> expected = {c.itemName, c.localParent, c.sourceParent, c.local, source};
  FXFile::CFileData data(c.local, FXFile::CFileData::kModeFullPath);
  CFindFirstItem findFirst = c.source == nullptr ? CFindFirstItem(nullptr, c.local, data)
                                                 : CFindFirstItem(nullptr, c.local, c.source, data);
  EXPECT_EQ(expected, Names(findFirst, false));
  CFabricatedItem fabricated(nullptr, c.local, source);
  EXPECT_EQ(expected, Names(fabricated, true));
}

INSTANTIATE_TEST_SUITE_P(
    Paths, ItemNames,
    ::testing::Values(SNameCase{"SnapshotAndSource", "/snap/7/data/x/y", "/data/x/y", "y", "/snap/7/data/x", "/data/x"},
                      SNameCase{"Root", "/", nullptr, "/", "", ""},
                      SNameCase{"TrailingDelimiter", "/data/dir/", nullptr, "dir", "/data", "/data"},
                      SNameCase{"Empty", "", nullptr, "", "", ""}),
    [](const auto& info) { return std::string(info.param.name); });

// Fabricated items, built from paths alone, are folders only with known attributes carrying the
// folder bit; everything else answers as the base item.
TEST(FabricatedItemFolder, IsAFolderOnlyWithKnownAttributesCarryingTheFolderBit) {
  EXPECT_EQ(std::make_tuple(false, 0xFFFFFFFFu, false, uint64_t{0}, CTimeStamp()),
            [](const CFabricatedItem& i) {
              return std::make_tuple(i.IsFolder(), i.GetAttributes(), i.IsRegularFile(), i.GetFileSize(),
                                     i.GetLastWriteTime());
            }(CFabricatedItem(nullptr, "/l/a", "/s/a")));
  std::string folders;
  for (uint32_t attributes : {0x10u, 0x4000u | 0x10u | 0x1u, 0x20u, 0x4000u | 0755u, 0xFFFFFFFFu, 0u}) {
    CFabricatedItem item(nullptr, "/l/a", "/s/a", attributes);
    EXPECT_EQ(attributes, item.GetAttributes());
    folders += item.IsFolder() ? "+" : "-";
  }
  EXPECT_EQ(folders, "++----");
}

// An interface table entry needs an id of 0 or more and an interface: invalid data otherwise, and
// the table is left as it was.
TEST(ItemInterfaces, RefusesANegativeIdOrNoInterface) {
  CItem item(nullptr);
  CItemInterface offered(&item);
  for (CQiError error : {item.AddInterface(-1, &offered), item.AddInterface(0, nullptr)})
    EXPECT_TRUE(error.IsWin32(13) && FromItemCpp(error)) << error.AsString();
  EXPECT_EQ(0u, item.GetInterfaceTableSize());
}

// Last change time: the hook is asked until a time is set.
class CLazyChangeTimeItem : public CFindFirstItem {
 public:
  using CFindFirstItem::CFindFirstItem;
  CQiError LookupLastChangeTime() override {
    ++m_iLookups;
    if (m_bFetch) SetLastChangeTime(CTimeStamp(1700000000, 5));
    return CQiError();
  }
  int m_iLookups = 0;
  bool m_bFetch = false;
};

TEST(ItemLastChangeTime, HookIsAskedUntilTheTimeIsKnown) {
  CTempTree tree;
  const std::string path = tree.MakeFile("f", "1");
  const struct stat st = LStat(path);
  const FXFile::CFileData data = ReadFileData(path);
  CLazyChangeTimeItem item(nullptr, path, data);
  EXPECT_EQ(CTimeStamp(st.st_ctim), item.GetLastChangeTime());
  EXPECT_EQ(CTimeStamp(st.st_ctim), item.GetLastChangeTime());
  EXPECT_EQ(2, item.m_iLookups);
  item.m_bFetch = true;
  EXPECT_EQ(CTimeStamp(1700000000, 5), item.GetLastChangeTime());
  EXPECT_EQ(CTimeStamp(1700000000, 5), item.GetLastChangeTime());
  EXPECT_EQ(3, item.m_iLookups);
  CLazyChangeTimeItem preset(nullptr, path, data);
  preset.SetLastChangeTime(CTimeStamp(42, 0));
  EXPECT_EQ(CTimeStamp(42, 0), preset.GetLastChangeTime());
  EXPECT_EQ(0, preset.m_iLookups);
}

}  // namespace
