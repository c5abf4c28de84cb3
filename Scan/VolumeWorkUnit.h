// CVolumeWorkUnit: the work units of one volume.
//
// The arbiter (Scan/ScanArbiter) hands out one volume work unit at a time, so the work units of
// one volume are processed one after another by one scanner. A volume work unit lives in the
// list of its CPhysicalMediaWorkUnit.
//
// Filled by the work unit manager on the caller's thread before the scan starts; afterwards
// only read. Its work units are shared with the manager's work unit map.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "Platform/LineWriter.h"
#include "Platform/QiError.h"
#include "Scan/WorkUnit.h"

class CVolumeWorkUnit {
 public:
  CVolumeWorkUnit() = default;
  CVolumeWorkUnit(const CVolumeWorkUnit&) = delete;
  CVolumeWorkUnit& operator=(const CVolumeWorkUnit&) = delete;

  void SetLocalVolumeUniqueId(const std::string& strId) { m_strLocalVolumeUniqueId = strId; }
  void SetLocalVolumeName(const std::string& strName) { m_strLocalVolumeName = strName; }
  void SetSourceVolumeName(const std::string& strName) { m_strSourceVolumeName = strName; }
  const std::string& GetLocalVolumeUniqueId() const { return m_strLocalVolumeUniqueId; }
  const std::string& GetLocalVolumeName() const { return m_strLocalVolumeName; }
  const std::string& GetSourceVolumeName() const { return m_strSourceVolumeName; }

  // Appends a work unit (an empty pointer is ignored).
  void AddWorkUnit(const CWorkUnitPtr& pWorkUnit);
  const std::vector<CWorkUnitPtr>& GetWorkUnits() const { return m_lstWorkUnits; }
  // Takes a work unit out again (the manager drops a unit whose content could not be added).
  void RemoveWorkUnit(const CWorkUnitPtr& pWorkUnit);

  // "VolumeWorkUnit=0x%p, LocalVolumeUniqueId=%s, LocalVolumeName=%s, SourceVolumeName=%s,
  // WorkUnits=%llu".
  std::string AsString() const;
  // Writes itself, then each work unit, every line starting with the prefix.
  CQiError DumpDiagnosticData(const CLineWriterPtr& pWriter, const std::string& strPrefix) const;

 private:
  std::string m_strLocalVolumeUniqueId;
  std::string m_strLocalVolumeName;
  std::string m_strSourceVolumeName;
  std::vector<CWorkUnitPtr> m_lstWorkUnits;
};

using CVolumeWorkUnitPtr = std::shared_ptr<CVolumeWorkUnit>;
