#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "Platform/FXErrorUtil.h"
#include "Platform/FXFile.h"
#include "Platform/ScanPerformanceCounter.h"
#include "Scan/ConsumerOutputHandler.h"
#include "Scan/DirChangeCollectItemConsumer.h"
#include "Scan/EvaluatorOutputHandler.h"
#include "Scan/FindFirstItem.h"
#include "Scan/ItemConsumer.h"
#include "Scan/ItemEvaluator.h"
#include "Scan/OutputHandler.h"
#include "Support/TempTree.h"

namespace {

bool EndsWith(const std::string& text, const std::string& suffix) {
  return text.size() >= suffix.size() &&
         text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

// Keeps the items it is given; fails with a set code instead when asked to.
class CRecordingConsumer : public CItemConsumer {
 public:
  explicit CRecordingConsumer(uint32_t failCode = 0) : m_uFailCode(failCode) {}
  CQiError Process(CItemPtr pItem) override {
    if (m_uFailCode != 0) return QI_ERROR_WIN32(m_uFailCode, "consumer refused");
    m_vItems.push_back(pItem);
    ++m_ullProcessedItems;
    return CQiError();
  }
  std::vector<CItemPtr> m_vItems;
  uint32_t m_uFailCode;
};

class CFixedEvaluator : public CItemEvaluator {
 public:
  explicit CFixedEvaluator(bool bAnswer) : m_bAnswer(bAnswer) {}
  bool IsSelected(CItemPtr) override {
    ++m_iCalls;
    return m_bAnswer;
  }
  bool m_bAnswer;
  int m_iCalls = 0;
};

// Items from a real temporary tree.
class OutputFixture {
 protected:
  CItemPtr MakeItem(const std::string& relative) {
    const std::string path = m_tree.MakeFile(relative, "content");
    FXFile::CFileData data(path, FXFile::CFileData::kModeFullPath);
    EXPECT_TRUE(data.good());
    return std::make_shared<CFindFirstItem>(m_pBag, path, data);
  }
  CTempTree m_tree;
  CBagPtr m_pBag = std::make_shared<CBag>();
};

// ---------------------------------------------------------------------------------------------
// The base output handler refuses items.

class BaseOutputHandler : public ::testing::Test, public OutputFixture {};

// ---------------------------------------------------------------------------------------------
// Routing handlers: which items reach which consumer.

enum class EEvaluator { None, Selects, Rejects };

struct SRouteCase {
  const char* name;
  bool evaluatorHandler;  // CEvaluatorOutputHandler, else CConsumerOutputHandler
  EEvaluator evaluator;   // for the evaluator handler only
  bool withConsumer;
  uint32_t consumerFails;  // 0: succeeds
  bool deleted;            // route through OnDeletedItem
  bool expectDelivered;
  uint32_t expectCode;
  const char* expectPushedIn;  // file of the frame the handler adds, null: returned as it is
};

void PrintTo(const SRouteCase& c, std::ostream* out) { *out << c.name; }

class RoutingHandler : public ::testing::TestWithParam<SRouteCase>, public OutputFixture {};

TEST_P(RoutingHandler, RoutesAsConfigured) {
  const SRouteCase& c = GetParam();
  auto consumer = std::make_shared<CRecordingConsumer>(c.consumerFails);
  auto other = std::make_shared<CRecordingConsumer>();
  auto evaluator = c.evaluator == EEvaluator::None
                       ? nullptr
                       : std::make_shared<CFixedEvaluator>(c.evaluator == EEvaluator::Selects);
  auto otherEvaluator = std::make_shared<CFixedEvaluator>(true);
  COutputHandlerPtr handler;
  if (c.evaluatorHandler) {
    auto evaluating = std::make_shared<CEvaluatorOutputHandler>();
    // The pair under test, and a selecting pair on the other route that must stay untouched.
    if (c.deleted) {
      if (c.withConsumer) evaluating->SetDeletedItemConsumer(consumer);
      evaluating->SetDeletedItemEvaluator(evaluator);
      evaluating->SetItemConsumer(other);
      evaluating->SetItemEvaluator(otherEvaluator);
    } else {
      if (c.withConsumer) evaluating->SetItemConsumer(consumer);
      evaluating->SetItemEvaluator(evaluator);
      evaluating->SetDeletedItemConsumer(other);
      evaluating->SetDeletedItemEvaluator(otherEvaluator);
    }
    handler = evaluating;
  } else {
    auto consuming = std::make_shared<CConsumerOutputHandler>();
    if (c.deleted) {
      if (c.withConsumer) consuming->SetDeletedItemConsumer(consumer);
      consuming->SetItemConsumer(other);
    } else {
      if (c.withConsumer) consuming->SetItemConsumer(consumer);
      consuming->SetDeletedItemConsumer(other);
    }
    handler = consuming;
  }

  CItemPtr item = MakeItem("dir/file.txt");
  CQiError error = c.deleted ? handler->OnDeletedItem(item) : handler->OnItem(item);
  if (c.expectCode == 0) {
    EXPECT_TRUE(error.IsSuccess()) << error.AsString();
  } else {
    ASSERT_TRUE(error.IsWin32(c.expectCode)) << error.AsString();
    EXPECT_EQ("consumer refused", error.GetMessage());
    if (c.expectPushedIn != nullptr) {
      ASSERT_EQ(2u, error.GetFrames().size());
      EXPECT_TRUE(EndsWith(error.GetFrames().back().file, c.expectPushedIn))
          << error.GetFrames().back().file;
      EXPECT_NE(std::string::npos, std::string(error.GetFrames().back().function).find("OnItem"));
    } else {
      EXPECT_EQ(1u, error.GetFrames().size());
    }
  }
  EXPECT_EQ(c.expectDelivered ? 1u : 0u, consumer->m_vItems.size());
  if (c.expectDelivered) {
    EXPECT_EQ(item, consumer->m_vItems.front());
  }
  EXPECT_TRUE(other->m_vItems.empty());
  if (evaluator && !c.withConsumer) {
    EXPECT_EQ(0, evaluator->m_iCalls);
  }
  // The handler reports its item consumer's count.
  EXPECT_EQ(c.deleted || !c.withConsumer ? 0u : consumer->m_vItems.size(),
            handler->getProcessedItemsCount());
}

INSTANTIATE_TEST_SUITE_P(
    Cases, RoutingHandler,
    ::testing::Values(
        // CConsumerOutputHandler: the consumer alone decides.
        SRouteCase{"ConsumerItem", false, EEvaluator::None, true, 0, false, true, 0, nullptr},
        SRouteCase{"ConsumerItemNoConsumer", false, EEvaluator::None, false, 0, false, false, 0,
                   nullptr},
        SRouteCase{"ConsumerItemFails", false, EEvaluator::None, true, 5, false, false, 5,
                   "Scan/ConsumerOutputHandler.cpp"},
        SRouteCase{"ConsumerDeleted", false, EEvaluator::None, true, 0, true, true, 0, nullptr},
        SRouteCase{"ConsumerDeletedNoConsumer", false, EEvaluator::None, false, 0, true, false,
                   0, nullptr},
        SRouteCase{"ConsumerDeletedFailsAsItIs", false, EEvaluator::None, true, 5, true, false,
                   5, nullptr},
        // CEvaluatorOutputHandler: the pair is required.
        SRouteCase{"EvaluatorItemSelected", true, EEvaluator::Selects, true, 0, false, true, 0,
                   nullptr},
        SRouteCase{"EvaluatorItemRejected", true, EEvaluator::Rejects, true, 0, false, false, 0,
                   nullptr},
        SRouteCase{"EvaluatorItemWithoutEvaluatorPassesNothing", true, EEvaluator::None, true, 0,
                   false, false, 0, nullptr},
        SRouteCase{"EvaluatorItemWithoutConsumer", true, EEvaluator::Selects, false, 0, false,
                   false, 0, nullptr},
        SRouteCase{"EvaluatorItemFails", true, EEvaluator::Selects, true, 31, false, false, 31,
                   "Scan/EvaluatorOutputHandler.cpp"},
        SRouteCase{"EvaluatorItemRejectedNeverReachesFailingConsumer", true, EEvaluator::Rejects,
                   true, 31, false, false, 0, nullptr},
        SRouteCase{"EvaluatorDeletedSelected", true, EEvaluator::Selects, true, 0, true, true, 0,
                   nullptr},
        SRouteCase{"EvaluatorDeletedRejected", true, EEvaluator::Rejects, true, 0, true, false,
                   0, nullptr},
        SRouteCase{"EvaluatorDeletedWithoutEvaluatorPassesNothing", true, EEvaluator::None, true,
                   0, true, false, 0, nullptr},
        SRouteCase{"EvaluatorDeletedFailsAsItIs", true, EEvaluator::Selects, true, 31, true,
                   false, 31, nullptr}),
    [](const auto& info) { return std::string(info.param.name); });

// ---------------------------------------------------------------------------------------------
// The directory-change collector.

// Exposes the ancestor consumer, which only an owner sets.
class CDirChangeWithAncestor : public CDirChangeCollectItemConsumer {
 public:
  using CDirChangeCollectItemConsumer::CDirChangeCollectItemConsumer;
  void SetAncestorConsumer(CItemConsumerPtr pConsumer) {
    m_pAncestorConsumer = std::move(pConsumer);
  }
};

struct SDirChangeCase {
  const char* name;
  bool itemSelected;
  bool backupSelected;
  uint32_t collectFails;
  uint32_t dirChangeFails;
  bool withAncestor;
  uint32_t ancestorFails;
  // expectations
  bool toCollect;
  bool toAncestor;
  bool toDirChange;
  bool markedSelected;  // flag bit and "SELECTED_FOR_BACKUP"
  uint32_t expectCode;
};

void PrintTo(const SDirChangeCase& c, std::ostream* out) { *out << c.name; }

class DirChangeCollect : public ::testing::TestWithParam<SDirChangeCase>, public OutputFixture {};

uint64_t Samples(EScanPerfCounterType type) {
  return CScanPerformanceCounter::GetCounter(type).GetSamples();
}

TEST_P(DirChangeCollect, RoutesSelectedItemsToTheirConsumers) {
  const SDirChangeCase& c = GetParam();
  auto itemEvaluator = std::make_shared<CFixedEvaluator>(c.itemSelected);
  auto backupEvaluator = std::make_shared<CFixedEvaluator>(c.backupSelected);
  auto dirChange = std::make_shared<CRecordingConsumer>(c.dirChangeFails);
  auto collect = std::make_shared<CRecordingConsumer>(c.collectFails);
  auto ancestor = std::make_shared<CRecordingConsumer>(c.ancestorFails);
  CDirChangeWithAncestor consumer(9, itemEvaluator, dirChange, backupEvaluator, collect);
  if (c.withAncestor) consumer.SetAncestorConsumer(ancestor);

  const uint64_t evaluated = Samples(EScanPerfCounterType::TIME_ITEMEVALUATOR_ISSELECTED);
  const uint64_t collected = Samples(EScanPerfCounterType::TIME_ADD_TO_COLLECT);
  const uint64_t ancestors = Samples(EScanPerfCounterType::TIME_ANCESTOR_PROCESSING);
  const uint64_t dirChanged = Samples(EScanPerfCounterType::TIME_ADD_TO_DIRCHANGE);

  CItemPtr item = MakeItem("a/b.txt");
  CQiError error = consumer.Process(item);
  if (c.expectCode == 0) {
    EXPECT_TRUE(error.IsSuccess()) << error.AsString();
  } else {
    ASSERT_TRUE(error.IsWin32(c.expectCode)) << error.AsString();
    ASSERT_EQ(2u, error.GetFrames().size());
    EXPECT_TRUE(EndsWith(error.GetFrames().back().file, "Scan/DirChangeCollectItemConsumer.cpp"));
  }

  EXPECT_EQ(c.toCollect, collect->m_vItems.size() == 1);
  EXPECT_EQ(c.toAncestor, ancestor->m_vItems.size() == 1);
  EXPECT_EQ(c.toDirChange, dirChange->m_vItems.size() == 1);
  EXPECT_EQ(c.markedSelected, item->isSelected());
  bool selectedForBackup = false;
  CQiError read = item->GetItemBag()->Read("SELECTED_FOR_BACKUP", selectedForBackup);
  if (c.backupSelected && c.itemSelected) {
    // The mark is written before the collect consumer is asked, so it stays on a failure.
    EXPECT_TRUE(read.IsSuccess());
    EXPECT_TRUE(selectedForBackup);
  } else {
    EXPECT_TRUE(read.IsWin32(1168)) << "an item not selected for backup carries no mark";
  }
  // The backup evaluator is asked only for items the item evaluator selected.
  EXPECT_EQ(c.itemSelected ? 1 : 0, backupEvaluator->m_iCalls);

  // Each step that ran was timed once on its counter.
  const bool backedUp = c.itemSelected && c.backupSelected;
  EXPECT_EQ(evaluated + 1, Samples(EScanPerfCounterType::TIME_ITEMEVALUATOR_ISSELECTED));
  EXPECT_EQ(collected + (backedUp ? 1 : 0), Samples(EScanPerfCounterType::TIME_ADD_TO_COLLECT));
  EXPECT_EQ(ancestors + (backedUp && c.collectFails == 0 && c.withAncestor ? 1 : 0),
            Samples(EScanPerfCounterType::TIME_ANCESTOR_PROCESSING));
  const bool reachedDirChangeStep = c.itemSelected && !(backedUp && c.collectFails != 0);
  EXPECT_EQ(dirChanged + (reachedDirChangeStep ? 1 : 0),
            Samples(EScanPerfCounterType::TIME_ADD_TO_DIRCHANGE));
}

INSTANTIATE_TEST_SUITE_P(
    Cases, DirChangeCollect,
    ::testing::Values(
        SDirChangeCase{"NotSelected", false, true, 0, 0, true, 0, false, false, false, false, 0},
        SDirChangeCase{"SelectedAndBackedUp", true, true, 0, 0, false, 0, true, false, true, true,
                       0},
        SDirChangeCase{"SelectedNotForBackupReachesOnlyDirChange", true, false, 0, 0, true, 0,
                       false, false, true, false, 0},
        SDirChangeCase{"CollectFailureStopsBeforeDirChange", true, true, 112, 0, true, 0, false,
                       false, false, false, 112},
        SDirChangeCase{"DirChangeFailureIsReturned", true, false, 0, 21, false, 0, false, false,
                       false, false, 21},
        SDirChangeCase{"DirChangeFailureAfterCollect", true, true, 0, 21, false, 0, true, false,
                       false, true, 21},
        SDirChangeCase{"AncestorGetsBackedUpItems", true, true, 0, 0, true, 0, true, true, true,
                       true, 0},
        SDirChangeCase{"AncestorFailureIsIgnored", true, true, 0, 0, true, 87, true, false, true,
                       true, 0},
        SDirChangeCase{"AncestorSkippedWhenNotBackedUp", true, false, 0, 0, true, 0, false, false,
                       true, false, 0}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
