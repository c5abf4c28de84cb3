// The path cache with string values, as the enumerators and engines use it: compiled once here.
#include "Scan/PathCacheUnorderedT.h"

template class CPathCacheUnorderedTNode<std::string>;
template class CPathCacheUnorderedT<std::string>;
template CQiError CPathCacheUnorderedT<std::string>::InsertOrUpdate<LeaveDataAlone>(
    std::string_view, const std::string&);
template CQiError CPathCacheUnorderedT<std::string>::InsertOrUpdate<ReplaceData>(
    std::string_view, const std::string&);
