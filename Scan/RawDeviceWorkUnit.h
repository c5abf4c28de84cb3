// CRawDeviceWorkUnit: the work unit of a raw device (a block or character device node given as
// content, or a symbolic link to one), which the raw-device engine reports as one item per
// device instead of traversing it.
//
// Besides what every work unit holds it keeps a surface map: the device paths of its content
// (the keys, as given) and, for each, the device node it resolves to (the value; several
// resolved paths are joined with a line feed, which device names never hold). The work unit
// manager fills the map; the raw-device engine reads each key's file data.
//
// Threads and ownership: as CWorkUnit.
#pragma once

#include <map>
#include <memory>
#include <string>

#include "Scan/WorkUnit.h"

class CRawDeviceWorkUnit : public CWorkUnit {
 public:
  using SurfaceMap = std::map<std::string, std::string>;

  CRawDeviceWorkUnit();
  ~CRawDeviceWorkUnit() override;

  void AddScanPath(const CScanPathPtr& pScanPath) override;

  // Sets the entry of the key, replacing an earlier value; always succeeds.
  CQiError AddSurface(const std::string& strKey, const std::string& strValue);
  // Copies the map out; always succeeds.
  CQiError GetSurfaceMap(SurfaceMap& mapSurfaces) const;

 private:
  std::unique_ptr<ZRDebugFunction> m_pObjectTrace;
  SurfaceMap m_mapSurfaces;
};

using CRawDeviceWorkUnitPtr = std::shared_ptr<CRawDeviceWorkUnit>;
