// CHadoopItem: one object of a Hadoop file system, found by the Hadoop path enumerator. A
// CFindFirstItem whose status (struct stat) comes from the Hadoop file information (see
// CHadoopFS::ConvertToStatStructure), not from the local file system; everything else is the
// CFindFirstItem's.
//
// Ownership and threads: as CFindFirstItem.
#pragma once

#include <sys/stat.h>

#include <memory>
#include <string>

#include "Scan/FindFirstItem.h"

class CHadoopItem : public CFindFirstItem {
 public:
  CHadoopItem(CBagPtr pWorkUnitBag, const std::string& strLocalPath, const std::string& strSourcePath,
              const struct stat& st);
  ~CHadoopItem() override;
};

using CHadoopItemPtr = std::shared_ptr<CHadoopItem>;
