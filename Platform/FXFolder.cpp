#include "Platform/FXFolder.h"

#include <cerrno>
#include <charconv>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>

#include "Platform/FXErrorUtil.h"
#include "Platform/FXPath.h"
#include "Platform/FXString.h"
#include "Platform/LogWriterInterface.h"

namespace {
std::mutex g_mtxSource;
std::string g_strMountInfoPath = FXFolder::kDefaultMountInfoPath;

// Splits at runs of blanks; mountinfo fields never hold a raw blank (they are escaped).
std::vector<std::string_view> SplitFields(std::string_view line) {
  std::vector<std::string_view> fields;
  size_t pos = 0;
  while (pos < line.size()) {
    while (pos < line.size() && (line[pos] == ' ' || line[pos] == '\t')) ++pos;
    if (pos >= line.size()) break;
    size_t end = pos;
    while (end < line.size() && line[end] != ' ' && line[end] != '\t') ++end;
    fields.push_back(line.substr(pos, end - pos));
    pos = end;
  }
  return fields;
}

template <typename T>
bool ParseNumber(std::string_view text, T& value) {
  if (text.empty()) return false;
  auto [ptr, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  return ec == std::errc() && ptr == text.data() + text.size();
}

bool IsOctal(char c) { return c >= '0' && c <= '7'; }
}  // namespace

std::string SLogicalVolume::DeviceNumber() const {
  return std::to_string(m_uMajor) + ":" + std::to_string(m_uMinor);
}

std::string FXFolder::UnescapeMountField(std::string_view field) {
  std::string out;
  out.reserve(field.size());
  for (size_t i = 0; i < field.size(); ++i) {
    if (field[i] == '\\' && i + 3 < field.size() && IsOctal(field[i + 1]) &&
        IsOctal(field[i + 2]) && IsOctal(field[i + 3])) {
      int value = (field[i + 1] - '0') * 64 + (field[i + 2] - '0') * 8 + (field[i + 3] - '0');
      if (value <= 0xff) {
        out.push_back(static_cast<char>(value));
        i += 3;
        continue;
      }
    }
    out.push_back(field[i]);
  }
  return out;
}

bool FXFolder::ParseMountInfoLine(std::string_view line, SLogicalVolume& volume) {
  std::vector<std::string_view> fields = SplitFields(line);
  // Six fixed fields, the optional ones, the "-" separator and at least the file-system type.
  size_t sep = 0;
  for (size_t i = 6; i < fields.size(); ++i) {
    if (fields[i] == "-") {
      sep = i;
      break;
    }
  }
  if (fields.size() < 8 || sep == 0 || sep + 1 >= fields.size()) return false;

  if (!ParseNumber(fields[0], volume.m_iMountId) || !ParseNumber(fields[1], volume.m_iParentId))
    return false;
  std::string_view dev = fields[2];
  size_t colon = dev.find(':');
  if (colon == std::string_view::npos || !ParseNumber(dev.substr(0, colon), volume.m_uMajor) ||
      !ParseNumber(dev.substr(colon + 1), volume.m_uMinor))
    return false;
  volume.m_strRoot = UnescapeMountField(fields[3]);
  volume.m_strMountPoint = UnescapeMountField(fields[4]);
  if (volume.m_strRoot.empty() || volume.m_strMountPoint.empty() || volume.m_strMountPoint[0] != '/')
    return false;
  volume.m_strMountOptions = std::string(fields[5]);
  volume.m_lstOptionalFields.clear();
  for (size_t i = 6; i < sep; ++i) volume.m_lstOptionalFields.emplace_back(fields[i]);
  volume.m_strFSType = UnescapeMountField(fields[sep + 1]);
  // Older kernels may leave out the source or the super-block options; they stay empty then.
  volume.m_strMountSource = sep + 2 < fields.size() ? UnescapeMountField(fields[sep + 2]) : "";
  volume.m_strSuperOptions = sep + 3 < fields.size() ? UnescapeMountField(fields[sep + 3]) : "";
  return true;
}

size_t FXFolder::ParseMountInfo(std::string_view text, std::vector<SLogicalVolume>& lstVolumes) {
  lstVolumes.clear();
  size_t skipped = 0;
  size_t lineNo = 0;
  size_t pos = 0;
  while (pos < text.size()) {
    size_t end = text.find('\n', pos);
    if (end == std::string_view::npos) end = text.size();
    std::string_view line = text.substr(pos, end - pos);
    pos = end + 1;
    ++lineNo;
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    if (FXString::Trim(line).empty()) continue;
    SLogicalVolume volume;
    if (!ParseMountInfoLine(line, volume)) {
      ++skipped;
      ZRLOG(-1, "Skipping malformed mountinfo line %zu: %s", lineNo,
            FXString::EscapeControl(line).c_str());
      continue;
    }
    lstVolumes.push_back(std::move(volume));
  }
  return skipped;
}

CQiError FXFolder::ReadMountInfoFile(const std::string& path,
                                     std::vector<SLogicalVolume>& lstVolumes) {
  QI_RETURN_IF_ERROR(FXPath::ValidatePath(path));
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    int err = errno != 0 ? errno : ENOENT;
    return QI_ERROR_ERRNO(err, "Cannot open mount table, Path=%s", path.c_str());
  }
  // procfs files report size 0: read to the end instead of by size.
  std::ostringstream text;
  text << in.rdbuf();
  if (in.bad()) return QI_ERROR_ERRNO(EIO, "Cannot read mount table, Path=%s", path.c_str());
  ParseMountInfo(text.str(), lstVolumes);
  return CQiError();
}

CQiError FXFolder::getLogicalVolumeList(std::vector<SLogicalVolume>& lstVolumes) {
  QI_RETURN_IF_ERROR(ReadMountInfoFile(GetMountInfoPath(), lstVolumes));
  return CQiError();
}

void FXFolder::SetMountInfoPath(const std::string& path) {
  std::lock_guard<std::mutex> lock(g_mtxSource);
  g_strMountInfoPath = path.empty() ? std::string(kDefaultMountInfoPath) : path;
}

std::string FXFolder::GetMountInfoPath() {
  std::lock_guard<std::mutex> lock(g_mtxSource);
  return g_strMountInfoPath;
}

std::vector<SLogicalVolume> FXFolder::FilterVisibleVolumes(
    const std::vector<SLogicalVolume>& lstVolumes) {
  // Index by mount id (a later duplicate id wins) and group by mount point.
  std::map<int, size_t> byId;
  std::map<std::string, std::vector<size_t>> byMountPoint;
  for (size_t i = 0; i < lstVolumes.size(); ++i) {
    byId[lstVolumes[i].m_iMountId] = i;
    byMountPoint[lstVolumes[i].m_strMountPoint].push_back(i);
  }
  // The top of a stack of mounts at one point is the one that no other mount there sits on;
  // when the table does not say (no such mount, or several), the last listed one.
  std::map<std::string, size_t> top;
  for (const auto& [mountPoint, members] : byMountPoint) {
    size_t chosen = members.back();
    std::vector<size_t> candidates;
    for (size_t m : members) {
      bool isParent = false;
      for (size_t other : members)
        if (other != m && lstVolumes[other].m_iParentId == lstVolumes[m].m_iMountId) isParent = true;
      if (!isParent) candidates.push_back(m);
    }
    if (!candidates.empty()) chosen = candidates.back();
    top[mountPoint] = chosen;
  }

  // 0 unknown, 1 being decided, 2 visible, 3 hidden.
  std::vector<int> state(lstVolumes.size(), 0);
  auto isVisible = [&](auto&& self, size_t index) -> bool {
    if (state[index] == 2 || state[index] == 1) return true;  // a cycle is given the benefit
    if (state[index] == 3) return false;
    const SLogicalVolume& volume = lstVolumes[index];
    if (top[volume.m_strMountPoint] != index) {
      state[index] = 3;
      return false;
    }
    state[index] = 1;
    // Walk down through the mounts stacked under this one at the same point to the mount that
    // carries the mount point; that one must be reachable.
    bool visible = true;
    size_t current = index;
    for (size_t guard = 0; guard <= lstVolumes.size(); ++guard) {
      const SLogicalVolume& cur = lstVolumes[current];
      auto parent = byId.find(cur.m_iParentId);
      if (parent == byId.end() || parent->second == current) break;
      if (lstVolumes[parent->second].m_strMountPoint == volume.m_strMountPoint) {
        current = parent->second;
        continue;
      }
      visible = self(self, parent->second);
      break;
    }
    state[index] = visible ? 2 : 3;
    return visible;
  };

  std::vector<SLogicalVolume> visible;
  for (size_t i = 0; i < lstVolumes.size(); ++i)
    if (isVisible(isVisible, i)) visible.push_back(lstVolumes[i]);
  return visible;
}
