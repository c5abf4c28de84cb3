// The smallest program built against the installed scan library: scans one folder, leaves out
// what matches one exclude pattern, and prints the source path of every item found, one a line.
//   embed FOLDER PATTERN
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>

#include "Scan/BasicScanner.h"
#include "Scan/OutputHandler.h"
#include "Scan/ScannerCallback.h"

namespace {

// Items may come from several threads: one lock around the printing.
class CPrintingOutputHandler : public COutputHandler {
 public:
  CQiError OnItem(CItemPtr pItem) override {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::printf("%s\n", pItem->GetSourceFullyQualifiedItemName().c_str());
    return CQiError();
  }
  CQiError OnDeletedItem(CItemPtr) override { return CQiError(); }

 private:
  std::mutex m_mutex;
};

class CEmbedCallback : public CScannerCallback {
 public:
  CQiError GetOutputHandler(const std::string&, COutputHandlerPtr& pHandler) override {
    pHandler = m_pHandler;
    return CQiError();
  }

 private:
  COutputHandlerPtr m_pHandler = std::make_shared<CPrintingOutputHandler>();
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: %s FOLDER EXCLUDE-PATTERN\n", argv[0]);
    return 2;
  }
  CBasicScanner scanner(1, "embed", std::make_shared<CEmbedCallback>());
  CQiError error = scanner.AddLocalContentItem(argv[1]);
  if (error.IsSuccess()) error = scanner.AddFilterItem(argv[2]);
  if (error.IsSuccess()) error = scanner.Start();
  if (error.IsSuccess()) error = scanner.WaitForScanToComplete();
  if (error.IsError()) {
    std::fprintf(stderr, "embed: %s\n", error.GetMessage().c_str());
    return 1;
  }
  return 0;
}
