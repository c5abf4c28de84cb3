// ECollectType: the kind of collect file that an engine asks the scanner callback for
// (CScannerCallback::GetFlatCollectFile). The library only passes the value through; what a
// collect file of each kind holds is the caller's business.
//
//   Full         every selected item of the content (a full backup's list)
//   Incremental  the items changed since the previous job
//   Synthetic    a list rebuilt from an earlier job's lists without reading the file system
#pragma once

enum class ECollectType : int {
  Full = 0,
  Incremental = 1,
  Synthetic = 2,
};
