// CRawDeviceScanEngine: the engine of raw devices ("RawDevice"). A raw-device work unit
// (CRawDeviceWorkUnit, made by the work unit manager for device content) is not traversed:
// each surface of its surface map (a device path as given, its resolved device node as value)
// whose device can be described becomes one CRawDeviceItem, sized as the device, handed to the
// unit's output handler; one that cannot is logged at level -1 and written to the callback's
// scan-failure consumer. A unit with no describable device fails with Win32 232 "No content
// available for scanning"; a unit of another kind with EINVAL "Not a RawDevice WorkUnit", so
// that a scanner offers it to its next engine. Dispositions carry the tag "RD".
//
// Items: the local path is the surface (the path the caller gave, a link to the device
// included), the source path the source form of the unit's scan path with that local path;
// the status is that of the device the path leads to (a link is followed). The device is
// never opened, except for the size query.
//
// One scanner thread drives the engine; it takes no lock.
#pragma once

#include <memory>
#include <string>

#include "Scan/ScanEngine.h"

class CRawDeviceScanEngine : public CScanEngine {
 public:
  static constexpr const char* kEngineTag = "RD";

  CRawDeviceScanEngine();
  ~CRawDeviceScanEngine() override;

  CQiError ProcessWorkUnit(CWorkUnitPtr pWorkUnit) override;
  CQiError Process() override;
  std::string getDescription() override;
  CQiError ProcessVolumeWorkUnit(CVolumeWorkUnitPtr pVolumeUnit) override;

 private:
  // Hands the items of the unit's surfaces to the open output handler; counts them.
  CQiError ReportSurfaces(const CWorkUnitPtr& pWorkUnit, size_t& nItems);
};

using CRawDeviceScanEnginePtr = std::shared_ptr<CRawDeviceScanEngine>;
