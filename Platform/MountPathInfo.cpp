#include "Platform/MountPathInfo.h"

#include <climits>
#include <cstdlib>
#include <memory>

#include <algorithm>
#include <cerrno>

#include "Platform/FXErrorUtil.h"
#include "Platform/FXPath.h"
#include "Platform/FXString.h"
#include "Platform/LogWriterInterface.h"
#include "Platform/SkipFS.h"
#include "Platform/StaleMountDetector.h"

namespace {
// Applies the components of `rest` to the absolute path `base`: "." and empty components are
// dropped, ".." goes up one folder ("/" stays "/").
std::string ApplyComponents(std::string base, std::string_view rest) {
  for (const std::string& part : FXString::Split(rest, '/')) {
    if (part.empty() || part == ".") continue;
    if (part == "..") {
      base = FXPath::GetParent(base);
      if (base.empty()) base.push_back(FXPath::kDelimiter);
      continue;
    }
    FXPath::AppendInPlace(base, part);
  }
  return base;
}

// The entry path for a mount point below the content: the caller's form of the content path
// followed by the mount point's part below the content's real path.
std::string CallerForm(const std::string& callerPath, const std::string& realPath,
                       const std::string& mountPoint) {
  std::string_view below(mountPoint);
  below.remove_prefix(realPath == "/" ? 1 : realPath.size() + 1);
  return FXPath::Append(callerPath, below);
}

const SLogicalVolume* FindIn(const std::string& realPath, const std::vector<SLogicalVolume>& visible) {
  const SLogicalVolume* best = nullptr;
  for (const SLogicalVolume& volume : visible) {
    if (!FXPath::IsAncestorOf(volume.m_strMountPoint, realPath, true)) continue;
    if (best == nullptr || volume.m_strMountPoint.size() > best->m_strMountPoint.size())
      best = &volume;
  }
  return best;
}
}  // namespace

CQiError MountPathInfo::ValidateAbsolutePath(const std::string& path) {
  QI_RETURN_IF_ERROR(FXPath::ValidatePath(path));
  if (!FXPath::IsAbsolute(path))
    return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "Path is not absolute, Path=%s",
                          FXString::EscapeControl(path).c_str());
  if (path.size() >= PATH_MAX)
    return QI_ERROR_ERRNO(ENAMETOOLONG, "Path is longer than PATH_MAX (%d bytes), Length=%zu, Path=%.64s...",
                          PATH_MAX, path.size(), FXString::EscapeControl(path).c_str());
  return CQiError();
}

int MountPathInfo::ComparePaths(std::string_view a, std::string_view b) {
  size_t n = std::min(a.size(), b.size());
  for (size_t i = 0; i < n; ++i) {
    if (a[i] == b[i]) continue;
    if (a[i] == '/') return -1;
    if (b[i] == '/') return 1;
    return static_cast<unsigned char>(a[i]) < static_cast<unsigned char>(b[i]) ? -1 : 1;
  }
  return a.size() == b.size() ? 0 : (a.size() < b.size() ? -1 : 1);
}

CQiError MountPathInfo::ResolvePath(const std::string& path, std::string& realPath) {
  QI_RETURN_IF_ERROR(ValidateAbsolutePath(path));
  std::string lexical = ApplyComponents("/", path);
  // Under a stale mount, realpath could hang in the kernel: take the path as written.
  if (CheckInStaleFSList(lexical)) {
    ZRLOG(3, "Path [%s] lies on a stale file system; not resolved", lexical.c_str());
    realPath = lexical;
    return CQiError();
  }
  // Resolve the longest part that exists, then apply the rest as written.
  std::string existing = FXPath::RemoveTrailingDelimiters(path);
  std::string rest;
  for (;;) {
    std::unique_ptr<char, decltype(&free)> resolved(realpath(existing.c_str(), nullptr), &free);
    if (resolved) {
      realPath = ApplyComponents(resolved.get(), rest);
      return CQiError();
    }
    int err = errno;
    if (err != ENOENT && err != ENOTDIR)
      return QI_ERROR_ERRNO(err, "Cannot resolve path, Path=%s", FXString::EscapeControl(existing).c_str());
    std::string parent, name;
    if (FXPath::SplitParent(existing, parent, name).IsError() || parent.empty())
      return QI_ERROR_ERRNO(err, "Cannot resolve path, Path=%s", FXString::EscapeControl(path).c_str());
    rest = rest.empty() ? name : name + "/" + rest;
    existing = parent;
  }
}

CQiError MountPathInfo::FindVolume(const std::string& realPath,
                                   const std::vector<SLogicalVolume>& lstVolumes,
                                   SLogicalVolume& volume) {
  QI_RETURN_IF_ERROR(ValidateAbsolutePath(realPath));
  std::vector<SLogicalVolume> visible = FXFolder::FilterVisibleVolumes(lstVolumes);
  const SLogicalVolume* found = FindIn(realPath, visible);
  if (found == nullptr)
    return QI_ERROR_WIN32(QiErrorCode::NotFound, "No mounted volume holds the path, Path=%s",
                          FXString::EscapeControl(realPath).c_str());
  volume = *found;
  return CQiError();
}

CQiError MountPathInfo::GetVolumeForPath(const std::string& path, SLogicalVolume& volume) {
  std::string realPath;
  QI_RETURN_IF_ERROR(ResolvePath(path, realPath));
  std::vector<SLogicalVolume> volumes;
  QI_RETURN_IF_ERROR(FXFolder::getLogicalVolumeList(volumes), "getLogicalVolumeList failed");
  QI_RETURN_IF_ERROR(FindVolume(realPath, volumes, volume));
  return CQiError();
}

CQiError MountPathInfo::GetVolumeName(const std::string& path, std::string& volumeName) {
  SLogicalVolume volume;
  QI_RETURN_IF_ERROR(GetVolumeForPath(path, volume));
  volumeName = volume.m_strMountPoint;
  return CQiError();
}

CQiError MountPathInfo::expandContentPathByVolumes(const std::string& realPath,
                                                   const std::vector<SLogicalVolume>& lstVolumes,
                                                   std::vector<SContentEntry>& lstEntries,
                                                   std::vector<std::string>* pLeftOut) {
  QI_RETURN_IF_ERROR(ValidateAbsolutePath(realPath));
  std::string content = FXPath::RemoveTrailingDelimiters(realPath);
  std::vector<SLogicalVolume> visible = FXFolder::FilterVisibleVolumes(lstVolumes);
  const SLogicalVolume* own = FindIn(content, visible);
  if (own == nullptr)
    return QI_ERROR_WIN32(QiErrorCode::NotFound, "No mounted volume holds the path, Path=%s",
                          FXString::EscapeControl(content).c_str());

  std::vector<SContentEntry> entries;
  entries.push_back({content, content, own->m_strMountPoint, true});

  // Pseudo file systems strictly below the content: neither they nor anything below them is
  // entered.
  std::vector<const SLogicalVolume*> below, ignored;
  for (const SLogicalVolume& volume : visible) {
    if (!FXPath::IsAncestorOf(content, volume.m_strMountPoint, false)) continue;
    if (skipFS::IsIgnoredFSType(volume.m_strFSType))
      ignored.push_back(&volume);
    else
      below.push_back(&volume);
  }
  auto pathOrder = [](const SLogicalVolume* a, const SLogicalVolume* b) {
    return ComparePaths(a->m_strMountPoint, b->m_strMountPoint) < 0;
  };
  std::sort(below.begin(), below.end(), pathOrder);
  // The mounts that get no entry; a traversal of the entries must not walk into them.
  std::vector<const SLogicalVolume*> leftOut = ignored;
  for (const SLogicalVolume* volume : below) {
    const std::string& mountPoint = volume->m_strMountPoint;
    auto under = std::find_if(ignored.begin(), ignored.end(), [&](const SLogicalVolume* i) {
      return FXPath::IsAncestorOf(i->m_strMountPoint, mountPoint, false);
    });
    if (under != ignored.end()) {
      ZRLOG(3, "Mount [%s] (%s) lies on the pseudo file system [%s] (%s); not expanded",
            mountPoint.c_str(), volume->m_strFSType.c_str(), (*under)->m_strMountPoint.c_str(),
            (*under)->m_strFSType.c_str());
      leftOut.push_back(volume);
      continue;
    }
    if (CheckInStaleFSList(mountPoint)) {
      ZRLOG(0, "Mount [%s] (%s) below content [%s] is stale; not expanded", mountPoint.c_str(),
            volume->m_strFSType.c_str(), content.c_str());
      leftOut.push_back(volume);
      continue;
    }
    entries.push_back({mountPoint, mountPoint, mountPoint, false});
  }
  if (pLeftOut != nullptr) {
    std::sort(leftOut.begin(), leftOut.end(), pathOrder);
    pLeftOut->clear();
    for (const SLogicalVolume* volume : leftOut) pLeftOut->push_back(volume->m_strMountPoint);
  }
  lstEntries = std::move(entries);
  return CQiError();
}

CQiError MountPathInfo::expandContentPathByVolumes(const std::string& path,
                                                   std::vector<SContentEntry>& lstEntries,
                                                   ContentMapperAPI* pMapper) {
  std::vector<std::string> lstLeftOut;
  QI_RETURN_IF_ERROR(expandContentPathByVolumes(path, lstEntries, lstLeftOut, pMapper));
  return CQiError();
}

CQiError MountPathInfo::expandContentPathByVolumes(const std::string& path,
                                                   std::vector<SContentEntry>& lstEntries,
                                                   std::vector<std::string>& lstLeftOut,
                                                   ContentMapperAPI* pMapper) {
  QI_RETURN_IF_ERROR(ValidateAbsolutePath(path));
  std::string callerPath = FXPath::RemoveTrailingDelimiters(path);
  std::string realPath;
  QI_RETURN_IF_ERROR(ResolvePath(callerPath, realPath));
  std::vector<SLogicalVolume> volumes;
  QI_RETURN_IF_ERROR(FXFolder::getLogicalVolumeList(volumes), "getLogicalVolumeList failed");
  std::vector<SContentEntry> entries;
  std::vector<std::string> leftOut;
  QI_RETURN_IF_ERROR(expandContentPathByVolumes(realPath, volumes, entries, &leftOut));
  for (std::string& mountPoint : leftOut) mountPoint = CallerForm(callerPath, realPath, mountPoint);

  for (SContentEntry& entry : entries) {
    entry.m_strLocalMountPath = entry.m_bContentPath
                                    ? callerPath
                                    : CallerForm(callerPath, realPath, entry.m_strLocalMountPath);
    entry.m_strSourceMountPath = entry.m_strLocalMountPath;
    if (pMapper != nullptr) {
      CQiError error = pMapper->MakeHostPathFromProxyPath(entry.m_strLocalMountPath,
                                                          entry.m_strSourceMountPath);
      if (error.IsError())
        return QI_ERROR_WIN32(QiErrorCode::InvalidParameter,
                              "Failed to convert proxy path to host path, LocalMountPath=%s",
                              entry.m_strLocalMountPath.c_str());
    }
    ZRLOG(3, "Content [%s]: LocalMountPath=%s, SourceMountPath=%s, Volume=%s", callerPath.c_str(),
          entry.m_strLocalMountPath.c_str(), entry.m_strSourceMountPath.c_str(),
          entry.m_strVolumeName.c_str());
  }
  lstEntries = std::move(entries);
  lstLeftOut = std::move(leftOut);
  return CQiError();
}

bool MountPathInfo::IsStaleFSPresent() { return CStaleMountDetector::Process().IsStaleFSPresent(); }

bool MountPathInfo::CheckInStaleFSList(const std::string& path) {
  return CStaleMountDetector::Process().CheckInStaleFSList(path);
}
