// Items: what items built from real objects report, device sizes, the new-in-image flag, names
// split from the paths, fabricated items, the interface table and the last-change-time hook.
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

enum class EKind { File, Folder, Symlink, Fifo, CharDevice };

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
                           : c.kind == EKind::Fifo    ? tree.MakeFifo("data/pipe")
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
                            static_cast<uint64_t>(st.st_ino), static_cast<uint64_t>(st.st_dev), uint64_t{0}),
            std::make_tuple(item->GetFileSize(), item->GetFileSizeOnDisk(), item->GetHardLinkCount(),
                            item->GetFileId(), item->GetDeviceId(), item->GetParentFileId()));
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
                                           SObjectCase{"Fifo", EKind::Fifo, 0x1000, false, false, false, false},
                                           SObjectCase{"DevNull", EKind::CharDevice, 0x2000, false, false, false,
                                                       true}),
                         [](const auto& info) { return std::string(info.param.name); });

// A device node never reports data bytes, but keeps its real size on disk.
struct SDeviceCase {
  const char* name;
  mode_t mode;
  off_t size;
  blkcnt_t blocks;
  uint64_t expectedSize, expectedOnDisk;
};

class ItemDeviceSize : public ::testing::TestWithParam<SDeviceCase> {};

TEST_P(ItemDeviceSize, DevicesReportSizeZeroAndTheirBlocks) {
  const SDeviceCase& c = GetParam();
  struct stat st {};
  st.st_mode = c.mode;
  st.st_size = c.size;
  st.st_blocks = c.blocks;
  CFindFirstItem item(nullptr, "/dev/thing", FXFile::CFileData("/dev/thing", FXFile::CFileData::kModeFullPath, &st));
  EXPECT_EQ(std::make_tuple(c.expectedSize, c.expectedOnDisk, static_cast<uint64_t>(c.size)),
            std::make_tuple(item.GetFileSize(), item.GetFileSizeOnDisk(), item.GetCompressedFileSize()));
}

INSTANTIATE_TEST_SUITE_P(Devices, ItemDeviceSize,
                         ::testing::Values(SDeviceCase{"CharDevice", S_IFCHR | 0666, 12345, 8, 0, 4096},
                                           SDeviceCase{"BlockDevice", S_IFBLK | 0660, 1 << 30, 3, 0, 1536},
                                           SDeviceCase{"RegularFile", S_IFREG | 0644, 12345, 32, 12345, 16384},
                                           SDeviceCase{"SparseFile", S_IFREG | 0644, 1 << 20, 0, 1 << 20, 0},
                                           SDeviceCase{"Socket", S_IFSOCK | 0755, 7, 1, 7, 512}),
                         [](const auto& info) { return std::string(info.param.name); });

// A record whose status could not be read gives an item that knows nothing.
TEST(ItemFromObject, VanishedRecordReportsUnknown) {
  CTempTree tree;
  FXFile::CFileData data(tree.Path("gone"), FXFile::CFileData::kModeFullPath);
  EXPECT_FALSE(data.good());
  CFindFirstItem item(nullptr, tree.Path("gone"), data);
  EXPECT_EQ(std::make_tuple(0xFFFFFFFFu, false, false, uint64_t{0}, std::string("gone")),
            std::make_tuple(item.GetAttributes(), item.IsFolder(), item.IsRegularFile(), item.GetFileSize(),
                            item.GetItemName()));
}

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
    ::testing::Values(SNameCase{"OnePath", "/data/x/report.txt", nullptr, "report.txt", "/data/x", "/data/x"},
                      SNameCase{"SnapshotAndSource", "/snap/7/data/x/y", "/data/x/y", "y", "/snap/7/data/x", "/data/x"},
                      SNameCase{"Root", "/", nullptr, "/", "", ""}, SNameCase{"TopLevel", "/etc", nullptr, "etc", "/", "/"},
                      SNameCase{"TrailingDelimiter", "/data/dir/", nullptr, "dir", "/data", "/data"},
                      SNameCase{"Relative", "name", nullptr, "name", "", ""},
                      SNameCase{"ColonAndNewline", "/d/a:b\nc", nullptr, "a:b\nc", "/d", "/d"},
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

// ---------------------------------------------------------------------------------------------
// The interface table.

class CCountedInterface : public CItemInterface {
 public:
  CCountedInterface(CItem* pItem, int* pDestroyed) : CItemInterface(pItem), m_pDestroyed(pDestroyed) {}
  ~CCountedInterface() override { ++*m_pDestroyed; }
  std::string AsString() const override { return "counted"; }

 private:
  int* m_pDestroyed;
};

TEST(ItemInterfaces, AddGrowsTheTableAndRefusesTakenSlots) {
  int destroyed = 0;
  {
    CItem item(nullptr);
    EXPECT_EQ(0u, item.GetInterfaceTableSize());
    auto* first = new CCountedInterface(&item, &destroyed);
    ASSERT_TRUE(item.AddInterface(3, first).IsSuccess());
    EXPECT_EQ(11u, item.GetInterfaceTableSize());
    EXPECT_EQ(first, item.GetInterface(3));
    EXPECT_EQ(&item, item.GetInterface(3)->GetItem());
    EXPECT_EQ("counted", item.GetInterface(3)->AsString());
    for (int id : {0, 10, 11, -1}) EXPECT_EQ(nullptr, item.GetInterface(id)) << id;

    // The taken slot is refused; the caller still owns what it offered.
    auto second = std::make_unique<CCountedInterface>(&item, &destroyed);
    CQiError error = item.AddInterface(3, second.get());
    EXPECT_TRUE(error.IsWin32(85) && FromItemCpp(error)) << error.AsString();
    EXPECT_EQ(first, item.GetInterface(3));
    second.reset();
    EXPECT_EQ(1, destroyed);

    // A slot within the table does not grow it; one beyond does, to id + 8.
    std::vector<size_t> sizes;
    for (int id : {10, 11, 0}) {
      ASSERT_TRUE(item.AddInterface(id, new CCountedInterface(&item, &destroyed)).IsSuccess());
      sizes.push_back(item.GetInterfaceTableSize());
    }
    EXPECT_EQ(sizes, (std::vector<size_t>{11, 19, 19}));

    // A negative id or no interface: invalid data, and the table is left as it was.
    for (int id : {-1, 0}) {
      CCountedInterface offered(&item, &destroyed);
      error = item.AddInterface(id, id < 0 ? &offered : nullptr);
      EXPECT_TRUE(error.IsWin32(13) && FromItemCpp(error)) << error.AsString();
      EXPECT_EQ(19u, item.GetInterfaceTableSize());
    }
    EXPECT_EQ(3, destroyed);
  }
  // The item destroyed the four interfaces it owned.
  EXPECT_EQ(7, destroyed);
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
