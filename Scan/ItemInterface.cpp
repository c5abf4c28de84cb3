#include "Scan/ItemInterface.h"

CItemInterface::CItemInterface(CItem* pItem) : m_pItem(pItem) {}

CItemInterface::~CItemInterface() = default;

std::string CItemInterface::AsString() const { return std::string(); }
