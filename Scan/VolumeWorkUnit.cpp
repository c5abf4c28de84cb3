#include "Scan/VolumeWorkUnit.h"

#include "Platform/FXString.h"

void CVolumeWorkUnit::AddWorkUnit(const CWorkUnitPtr& pWorkUnit) {
  if (pWorkUnit) m_lstWorkUnits.push_back(pWorkUnit);
}

void CVolumeWorkUnit::RemoveWorkUnit(const CWorkUnitPtr& pWorkUnit) {
  std::erase(m_lstWorkUnits, pWorkUnit);
}

std::string CVolumeWorkUnit::AsString() const {
  return FXString::Format(
      "VolumeWorkUnit=0x%p, LocalVolumeUniqueId=%s, LocalVolumeName=%s, SourceVolumeName=%s, WorkUnits=%llu",
      static_cast<const void*>(this), m_strLocalVolumeUniqueId.c_str(), m_strLocalVolumeName.c_str(),
      m_strSourceVolumeName.c_str(), static_cast<unsigned long long>(m_lstWorkUnits.size()));
}

CQiError CVolumeWorkUnit::DumpDiagnosticData(const CLineWriterPtr& pWriter, const std::string& strPrefix) const {
  if (!pWriter) return CQiError();
  QI_RETURN_IF_ERROR(pWriter->WriteLine(strPrefix + AsString()));
  for (const CWorkUnitPtr& pWorkUnit : m_lstWorkUnits)
    QI_RETURN_IF_ERROR(pWorkUnit->DumpDiagnosticData(pWriter, strPrefix + "  "));
  return CQiError();
}
