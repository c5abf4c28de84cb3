// Folder listings through a traversal's folder cache: a sub-folder opened through its parent's
// kept descriptor lists the same entries as by path, descriptors are never leaked (eviction,
// CloseAll, the end of a scope), and threads without a scope keep nothing.
#include <gtest/gtest.h>

#include <cerrno>

#include <filesystem>
#include <set>
#include <string>
#include <thread>
#include <memory>

#include "Platform/FXFile.h"
#include "Platform/ListingFolderCache.h"
#include "Support/PlatformTestSupport.h"
#include "Support/TempTree.h"

namespace {

size_t OpenDescriptorCount() {
  size_t n = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    (void)entry;
    ++n;
  }
  return n;
}

// Lists a folder with the platform listing; the names, "." and ".." left out. The handle is
// closed (its descriptor offered to the thread's cache) before returning.
std::set<std::string> List(const std::string& strFolder, CQiError& error) {
  std::set<std::string> setNames;
  FXFile::auto_find_handle handle;
  CFileData record;
  error = FXFile::ZRFindFirstFile(handle, strFolder, record);
  while (error.IsSuccess()) {
    if (!record.isRelativeFolder()) setNames.insert(record.getFileNameAsString());
    error = FXFile::ZRFindNextFile(handle, record);
  }
  if (error.IsWin32(QiErrorCode::NoMoreFiles)) error = CQiError();
  return setNames;
}

class ListingFolderCacheTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (int i = 0; i < 20; ++i) m_tree.MakeFile("p/d" + std::to_string(i) + "/f" + std::to_string(i));
    m_tree.MakeDir("p/d3/deeper");
  }
  CTempTree m_tree;
};

TEST_F(ListingFolderCacheTest, SubFoldersListTheSameThroughTheCacheAndNothingLeaks) {
  const size_t nBefore = OpenDescriptorCount();
  auto pCache = std::make_shared<CListingFolderCache>();
  {
    CListingFolderCache::CThreadScope scope(pCache);
    CQiError error;
    EXPECT_EQ(List(m_tree.Path("p"), error).size(), 20u);
    ASSERT_TRUE(error.IsSuccess()) << error.AsString();
    EXPECT_EQ(pCache->GetKeptCount(), 1u);
    // Every sub-folder opens through the kept parent; more listings than slots evict the oldest.
    for (int i = 0; i < 20; ++i) {
      const std::string strName = std::string("f").append(std::to_string(i));
      std::set<std::string> setWant{strName};
      if (i == 3) setWant.insert("deeper");
      EXPECT_EQ(List(m_tree.Path("p/d" + std::to_string(i)), error), setWant) << i;
      ASSERT_TRUE(error.IsSuccess()) << error.AsString();
    }
    EXPECT_EQ(pCache->GetKeptCount(), CListingFolderCache::kCapacity);
    EXPECT_EQ(OpenDescriptorCount(), nBefore + CListingFolderCache::kCapacity);
    // The kept descriptor is what the sub-folder is opened through: with the parent renamed
    // since its listing, the old path still reaches the folder it listed.
    List(m_tree.Path("p/d3"), error);
    ASSERT_EQ(rename(m_tree.Path("p/d3").c_str(), m_tree.Path("p/moved").c_str()), 0);
    EXPECT_TRUE(List(m_tree.Path("p/d3/deeper"), error).empty());
    EXPECT_TRUE(error.IsSuccess()) << error.AsString();
    // A folder that does not exist fails as it does by path.
    List(m_tree.Path("p/d1/absent"), error);
    EXPECT_TRUE(error.IsErrNo(ENOENT)) << error.AsString();

    // Another thread without a scope keeps nothing.
    std::thread([&] {
      CQiError otherError;
      EXPECT_EQ(List(m_tree.Path("p/d4"), otherError).size(), 1u);
    }).join();
    EXPECT_EQ(pCache->GetKeptCount(), CListingFolderCache::kCapacity);
  }
  // Out of the scope the thread keeps nothing more; CloseAll gives every descriptor back.
  CQiError error;
  List(m_tree.Path("p/d5"), error);
  EXPECT_EQ(pCache->GetKeptCount(), CListingFolderCache::kCapacity);
  pCache->CloseAll();
  EXPECT_EQ(pCache->GetKeptCount(), 0u);
  EXPECT_EQ(OpenDescriptorCount(), nBefore);
}

}  // namespace
