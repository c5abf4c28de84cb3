#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>
#include <memory>
#include <set>
#include <string>

#include "Platform/FXFile.h"
#include "Scan/CompoundItem.h"
#include "Scan/FabricatedItem.h"
#include "Scan/FindFirstItem.h"
#include "Scan/Item.h"
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

std::string FirstFrameFile(const CQiError& error) {
  return error.GetFrames().empty() ? std::string() : error.GetFrames().front().file;
}

bool EndsWith(const std::string& text, const std::string& suffix) {
  return text.size() >= suffix.size() &&
         text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

// ---------------------------------------------------------------------------------------------
// Items built from real objects of a temporary tree report what lstat says about them.

enum class EKind { File, Folder, Symlink, Fifo, CharDevice };

struct SObjectCase {
  const char* name;
  EKind kind;
  uint32_t fileType;  // attributes & 0xF000
  bool isFolder;
  bool isRegular;
  bool isReparse;
  bool sizeIsZero;  // devices report file size 0 whatever stat says
};

void PrintTo(const SObjectCase& c, std::ostream* out) { *out << c.name; }

class ItemFromObject : public ::testing::TestWithParam<SObjectCase> {
 protected:
  std::string MakeObject(EKind kind) {
    switch (kind) {
      case EKind::File:
        return m_tree.MakeFile("data/report.txt", std::string(10000, 'x'));
      case EKind::Folder:
        m_tree.MakeFile("data/sub/inner.txt", "abc");
        return m_tree.Path("data/sub");
      case EKind::Symlink:
        return m_tree.MakeSymlink("data/link", "/nowhere/at/all");
      case EKind::Fifo:
        return m_tree.MakeFifo("data/pipe");
      case EKind::CharDevice:
        return "/dev/null";
    }
    return std::string();
  }
  CTempTree m_tree;
};

TEST_P(ItemFromObject, ReportsTheObjectsStatusData) {
  const SObjectCase& c = GetParam();
  const std::string path = MakeObject(c.kind);
  const struct stat st = LStat(path);
  auto bag = std::make_shared<CBag>();
  auto item = std::make_shared<CFindFirstItem>(bag, path, ReadFileData(path));

  EXPECT_EQ(c.fileType, item->GetAttributes() & 0xF000);
  EXPECT_EQ(st.st_mode, item->GetAttributes());
  EXPECT_EQ(c.isFolder, item->IsFolder());
  EXPECT_EQ(c.isRegular, item->IsRegularFile());
  EXPECT_EQ(c.isReparse, item->IsReparsePoint());
  EXPECT_EQ(c.isReparse ? CFileData::kReparseTagSymlink : 0u, item->GetReparseTag());
  EXPECT_EQ(c.sizeIsZero ? 0u : static_cast<uint64_t>(st.st_size), item->GetFileSize());
  EXPECT_EQ(static_cast<uint64_t>(st.st_blocks) * 512, item->GetFileSizeOnDisk());
  EXPECT_EQ(static_cast<uint64_t>(st.st_nlink), item->GetHardLinkCount());
  EXPECT_EQ(static_cast<uint64_t>(st.st_ino), item->GetFileId());
  EXPECT_EQ(static_cast<uint64_t>(st.st_dev), item->GetDeviceId());
  EXPECT_EQ(0u, item->GetParentFileId());
  EXPECT_EQ(CTimeStamp(st.st_mtim), item->GetLastWriteTime());
  EXPECT_EQ(CTimeStamp(st.st_atim), item->GetLastAccessTime());
  EXPECT_EQ(CTimeStamp(st.st_ctim), item->GetLastChangeTime());
  EXPECT_EQ(0, memcmp(&st, &item->GetFindFirstRawData(), sizeof st));
  EXPECT_EQ(bag, item->GetWorkUnitBag());
  EXPECT_EQ(path, item->GetFullyQualifiedItemName());
}

INSTANTIATE_TEST_SUITE_P(
    Objects, ItemFromObject,
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
  uint64_t expectedSize;
  uint64_t expectedOnDisk;
};

void PrintTo(const SDeviceCase& c, std::ostream* out) { *out << c.name; }

class ItemDeviceSize : public ::testing::TestWithParam<SDeviceCase> {};

TEST_P(ItemDeviceSize, DevicesReportSizeZeroAndTheirBlocks) {
  const SDeviceCase& c = GetParam();
  struct stat st {};
  st.st_mode = c.mode;
  st.st_size = c.size;
  st.st_blocks = c.blocks;
  FXFile::CFileData data("/dev/thing", FXFile::CFileData::kModeFullPath, &st);
  CFindFirstItem item(nullptr, "/dev/thing", data);
  EXPECT_EQ(c.expectedSize, item.GetFileSize());
  EXPECT_EQ(c.expectedOnDisk, item.GetFileSizeOnDisk());
  EXPECT_EQ(static_cast<uint64_t>(c.size), item.GetCompressedFileSize());
}

INSTANTIATE_TEST_SUITE_P(
    Devices, ItemDeviceSize,
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
  EXPECT_EQ(0xFFFFFFFFu, item.GetAttributes());
  EXPECT_FALSE(item.IsFolder());
  EXPECT_FALSE(item.IsRegularFile());
  EXPECT_EQ(0u, item.GetFileSize());
  EXPECT_EQ("gone", item.GetItemName());
}

// ---------------------------------------------------------------------------------------------
// New-in-image spreads from a parent to the items built below it.

TEST(ItemFlags, NewInImageIsTakenFromTheParent) {
  CTempTree tree;
  const std::string path = tree.MakeFile("f", "1");
  const FXFile::CFileData data = ReadFileData(path);

  auto newParent = std::make_shared<CItem>(nullptr);
  newParent->setNewInImage();
  auto oldParent = std::make_shared<CItem>(nullptr);

  EXPECT_TRUE(CFindFirstItem(newParent, nullptr, path, data).isNewInImage());
  EXPECT_TRUE(CItem(newParent, nullptr).isNewInImage());
  EXPECT_FALSE(CFindFirstItem(oldParent, nullptr, path, data).isNewInImage());
  EXPECT_FALSE(CFindFirstItem(CItemPtr(), nullptr, path, data).isNewInImage());

  CItem item(nullptr);
  item.setSelected();
  EXPECT_FALSE(item.isNewInImage());
  EXPECT_TRUE(item.isSelected());
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

void PrintTo(const SNameCase& c, std::ostream* out) { *out << c.name; }

class ItemNames : public ::testing::TestWithParam<SNameCase> {};

TEST_P(ItemNames, FindFirstItemSplitsItsPaths) {
  const SNameCase& c = GetParam();
  FXFile::CFileData data(c.local, FXFile::CFileData::kModeFullPath);
  std::shared_ptr<CFindFirstItem> item =
      c.source == nullptr ? std::make_shared<CFindFirstItem>(nullptr, c.local, data)
                          : std::make_shared<CFindFirstItem>(nullptr, c.local, c.source, data);
  const std::string source = c.source == nullptr ? c.local : c.source;
  EXPECT_EQ(c.local, item->GetLocalFullyQualifiedItemName());
  EXPECT_EQ(source, item->GetSourceFullyQualifiedItemName());
  EXPECT_EQ(c.itemName, item->GetItemName());
  EXPECT_EQ(c.localParent, item->GetLocalFullyQualifiedParentFolder());
  EXPECT_EQ(c.sourceParent, item->GetSourceFullyQualifiedParentFolder());
}

TEST_P(ItemNames, SourceFirstThenLocalGivesTheSameNames) {
  const SNameCase& c = GetParam();
  const std::string source = c.source == nullptr ? c.local : c.source;
  CFabricatedItem item(nullptr, c.local, source);
  EXPECT_EQ(c.sourceParent, item.GetSourceFullyQualifiedParentFolder());
  EXPECT_EQ(c.localParent, item.GetLocalFullyQualifiedParentFolder());
  EXPECT_EQ(c.itemName, item.GetItemName());
  EXPECT_EQ(c.local, item.GetLocalFullyQualifiedItemName());
  EXPECT_EQ(source, item.GetSourceFullyQualifiedItemName());
}

INSTANTIATE_TEST_SUITE_P(
    Paths, ItemNames,
    ::testing::Values(
        SNameCase{"OnePath", "/data/x/report.txt", nullptr, "report.txt", "/data/x", "/data/x"},
        SNameCase{"SnapshotAndSource", "/snap/7/data/x/y", "/data/x/y", "y", "/snap/7/data/x",
                  "/data/x"},
        SNameCase{"Root", "/", nullptr, "/", "", ""},
        SNameCase{"TopLevel", "/etc", nullptr, "etc", "/", "/"},
        SNameCase{"TrailingDelimiter", "/data/dir/", nullptr, "dir", "/data", "/data"},
        SNameCase{"Relative", "name", nullptr, "name", "", ""},
        SNameCase{"ColonAndNewline", "/d/a:b\nc", nullptr, "a:b\nc", "/d", "/d"},
        SNameCase{"Empty", "", nullptr, "", "", ""}),
    [](const auto& info) { return std::string(info.param.name); });

// ---------------------------------------------------------------------------------------------
// Fabricated items: built from paths alone.

struct SFabricatedCase {
  const char* name;
  bool withAttributes;
  uint32_t attributes;
  bool isFolder;
};

void PrintTo(const SFabricatedCase& c, std::ostream* out) { *out << c.name; }

class FabricatedItemFolder : public ::testing::TestWithParam<SFabricatedCase> {};

TEST_P(FabricatedItemFolder, IsAFolderOnlyWithKnownAttributesCarryingTheFolderBit) {
  const SFabricatedCase& c = GetParam();
  std::shared_ptr<CFabricatedItem> item =
      c.withAttributes ? std::make_shared<CFabricatedItem>(nullptr, "/l/a", "/s/a", c.attributes)
                       : std::make_shared<CFabricatedItem>(nullptr, "/l/a", "/s/a");
  EXPECT_EQ(c.isFolder, item->IsFolder());
  EXPECT_EQ(c.withAttributes ? c.attributes : 0xFFFFFFFFu, item->GetAttributes());
  // Everything else answers as the base item.
  EXPECT_FALSE(item->IsRegularFile());
  EXPECT_EQ(0u, item->GetFileSize());
  EXPECT_EQ(CTimeStamp(), item->GetLastWriteTime());
}

INSTANTIATE_TEST_SUITE_P(
    Attributes, FabricatedItemFolder,
    ::testing::Values(SFabricatedCase{"NoAttributes", false, 0, false},
                      SFabricatedCase{"FolderBit", true, 0x10, true},
                      SFabricatedCase{"FolderBitAmongOthers", true, 0x4000 | 0x10 | 0x1, true},
                      SFabricatedCase{"OtherBits", true, 0x20, false},
                      SFabricatedCase{"StatFolderTypeWithoutBit", true, 0x4000 | 0755, false},
                      SFabricatedCase{"ExplicitUnknown", true, 0xFFFFFFFF, false},
                      SFabricatedCase{"Zero", true, 0, false}),
    [](const auto& info) { return std::string(info.param.name); });

// ---------------------------------------------------------------------------------------------
// The interface table.

class CCountedInterface : public CItemInterface {
 public:
  CCountedInterface(CItem* pItem, int* pDestroyed)
      : CItemInterface(pItem), m_pDestroyed(pDestroyed) {}
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
    EXPECT_EQ(nullptr, item.GetInterface(0));
    EXPECT_EQ(nullptr, item.GetInterface(10));
    EXPECT_EQ(nullptr, item.GetInterface(11));
    EXPECT_EQ(nullptr, item.GetInterface(-1));

    // The taken slot is refused; the caller still owns what it offered.
    auto second = std::make_unique<CCountedInterface>(&item, &destroyed);
    CQiError error = item.AddInterface(3, second.get());
    EXPECT_TRUE(error.IsWin32(85)) << error.AsString();
    EXPECT_TRUE(EndsWith(FirstFrameFile(error), "Scan/Item.cpp"));
    EXPECT_EQ(first, item.GetInterface(3));
    second.reset();
    EXPECT_EQ(1, destroyed);

    // A slot within the table does not grow it; one beyond does, to id + 8.
    ASSERT_TRUE(item.AddInterface(10, new CCountedInterface(&item, &destroyed)).IsSuccess());
    EXPECT_EQ(11u, item.GetInterfaceTableSize());
    ASSERT_TRUE(item.AddInterface(11, new CCountedInterface(&item, &destroyed)).IsSuccess());
    EXPECT_EQ(19u, item.GetInterfaceTableSize());
    ASSERT_TRUE(item.AddInterface(0, new CCountedInterface(&item, &destroyed)).IsSuccess());
    EXPECT_EQ(19u, item.GetInterfaceTableSize());
  }
  // The item destroyed the four interfaces it owned.
  EXPECT_EQ(5, destroyed);
}

struct SBadInterfaceCase {
  const char* name;
  int id;
  bool nullInterface;
};

void PrintTo(const SBadInterfaceCase& c, std::ostream* out) { *out << c.name; }

class ItemBadInterface : public ::testing::TestWithParam<SBadInterfaceCase> {};

TEST_P(ItemBadInterface, FailsWithInvalidDataAndLeavesTheTable) {
  const SBadInterfaceCase& c = GetParam();
  int destroyed = 0;
  CItem item(nullptr);
  auto offered = std::make_unique<CCountedInterface>(&item, &destroyed);
  CQiError error = item.AddInterface(c.id, c.nullInterface ? nullptr : offered.get());
  EXPECT_TRUE(error.IsWin32(13)) << error.AsString();
  EXPECT_TRUE(EndsWith(FirstFrameFile(error), "Scan/Item.cpp"));
  EXPECT_EQ(0u, item.GetInterfaceTableSize());
  EXPECT_EQ(0, destroyed);
}

INSTANTIATE_TEST_SUITE_P(Cases, ItemBadInterface,
                         ::testing::Values(SBadInterfaceCase{"NegativeId", -1, false},
                                           SBadInterfaceCase{"VeryNegativeId", -1000, false},
                                           SBadInterfaceCase{"NullInterface", 0, true},
                                           SBadInterfaceCase{"NegativeAndNull", -1, true}),
                         [](const auto& info) { return std::string(info.param.name); });

// ---------------------------------------------------------------------------------------------
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
