#include "Scan/ContentContext.h"

CContentContext::CContentContext() : m_pBag(std::make_shared<CBag>()) {}

CContentContext::CContentContext(CBagPtr pBag) : m_pBag(pBag ? std::move(pBag) : std::make_shared<CBag>()) {}

CContentContext::~CContentContext() = default;
