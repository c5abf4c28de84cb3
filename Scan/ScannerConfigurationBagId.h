// SXScannerConfigurationBagId: the names of the configuration keys that the scan library reads
// from and writes to bags (the scanner's configuration bag, a work unit's bag, the bag of a
// content context).
//
// Every component names a key through this table, never through a literal of its own, so that a
// key is spelled once and a reader and its writer can never disagree. The values are the names
// the backup job uses; they are part of the library's interface and must not change.
//
// Constants only; safe from any thread.
#pragma once

struct SXScannerConfigurationBagId {
  // unsigned 64-bit; cataloguing through the index log writer (work unit bag). When set, content
  // is catalogued under the source volume name instead of the local one.
  static constexpr const char* idUseIdxLogWriterBasedCataloging = "UseIdxLogWriterBasedCataloging";
  // bool; the scan reads a file server (NAS) through its snapshot clients (work unit bag).
  static constexpr const char* idFileServerScan = "SC:FileServerScan";
  // string; the local name of the volume being scanned, written into each work unit's bag.
  static constexpr const char* idVolumeName = "VolumeName";
  // int; the number of traversal workers of one engine.
  static constexpr const char* idMaxWorkers = "MaxWorkers";
  // bool; switches item-level debug output (log level 0) on.
  static constexpr const char* idFileScanDebugEnabled = "FileScanDebugEnabled";
  // bool; the job asks for the content's top-level folders to be reported as items.
  static constexpr const char* idProcessTopLevelContent = "JO:ProcessTopLevelContent";
  // bool; written by engines to make the job fail.
  static constexpr const char* idFailJobSet = "FailJobSet";
  // string; the job results folder.
  static constexpr const char* idJobResultsDirectory = "JR:subclient";
  // 64-bit time; the reference time of an incremental scan.
  static constexpr const char* idReferenceTime = "ReferenceTime";
  // bool; the job qualifies for a true-up scan.
  static constexpr const char* idTrueUpQualified = "SC:TrueUpQualified";

  // Content kinds, read from the bag of a content context by the work unit manager.
  // bool; the content lies on a Hadoop file system.
  static constexpr const char* idIsHadoopScan = "isHadoopScan";
  // bool; the backup reads a GPFS snapshot through a content mapper.
  static constexpr const char* idGpfsSnap = "SC:GpfsSnap";
  // bool; the content lies on a Gluster volume.
  static constexpr const char* idIsGlusterScan = "isGlusterScan";
  // bool; the content is a path beyond PATH_MAX, reached through the long path handler.
  static constexpr const char* idLongPathScan = "LongPath:Scan";
  // string; the volume name under which long-path content is scanned.
  static constexpr const char* idLongPathVolumeName = "LongPath:VolumeName";
  // bool; the content is an on-demand ad-hoc list selected by criteria.
  static constexpr const char* idOnDemandAdHocCriteriaBased = "OnDemandAdHoc::CriteriaBased";
  // bool; the content's file system must be mounted on demand (automount).
  static constexpr const char* idAutoMountRequired = "SC:AutoMountRequired";
};
