// The failed-files scanner on real temporary trees: the lines of "failures.zrf" it takes, the
// handler it asks for each content path, and the failures that stop its run.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "Platform/FXErrorUtil.h"
#include "Platform/FXPath.h"
#include "Scan/FailedFilesScanner.h"
#include "Scan/FindFirstItem.h"
#include "Scan/OutputHandler.h"
#include "Support/TempTree.h"

namespace {

using Paths = std::vector<std::string>;

// Keeps the items it is given; refuses them with a set code when asked to.
class CRecordingHandler : public COutputHandler {
 public:
  explicit CRecordingHandler(uint32_t failCode = 0) : m_uFailCode(failCode) {}
  CQiError OnItem(CItemPtr pItem) override {
    if (m_uFailCode != 0) return QI_ERROR_WIN32(m_uFailCode, "handler refused");
    m_vItems.push_back(pItem);
    return CQiError();
  }
  Paths Sources() const {
    Paths paths;
    for (const CItemPtr& item : m_vItems) paths.push_back(item->GetSourceFullyQualifiedItemName());
    return paths;
  }
  std::vector<CItemPtr> m_vItems;
  uint32_t m_uFailCode;
};

// Names the content root that holds a path and that root's handler.
class CRootsCallback : public CFailedFilesScannerCallback {
 public:
  CQiError GetOutputHandler(const std::string& strFailedPath, std::string& strContentPath,
                            COutputHandlerPtr& pHandler) override {
    m_vAsked.push_back(strFailedPath);
    if (m_uFailCode != 0) return QI_ERROR_WIN32(m_uFailCode, "no handler for you");
    strContentPath.clear();
    pHandler.reset();
    for (const auto& [strRoot, pRootHandler] : m_vRoots) {
      if (FXPath::IsDescendantOf(strFailedPath, strRoot, true)) {
        strContentPath = strRoot;
        pHandler = pRootHandler;
        break;
      }
    }
    return CQiError();
  }
  std::vector<std::pair<std::string, COutputHandlerPtr>> m_vRoots;
  Paths m_vAsked;
  uint32_t m_uFailCode = 0;
};

class FailedFilesScannerFixture : public ::testing::Test {
 protected:
  void WriteList(const std::string& content) { m_tree.MakeFile("job/failures.zrf", content); }
  CQiError Run() { return CFailedFilesScanner(12, m_pCallback, m_tree.MakeDir("job")).Run(); }

  CTempTree m_tree;
  std::shared_ptr<CRootsCallback> m_pCallback = std::make_shared<CRootsCallback>();
};

// Each path that can be read goes to the handler of its content; the handler is asked for again
// only when a path lies outside the content asked for last (a content without a handler is
// remembered too). Lines that cannot name a file are skipped like vanished paths.
TEST_F(FailedFilesScannerFixture, RescansReadablePathsThroughTheirContentsHandler) {
  const std::string a = m_tree.MakeDir("A"), b = m_tree.MakeDir("B"), skipped = m_tree.MakeDir("S");
  const std::string f1 = m_tree.MakeFile("A/f1", "one"), f2 = m_tree.MakeFile("A/sub/f2", "two!");
  const std::string sub = m_tree.Path("A/sub"), f3 = m_tree.MakeFile("B/f3", ""), f4 = m_tree.MakeFile("A/f 4", "four");
  const std::string s1 = m_tree.MakeFile("S/1"), outside = m_tree.MakeFile("outside");
  auto handlerA = std::make_shared<CRecordingHandler>(), handlerB = std::make_shared<CRecordingHandler>();
  m_pCallback->m_vRoots = {{a, handlerA}, {b, handlerB}, {skipped, nullptr}};
  WriteList("\n" + f1 + "\r\n" +              // carriage return
            "   \t\r\n" +                     // blank
            f2 + "  \t\n" +                   // trailing blanks and tab
            m_tree.Path("A/gone") + "\n" +    // vanished since the failure
            a + std::string("/x\0y\n", 5) +   // a NUL byte
            a + "/" + std::string(5000, 'n') + "\n" +  // too long
            "\n\n" + sub + "\n" +             // a folder
            a + "\n" +                        // the content path itself
            f3 + "\n" +                       // another content path: asks again
            s1 + "\n" + m_tree.MakeFile("S/2") + "\n" +  // a content without handler: asks once
            outside + "\n" +                  // under no content: asks
            f4 + "\r");                       // back under A: asks again; no final line feed

  CQiError error = Run();
  ASSERT_TRUE(error.IsSuccess()) << error.AsString();

  EXPECT_EQ(m_pCallback->m_vAsked, (Paths{f1, f3, s1, outside, f4}));
  EXPECT_EQ(handlerA->Sources(), (Paths{f1, f2, sub, a, f4}));
  EXPECT_EQ(handlerB->Sources(), Paths{f3});
  // Items are real find-first items sharing the run's one bag.
  ASSERT_EQ(handlerA->m_vItems.size(), 5u);
  EXPECT_EQ(std::to_string(handlerA->m_vItems[0]->GetFileSize()) + std::to_string(handlerA->m_vItems[1]->GetFileSize()), "34");
  EXPECT_TRUE(handlerA->m_vItems[2]->IsFolder());
  EXPECT_NE(std::dynamic_pointer_cast<CFindFirstItem>(handlerA->m_vItems[0]), nullptr);
  EXPECT_TRUE(handlerA->m_vItems[0]->GetWorkUnitBag());
  EXPECT_EQ(handlerA->m_vItems[0]->GetWorkUnitBag(), handlerB->m_vItems[0]->GetWorkUnitBag());
  EXPECT_EQ(handlerA->m_vItems[0]->GetWorkUnitBag(), handlerA->m_vItems[4]->GetWorkUnitBag());
}

// Nothing to re-scan: no list, a list that cannot be opened (a dangling link), a list of blank
// lines, a folder that does not exist.
class FailedFilesNothingToDo : public FailedFilesScannerFixture, public ::testing::WithParamInterface<int> {};

TEST_P(FailedFilesNothingToDo, IsNotAnError) {
  if (GetParam() == 1) m_tree.MakeSymlink("job/failures.zrf", "/nowhere/list");
  if (GetParam() == 2) WriteList("\n \r\n\t\n");
  const std::string strFolder = GetParam() == 3 ? m_tree.Path("nowhere") : m_tree.MakeDir("job");
  CFailedFilesScanner scanner(1, m_pCallback, strFolder);
  EXPECT_FALSE(scanner.IsAborted());  // stopped from outside only
  EXPECT_TRUE(scanner.Run().IsSuccess());
  EXPECT_TRUE(m_pCallback->m_vAsked.empty());
}

INSTANTIATE_TEST_SUITE_P(Lists, FailedFilesNothingToDo, ::testing::Values(0, 1, 2, 3));

// A callback that names no handler and a handler that refuses an item stop the run at once.
struct SStopCase {
  const char* szName;
  uint32_t uCallbackFails, uHandlerFails;
  bool bBaseHandler;
  const char* szLastFrame;  // "%F" is the first path
};

class FailedFilesStops : public FailedFilesScannerFixture, public ::testing::WithParamInterface<SStopCase> {};

TEST_P(FailedFilesStops, TheRun) {
  const SStopCase& c = GetParam();
  const std::string root = m_tree.MakeDir("A"), f1 = m_tree.MakeFile("A/f1");
  WriteList(f1 + "\n" + m_tree.MakeFile("A/f2") + "\n");
  m_pCallback->m_uFailCode = c.uCallbackFails;
  m_pCallback->m_vRoots = {{root, c.bBaseHandler ? std::make_shared<COutputHandler>()
                                                 : std::make_shared<CRecordingHandler>(c.uHandlerFails)}};
  CQiError error = Run();
  EXPECT_TRUE(error.IsWin32(c.uCallbackFails + c.uHandlerFails + (c.bBaseHandler ? 50 : 0))) << error.AsString();
  std::string strFrame = c.szLastFrame;
  if (const size_t pos = strFrame.find("%F"); pos != std::string::npos) strFrame.replace(pos, 2, f1);
  EXPECT_EQ(error.GetFrames().back().text, strFrame);
  EXPECT_EQ(m_pCallback->m_vAsked, Paths{f1});
}

INSTANTIATE_TEST_SUITE_P(
    Failures, FailedFilesStops,
    ::testing::Values(SStopCase{"CallbackFails", 1168, 0, false, "failed get output handler"},
                      SStopCase{"HandlerRefuses", 0, 50, false, "failed process item [%F] by failed output handler"},
                      SStopCase{"BaseHandlerRefuses", 0, 0, true, "failed process item [%F] by failed output handler"}),
    [](const auto& info) { return std::string(info.param.szName); });

}  // namespace
