#include "Scan/OutputHandler.h"

#include "Platform/FXErrorUtil.h"

COutputHandler::~COutputHandler() = default;

CQiError COutputHandler::Initialize() { return CQiError(); }

CQiError COutputHandler::Complete() { return CQiError(); }

CQiError COutputHandler::OnDeletedItem(CItemPtr /*pItem*/) {
  return QI_ERROR_WIN32(QiErrorCode::NotSupported, "Output handler takes no deleted items");
}

CQiError COutputHandler::OnItem(CItemPtr /*pItem*/) {
  return QI_ERROR_WIN32(QiErrorCode::NotSupported, "Output handler takes no items");
}

uint64_t COutputHandler::getProcessedItemsCount() { return 0; }

CQiError COutputHandler::OnItemFiltered(CItemPtr /*pItem*/) { return CQiError(); }
