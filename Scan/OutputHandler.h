// COutputHandler: where an engine sends what it finds on a volume. Every selected item goes to
// OnItem, every item that vanished since the previous scan to OnDeletedItem. The caller's scanner
// callback hands handlers out (CScannerCallback::GetOutputHandler); an engine calls Initialize
// before the first item and Complete after the last.
//
// The base refuses items: OnItem and OnDeletedItem fail with Win32 50 (not supported), which an
// engine treats as "skip this item". A handler that is to receive items overrides both; the
// routing handlers CConsumerOutputHandler and CEvaluatorOutputHandler pass them to consumers.
//
// Threads: handlers hold no lock of their own. Items may arrive from several traversal workers at
// once (the fast FindFirst engine serialises its deliveries, the others do not), so a handler shared
// by threads must guard its own state or rely on its consumers doing so.
#pragma once

#include <cstdint>
#include <memory>

#include "Platform/QiError.h"
#include "Scan/Item.h"

class COutputHandler {
 public:
  COutputHandler() = default;
  virtual ~COutputHandler();
  COutputHandler(const COutputHandler&) = delete;
  COutputHandler& operator=(const COutputHandler&) = delete;

  virtual CQiError Initialize();
  virtual CQiError Complete();
  virtual CQiError OnDeletedItem(CItemPtr pItem);
  virtual CQiError OnItem(CItemPtr pItem);
  virtual uint64_t getProcessedItemsCount();

  // Told about an item that a filter dropped; does nothing.
  CQiError OnItemFiltered(CItemPtr pItem);
};

using COutputHandlerPtr = std::shared_ptr<COutputHandler>;
