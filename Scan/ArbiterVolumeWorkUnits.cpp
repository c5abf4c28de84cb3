#include "Scan/ArbiterVolumeWorkUnits.h"

#include <utility>

CArbiterVolumeWorkUnits::CArbiterVolumeWorkUnits(
    std::string strPhysicalMediaId, const std::vector<CVolumeWorkUnitPtr>& lstVolumeWorkUnits)
    : m_strPhysicalMediaId(std::move(strPhysicalMediaId)),
      m_lstVolumeWorkUnits(lstVolumeWorkUnits.begin(), lstVolumeWorkUnits.end()) {}

bool CArbiterVolumeWorkUnits::TryTake() {
  std::lock_guard<std::mutex> lock(m_mutex);
  if (m_bBusy || m_lstVolumeWorkUnits.empty()) return false;
  m_bBusy = true;
  return true;
}

CVolumeWorkUnitPtr CArbiterVolumeWorkUnits::TakeFirstVolume(const void* pOwner) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_pOwner = pOwner;
  if (m_lstVolumeWorkUnits.empty()) return CVolumeWorkUnitPtr();
  CVolumeWorkUnitPtr pVolume = std::move(m_lstVolumeWorkUnits.front());
  m_lstVolumeWorkUnits.pop_front();
  return pVolume;
}

void CArbiterVolumeWorkUnits::Release() {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_pOwner = nullptr;
  m_bBusy = false;
}

bool CArbiterVolumeWorkUnits::IsBusy() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_bBusy;
}

const void* CArbiterVolumeWorkUnits::GetOwner() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_pOwner;
}

size_t CArbiterVolumeWorkUnits::GetRemainingVolumes() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_lstVolumeWorkUnits.size();
}
