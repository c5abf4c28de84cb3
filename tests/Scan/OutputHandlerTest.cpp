// The output handlers that route items to consumers (by consumer alone, or by an evaluator and
// consumer pair), and the directory-change collector that splits selected items between the
// backup collect, the ancestors and the directory-change consumers.
#include <gtest/gtest.h>

#include "Platform/FXErrorUtil.h"
#include "Platform/FXFile.h"
#include "Platform/FXString.h"
#include "Scan/ConsumerOutputHandler.h"
#include "Scan/DirChangeCollectItemConsumer.h"
#include "Scan/EvaluatorOutputHandler.h"
#include "Scan/FindFirstItem.h"
#include "Support/TempTree.h"

namespace {

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

// An item for a real file of a temporary tree.
CItemPtr MakeItem(CTempTree& tree, const std::string& relative) {
  const std::string path = tree.MakeFile(relative, "content");
  FXFile::CFileData data(path, FXFile::CFileData::kModeFullPath);
  EXPECT_TRUE(data.good());
  return std::make_shared<CFindFirstItem>(std::make_shared<CBag>(), path, data);
}

// Success for code 0; else the consumer's error, with one frame pushed in the file (null: passed
// up as it is).
void ExpectOutcome(const CQiError& error, uint32_t code, const char* pushedIn) {
  ASSERT_TRUE(code == 0 ? error.IsSuccess() : error.IsWin32(code)) << error.AsString();
  if (code == 0) return;
  EXPECT_EQ("consumer refused", error.GetMessage());
  ASSERT_EQ(pushedIn ? 2u : 1u, error.GetFrames().size());
  EXPECT_TRUE(!pushedIn || FXString::EndsWith(error.GetFrames().back().file, pushedIn)) << error.AsString();
}

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

class RoutingHandler : public ::testing::TestWithParam<SRouteCase> {};

TEST_P(RoutingHandler, RoutesAsConfigured) {
  const SRouteCase& c = GetParam();
  auto consumer = std::make_shared<CRecordingConsumer>(c.consumerFails);
  auto other = std::make_shared<CRecordingConsumer>();
  auto evaluator = std::make_shared<CFixedEvaluator>(c.evaluator == EEvaluator::Selects);
  const CItemConsumerPtr routed = c.withConsumer ? consumer : nullptr, untouched = other;
  const CItemEvaluatorPtr routedEvaluator = c.evaluator == EEvaluator::None ? nullptr : evaluator;
  const CItemEvaluatorPtr otherEvaluator = std::make_shared<CFixedEvaluator>(true);
  // The route under test, and a selecting route on the other side that must stay untouched.
  COutputHandlerPtr handler;
  if (c.evaluatorHandler) {
    auto evaluating = std::make_shared<CEvaluatorOutputHandler>();
    evaluating->SetItemConsumer(c.deleted ? untouched : routed);
    evaluating->SetItemEvaluator(c.deleted ? otherEvaluator : routedEvaluator);
    evaluating->SetDeletedItemConsumer(c.deleted ? routed : untouched);
    evaluating->SetDeletedItemEvaluator(c.deleted ? routedEvaluator : otherEvaluator);
    handler = evaluating;
  } else {
    auto consuming = std::make_shared<CConsumerOutputHandler>();
    consuming->SetItemConsumer(c.deleted ? untouched : routed);
    consuming->SetDeletedItemConsumer(c.deleted ? routed : untouched);
    handler = consuming;
  }

  CTempTree tree;
  CItemPtr item = MakeItem(tree, "dir/file.txt");
  CQiError error = c.deleted ? handler->OnDeletedItem(item) : handler->OnItem(item);
  ExpectOutcome(error, c.expectCode, c.expectPushedIn);
  EXPECT_EQ(c.expectDelivered ? std::vector<CItemPtr>{item} : std::vector<CItemPtr>{}, consumer->m_vItems);
  EXPECT_TRUE(other->m_vItems.empty());
  EXPECT_EQ(c.withConsumer ? evaluator->m_iCalls : 0, evaluator->m_iCalls);
  // The handler reports its item consumer's count.
  EXPECT_EQ(c.deleted || !c.withConsumer ? 0u : consumer->m_vItems.size(), handler->getProcessedItemsCount());
}

constexpr EEvaluator N = EEvaluator::None, S = EEvaluator::Selects, R = EEvaluator::Rejects;
const char* const kConsumerCpp = "Scan/ConsumerOutputHandler.cpp";
const char* const kEvaluatorCpp = "Scan/EvaluatorOutputHandler.cpp";
INSTANTIATE_TEST_SUITE_P(
    Cases, RoutingHandler,
    ::testing::Values(
        // CConsumerOutputHandler: the consumer alone decides.
        SRouteCase{"ConsumerItem", false, N, true, 0, false, true, 0, nullptr},
        SRouteCase{"ConsumerItemFails", false, N, true, 5, false, false, 5, kConsumerCpp},
        SRouteCase{"ConsumerDeleted", false, N, true, 0, true, true, 0, nullptr},
        SRouteCase{"ConsumerDeletedFailsAsItIs", false, N, true, 5, true, false, 5, nullptr},
        // CEvaluatorOutputHandler: the pair is required.
        SRouteCase{"EvaluatorItemSelected", true, S, true, 0, false, true, 0, nullptr},
        SRouteCase{"EvaluatorItemRejected", true, R, true, 0, false, false, 0, nullptr},
        SRouteCase{"EvaluatorItemWithoutEvaluatorPassesNothing", true, N, true, 0, false, false, 0, nullptr},
        SRouteCase{"EvaluatorItemFails", true, S, true, 31, false, false, 31, kEvaluatorCpp},
        SRouteCase{"EvaluatorDeletedSelected", true, S, true, 0, true, true, 0, nullptr},
        SRouteCase{"EvaluatorDeletedFailsAsItIs", true, S, true, 31, true, false, 31, nullptr}),
    [](const auto& info) { return std::string(info.param.name); });

// ---------------------------------------------------------------------------------------------
// The directory-change collector.

// Exposes the ancestor consumer, which only an owner sets.
class CDirChangeWithAncestor : public CDirChangeCollectItemConsumer {
 public:
  using CDirChangeCollectItemConsumer::CDirChangeCollectItemConsumer;
  void SetAncestorConsumer(CItemConsumerPtr pConsumer) { m_pAncestorConsumer = std::move(pConsumer); }
};

struct SDirChangeCase {
  const char* name;
  bool itemSelected, backupSelected;
  uint32_t collectFails, dirChangeFails;
  bool withAncestor;
  uint32_t ancestorFails;
  const char* reached;  // the consumers that got the item: 'c' collect, 'a' ancestor, 'd' dir-change
  uint32_t expectCode;
};

class DirChangeCollect : public ::testing::TestWithParam<SDirChangeCase> {};

TEST_P(DirChangeCollect, RoutesSelectedItemsToTheirConsumers) {
  const SDirChangeCase& c = GetParam();
  auto itemEvaluator = std::make_shared<CFixedEvaluator>(c.itemSelected);
  auto backupEvaluator = std::make_shared<CFixedEvaluator>(c.backupSelected);
  auto dirChange = std::make_shared<CRecordingConsumer>(c.dirChangeFails);
  auto collect = std::make_shared<CRecordingConsumer>(c.collectFails);
  auto ancestor = std::make_shared<CRecordingConsumer>(c.ancestorFails);
  CDirChangeWithAncestor consumer(9, itemEvaluator, dirChange, backupEvaluator, collect);
  if (c.withAncestor) consumer.SetAncestorConsumer(ancestor);
  CTempTree tree;
  CItemPtr item = MakeItem(tree, "a/b.txt");
  CQiError error = consumer.Process(item);
  ExpectOutcome(error, c.expectCode, "Scan/DirChangeCollectItemConsumer.cpp");
  std::string reached;
  for (const auto& [cName, pConsumer] : {std::pair{'c', collect}, {'a', ancestor}, {'d', dirChange}})
    if (!pConsumer->m_vItems.empty()) reached += cName;
  EXPECT_EQ(c.reached, reached);
  // Selected for backup: the flag and the bag's mark, written before the collect consumer is
  // asked, so they stay on its failure.
  const bool backedUp = c.itemSelected && c.backupSelected;
  EXPECT_EQ(backedUp && c.collectFails == 0, item->isSelected());
  bool selectedForBackup = false;
  CQiError read = item->GetItemBag()->Read("SELECTED_FOR_BACKUP", selectedForBackup);
  EXPECT_TRUE(backedUp ? read.IsSuccess() && selectedForBackup : read.IsWin32(1168)) << read.AsString();
  // The backup evaluator is asked only for items the item evaluator selected.
  EXPECT_EQ(c.itemSelected ? 1 : 0, backupEvaluator->m_iCalls);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, DirChangeCollect,
    ::testing::Values(SDirChangeCase{"NotSelected", false, true, 0, 0, true, 0, "", 0},
                      SDirChangeCase{"SelectedAndBackedUp", true, true, 0, 0, false, 0, "cd", 0},
                      SDirChangeCase{"CollectFailureStopsBeforeDirChange", true, true, 112, 0, true, 0, "", 112},
                      SDirChangeCase{"DirChangeFailureAfterCollect", true, true, 0, 21, false, 0, "c", 21},
                      SDirChangeCase{"AncestorGetsBackedUpItems", true, true, 0, 0, true, 0, "cad", 0},
                      SDirChangeCase{"AncestorFailureIsIgnored", true, true, 0, 0, true, 87, "cd", 0},
                      SDirChangeCase{"AncestorSkippedWhenNotBackedUp", true, false, 0, 0, true, 0, "d", 0}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
