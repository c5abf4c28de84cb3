// Helpers shared by the work unit suites: a recorded mount table and units in one line.
#pragma once

#include <gtest/gtest.h>

#include <initializer_list>

#include "Platform/FXFolder.h"
#include "Platform/MountPathInfo.h"
#include "Scan/ContentContext.h"
#include "Scan/WorkUnit.h"
#include "Support/FileText.h"
#include "Support/LogCapture.h"
#include "Support/TempTree.h"

namespace WorkUnitTestSupport {

// Points the mount table at a recorded copy while it lives.
class CMountInfoFile {
 public:
  CMountInfoFile(CTempTree& tree, const std::string& text) {
    FXFolder::SetMountInfoPath(tree.MakeFile("recorded-mountinfo", text));
  }
  ~CMountInfoFile() { FXFolder::SetMountInfoPath(""); }
  CMountInfoFile(const CMountInfoFile&) = delete;
  CMountInfoFile& operator=(const CMountInfoFile&) = delete;
};

// A mountinfo line: "<id> <parent> <maj:min> / <point> rw - <type> <source> rw". The root mount
// has id 1 and parent 0; give the others parent 1.
inline std::string MountLine(int id, int parent, const std::string& number, const std::string& point,
                             const std::string& type, const std::string& source) {
  return std::to_string(id) + " " + std::to_string(parent) + " " + number + " / " + point + " rw - " + type + " " +
         source + " rw\n";
}
// The root line of a recorded table: an ext4 root on /dev/sdb (8:16).
inline std::string RootLine() { return MountLine(1, 0, "8:16", "/", "ext4", "/dev/sdb"); }

// The mount point of the volume holding the path, from the current mount table.
inline std::string VolumeOf(const std::string& path) {
  std::string volume;
  EXPECT_TRUE(MountPathInfo::GetVolumeName(path, volume).IsSuccess()) << path;
  return volume;
}

// True when some frame of the error carries the text.
inline bool HasFrame(const CQiError& error, const std::string& text) {
  for (const auto& frame : error.GetFrames())
    if (frame.text == text) return true;
  return false;
}

// A content context whose bag holds the given keys set to true.
inline CContentContextPtr Context(std::initializer_list<const char*> trueKeys) {
  auto context = std::make_shared<CContentContext>();
  for (const char* key : trueKeys) EXPECT_TRUE(context->GetBag()->Write(key, true).IsSuccess());
  return context;
}

// The unit's scan paths in one line, blank-separated: each "<local>", "=<source>" added when the
// source form differs, and "~<source prefix>" when the prefix differs from the source form.
inline std::string ScanPathsText(const CWorkUnitPtr& unit) {
  std::string text;
  for (const auto& path : unit->GetScanPaths()) {
    text += (text.empty() ? "" : " ") + path->GetLocalScanPath();
    if (path->GetSourceScanPath() != path->GetLocalScanPath()) text += "=" + path->GetSourceScanPath();
    if (path->GetSourceScanPrefix() != path->GetSourceScanPath()) text += "~" + path->GetSourceScanPrefix();
  }
  return text;
}

// The unit's volume in one line: "<local volume> <source volume> <unique id> <medium>".
inline std::string VolumeText(const CWorkUnitPtr& unit) {
  return unit->GetLocalVolumeName() + " " + unit->GetSourceVolumeName() + " " + unit->GetLocalVolumeUniqueId() + " " +
         unit->GetPhysicalMediaId();
}

}  // namespace WorkUnitTestSupport
