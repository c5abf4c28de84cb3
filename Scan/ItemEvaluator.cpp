#include "Scan/ItemEvaluator.h"

CItemEvaluator::~CItemEvaluator() = default;

bool CItemEvaluator::IsSelected(CItemPtr /*pItem*/) { return true; }
