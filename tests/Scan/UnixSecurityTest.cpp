// Unix security and analytics attributes: the owner and permission summary of real files
// (chmod/chown as root), unknown users and groups, the Enable/Process rules,
// attaching to items, and the JSON renderings.
#include <grp.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>

#include "Platform/FXFile.h"
#include "Scan/FabricatedItem.h"
#include "Scan/FindFirstItem.h"
#include "Scan/Unix/AnalyticsItemAddInfo.h"
#include "Scan/Unix/AnalyticsItemUnix.h"
#include "Support/TempTree.h"

namespace {

using TMap = std::map<std::string, std::string>;

// Ids without user or group entries.
constexpr uid_t kNoSuchUser = 4000001;
constexpr gid_t kNoSuchGroup = 4000002;

// A real file with the mode and owner, read back with lstat into a find-first item.
CItemPtr MakeItem(CTempTree& tree, const std::string& name, mode_t mode, uid_t uid, gid_t gid) {
  std::string path = tree.MakeFile(name, "data");
  struct stat st;
  if (chown(path.c_str(), uid, gid) != 0 || chmod(path.c_str(), mode) != 0 || lstat(path.c_str(), &st) != 0)
    return nullptr;
  return std::make_shared<CFindFirstItem>(nullptr, path, FXFile::CFileData(path, FXFile::CFileData::kModeFullPath, &st));
}

// Who holds each right: "U" the owner, "G" the group, in that order.
struct SModeRow {
  const char* name;
  mode_t mode;
  uid_t uid;
  gid_t gid;
  const char *read, *write, *execute, *full;
};

// The summary the row stands for: each right lists its holders' names and ids, each followed by ','.
TMap Expected(const SModeRow& row, const std::string& U, const std::string& G) {
  TMap map;
  auto add = [&](const std::string& who, std::vector<std::pair<const char*, const char*>> keys) {
    std::string names, ids;
    for (char c : who) {
      names += (c == 'U' ? U : G) + ",";
      ids += std::to_string(c == 'U' ? row.uid : row.gid) + ",";
    }
    for (const auto& [nameKey, idKey] : keys)
      if (!who.empty()) map[nameKey] = names, map[idKey] = ids;
  };
  add(row.read, {{"AllowListUsername", "AllowListSID"}, {"ReadAccessUserName", "ReadAccessSID"}});
  add(row.write, {{"AllowModifyUsername", "AllowModifySID"},
                  {"AllowWriteUsername", "AllowWriteSID"},
                  {"AllowDeleteUsername", "AllowDeleteSID"}});
  add(row.execute, {{"AllowExecuteUsername", "AllowExecuteSID"}});
  add(row.full, {{"AllowFullControlUsername", "AllowFullControlSID"}});
  return map;
}

class UnixPermissionTest : public ::testing::TestWithParam<SModeRow> {};

TEST_P(UnixPermissionTest, SummarisesOwnerAndGroupBits) {
  const SModeRow& row = GetParam();
  CTempTree tree;
  CItemPtr pItem = MakeItem(tree, "f", row.mode, row.uid, row.gid);
  if (!pItem) GTEST_SKIP() << "chown needs root";
  CAnalyticsItemUnix* pAnalytics = nullptr;
  ASSERT_TRUE(CAnalyticsItemUnix::AttachTo(pItem, &pAnalytics).IsSuccess());
  ASSERT_TRUE(pAnalytics->EnableSecurityInfoProcessing(true, true).IsSuccess());
  ASSERT_TRUE(pAnalytics->Process().IsSuccess());

  struct passwd* pw = getpwuid(row.uid);
  struct group* gr = getgrgid(row.gid);
  const std::string U = pw ? pw->pw_name : "UNKNOWN", G = gr ? gr->gr_name : "UNKNOWN";
  EXPECT_EQ(pAnalytics->GetSecurityInfoMap(), Expected(row, U, G));
  EXPECT_EQ(pAnalytics->GetOwnerName(), U);
  EXPECT_EQ(pAnalytics->GetOwnerSid(), std::to_string(row.uid));
  // A second Process() collects nothing more (the lists would double).
  ASSERT_TRUE(pAnalytics->Process().IsSuccess());
  EXPECT_EQ(pAnalytics->GetSecurityInfoMap(), Expected(row, U, G));
}

// 0750 alice/staff in miniature: daemon (1) and staff (50).
INSTANTIATE_TEST_SUITE_P(Modes, UnixPermissionTest,
                         ::testing::Values(SModeRow{"Mode0750", 0750, 1, 50, "UG", "U", "UG", "U"},
                                           SModeRow{"Mode0077GroupOnlyOthersIgnored", 0077, 1, 50, "G", "G", "G", "G"},
                                           SModeRow{"Mode0007NothingForOthers", 0007, 0, 0, "", "", "", ""},
                                           SModeRow{"UnknownOwnerAndGroup", 0700, kNoSuchUser, kNoSuchGroup, "U",
                                                    "U", "U", "U"}),
                         [](const auto& info) { return info.param.name; });

struct SFlagsRow {
  const char* name;
  bool owner, permissions, hasInfo, hasMap;
};

class UnixSecurityFlagsTest : public ::testing::TestWithParam<SFlagsRow> {};

TEST_P(UnixSecurityFlagsTest, CollectsWhatWasAskedFor) {
  const SFlagsRow& row = GetParam();
  CTempTree tree;
  CItemPtr pItem = MakeItem(tree, "f", 0750, 0, 0);
  ASSERT_TRUE(pItem);
  CAnalyticsItemUnix analytics(pItem);
  ASSERT_TRUE(analytics.EnableSecurityInfoProcessing(row.owner, row.permissions).IsSuccess());
  EXPECT_EQ(static_cast<bool>(analytics.GetSecurityInfo()), row.hasInfo);
  ASSERT_TRUE(analytics.Process().IsSuccess());
  EXPECT_EQ(analytics.GetOwnerName(), row.hasInfo ? "root" : "");
  EXPECT_EQ(analytics.GetSecurityInfoMap().empty(), !row.hasMap);
  EXPECT_EQ(analytics.GetSecurityInfoMap2AsJsonString().empty(), !row.hasMap);
}

INSTANTIATE_TEST_SUITE_P(Flags, UnixSecurityFlagsTest,
                         ::testing::Values(SFlagsRow{"Neither", false, false, false, false},
                                           SFlagsRow{"OwnerOnly", true, false, true, false},
                                           SFlagsRow{"PermissionsOnly", false, true, true, true}),
                         [](const auto& info) { return info.param.name; });

TEST(UnixSecurityTest, ItemsWithoutStatDataOrGoneGiveNothing) {
  // A fabricated item has no lstat data: processing succeeds and collects nothing.
  CItemPtr pFabricated = std::make_shared<CFabricatedItem>(nullptr, "/x/y", "/x/y");
  CAnalyticsItemUnix fabricated(pFabricated);
  ASSERT_TRUE(fabricated.EnableSecurityInfoProcessing(true, true).IsSuccess());
  ASSERT_TRUE(fabricated.Process().IsSuccess());
  EXPECT_EQ(fabricated.GetOwnerName(), "");
  EXPECT_TRUE(fabricated.GetSecurityInfoMap().empty());
  // An interface whose item has gone cannot enable processing.
  CItemPtr pGone = std::make_shared<CFabricatedItem>(nullptr, "/x/z", "/x/z");
  CAnalyticsItemUnix orphan(pGone);
  pGone.reset();
  CQiError err = orphan.EnableSecurityInfoProcessing(true, false);
  EXPECT_TRUE(err.IsWin32(QiErrorCode::InvalidHandle)) << err.AsString();
  EXPECT_TRUE(orphan.EnableSecurityInfoProcessing(false, false).IsSuccess());
}

// Counts its own destruction, to see that the item destroys what is attached to it.
class CProbeAnalytics : public CAnalyticsItemUnix {
 public:
  CProbeAnalytics(const CItemPtr& pItem, int* pDestroyed) : CAnalyticsItemUnix(pItem), m_pDestroyed(pDestroyed) {}
  ~CProbeAnalytics() override { ++*m_pDestroyed; }

 private:
  int* m_pDestroyed;
};

TEST(UnixSecurityTest, AttachedAtIdZeroAndDestroyedWithTheItem) {
  CTempTree tree;
  CItemPtr pItem = MakeItem(tree, "f", 0600, 0, 0);
  ASSERT_TRUE(pItem);
  CAnalyticsItemUnix* pAttached = nullptr;
  ASSERT_TRUE(CAnalyticsItemUnix::AttachTo(pItem, &pAttached).IsSuccess());
  EXPECT_EQ(pItem->GetInterface(0), pAttached);
  EXPECT_EQ(CAnalyticsItemInterface::FromItem(*pItem), pAttached);
  EXPECT_EQ(pAttached->AsString(), "CAnalyticsItemInterface");
  CQiError err = CAnalyticsItemUnix::AttachTo(pItem);
  EXPECT_TRUE(err.IsWin32(QiErrorCode::AlreadyAssigned)) << err.AsString();

  int destroyed = 0;
  CItemPtr pOther = MakeItem(tree, "g", 0600, 0, 0);
  ASSERT_TRUE(pOther->AddInterface(CAnalyticsItemInterface::kInterfaceId, new CProbeAnalytics(pOther, &destroyed))
                  .IsSuccess());
  ASSERT_TRUE(CAnalyticsItemInterface::FromItem(*pOther)->EnableSecurityInfoProcessing(true, true).IsSuccess());
  ASSERT_TRUE(CAnalyticsItemInterface::FromItem(*pOther)->Process().IsSuccess());
  EXPECT_EQ(destroyed, 0);
  pOther.reset();
  EXPECT_EQ(destroyed, 1);
}

TEST(UnixSecurityTest, JsonRenderings) {
  CTempTree tree;
  CItemPtr pItem = MakeItem(tree, "f", 0100, 0, 0);
  ASSERT_TRUE(pItem);
  CAnalyticsItemUnix analytics(pItem);
  ASSERT_TRUE(analytics.EnableSecurityInfoProcessing(true, true).IsSuccess());
  ASSERT_TRUE(analytics.Process().IsSuccess());
  EXPECT_EQ(analytics.GetSecurityInfoMap2AsJsonString(), "{\"AllowExecuteSID\":\"0,\",\"AllowExecuteUsername\":\"root,\"}");

  CAnalyticsItemAddInfo addInfo("rwxr-x---", "al\"ice\n", "job\xff" "user", "",
                                {{"staff", "50", "Read", true}, {"\xc3\xa4t", "7", "Write", false}});
  EXPECT_EQ(addInfo.GetACLCriteriaAsJSONString(),
            "[{\"Name\":\"staff\",\"SID\":\"50\",\"Permission\":\"Read\",\"Allow\":true},"
            "{\"Name\":\"\xc3\xa4t\",\"SID\":\"7\",\"Permission\":\"Write\",\"Allow\":false}]");
  EXPECT_EQ(addInfo.GetOwnerChangeRequestedAsJSONString(),
            "{\"PreviousOwner\":\"al\\\"ice\\n\",\"RequestedBy\":\"job\\u00ffuser\"}");
  CAnalyticsItemAddInfo none("", "", "u", "failed", {});
  EXPECT_EQ(none.GetACLCriteriaAsJSONString(), "[]");
  EXPECT_EQ(none.GetOwnerChangeRequestedAsJSONString(), "");
}

}  // namespace
