#include "Scan/Unix/LustreScanDBEnumerateFiles.h"

#include "Scan/Unix/LustreScanDBPathEnumerator.h"

CQiError CLustreScanDBEnumerateFiles::OnFolder(const std::string& strInput, const std::string& strOutput,
                                               CItemPtr& pItem) {
  bool bUnchanged = false;
  if (pItem) (void)pItem->GetItemBag()->Read(CLustreScanDBPathEnumerator::kUnchangedKey, bUnchanged);
  if (!bUnchanged) return CEnumerateFiles::OnFolder(strInput, strOutput, pItem);
  QI_RETURN_IF_ERROR(CScanTraverseFolder::OnFolder(strInput, strOutput, pItem));
  return CQiError();
}
