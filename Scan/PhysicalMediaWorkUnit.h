// CPhysicalMediaWorkUnit: the volumes of one physical medium.
//
// The facade runs one worker thread per physical medium, and the arbiter lets one scanner at a
// time hold a medium, so that the volumes of one disk are read one after another and different
// disks in parallel. The id is chosen by the work unit manager (Scan/Unix/WorkUnitManager.h):
// the whole disk that backs the volume ("/dev/sda"), "UNC" for network file systems (work
// threads test for it), or the volume's own device number when no disk backs it.
//
// Filled by the work unit manager on the caller's thread before the scan starts; afterwards
// only read. It shares its volume work units with nothing else.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "Platform/LineWriter.h"
#include "Platform/QiError.h"
#include "Scan/VolumeWorkUnit.h"

class CPhysicalMediaWorkUnit {
 public:
  // The id of network content.
  static constexpr const char* kNetworkMediaId = "UNC";

  CPhysicalMediaWorkUnit() = default;
  CPhysicalMediaWorkUnit(const CPhysicalMediaWorkUnit&) = delete;
  CPhysicalMediaWorkUnit& operator=(const CPhysicalMediaWorkUnit&) = delete;

  void SetPhysicalMediaId(const std::string& strId) { m_strPhysicalMediaId = strId; }
  const std::string& GetPhysicalMediaId() const { return m_strPhysicalMediaId; }

  // Appends a volume work unit (an empty pointer is ignored).
  void AddVolumeWorkUnit(const CVolumeWorkUnitPtr& pVolumeWorkUnit);
  const std::vector<CVolumeWorkUnitPtr>& GetVolumeWorkUnits() const { return m_lstVolumeWorkUnits; }
  // Takes a volume work unit out again.
  void RemoveVolumeWorkUnit(const CVolumeWorkUnitPtr& pVolumeWorkUnit);

  // "PhysicalMediaWorkUnit=0x%p, PhysicalMediaId=%s, VolumeWorkUnits=%llu".
  std::string AsString() const;
  // Writes itself, then each volume work unit (which writes its work units), every line
  // starting with the prefix.
  CQiError DumpDiagnosticData(const CLineWriterPtr& pWriter, const std::string& strPrefix) const;

 private:
  std::string m_strPhysicalMediaId;
  std::vector<CVolumeWorkUnitPtr> m_lstVolumeWorkUnits;
};

using CPhysicalMediaWorkUnitPtr = std::shared_ptr<CPhysicalMediaWorkUnit>;
