#include "Scan/PhysicalMediaWorkUnit.h"

#include "Platform/FXString.h"

void CPhysicalMediaWorkUnit::AddVolumeWorkUnit(const CVolumeWorkUnitPtr& pVolumeWorkUnit) {
  if (pVolumeWorkUnit) m_lstVolumeWorkUnits.push_back(pVolumeWorkUnit);
}

void CPhysicalMediaWorkUnit::RemoveVolumeWorkUnit(const CVolumeWorkUnitPtr& pVolumeWorkUnit) {
  std::erase(m_lstVolumeWorkUnits, pVolumeWorkUnit);
}

std::string CPhysicalMediaWorkUnit::AsString() const {
  return FXString::Format("PhysicalMediaWorkUnit=0x%p, PhysicalMediaId=%s, VolumeWorkUnits=%llu",
                          static_cast<const void*>(this), m_strPhysicalMediaId.c_str(),
                          static_cast<unsigned long long>(m_lstVolumeWorkUnits.size()));
}

CQiError CPhysicalMediaWorkUnit::DumpDiagnosticData(const CLineWriterPtr& pWriter,
                                                    const std::string& strPrefix) const {
  if (!pWriter) return CQiError();
  QI_RETURN_IF_ERROR(pWriter->WriteLine(strPrefix + AsString()));
  for (const CVolumeWorkUnitPtr& pVolume : m_lstVolumeWorkUnits)
    QI_RETURN_IF_ERROR(pVolume->DumpDiagnosticData(pWriter, strPrefix + "  "));
  return CQiError();
}
