#include "Scan/Unix/HadoopItem.h"

CHadoopItem::CHadoopItem(CBagPtr pWorkUnitBag, const std::string& strLocalPath, const std::string& strSourcePath,
                         const struct stat& st)
    : CFindFirstItem(std::move(pWorkUnitBag), strLocalPath, strSourcePath,
                     FXFile::CFileData(strLocalPath, FXFile::CFileData::kModeFullPath, &st)) {}

CHadoopItem::~CHadoopItem() = default;
