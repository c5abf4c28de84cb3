#include "Scan/AbortOperationCheck.h"

CAbortOperationCheck::~CAbortOperationCheck() = default;

bool CAbortOperationCheck::IsAborted() const { return false; }
