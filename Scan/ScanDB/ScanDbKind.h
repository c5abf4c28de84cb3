// EScanDbKind: the three scan databases that the Lustre, Gluster and Nutanix engines keep in a
// job's results folder between jobs (see CScanDbFiles for their folders and docs/scan-db-store.md
// for how the engines move them from one job to the next).
#pragma once

#include <cstdint>

enum class EScanDbKind : uint8_t {
  kFull = 0,       // the database written by the last full backup
  kCurrent = 1,    // the database as of the last successful backup
  kTemporary = 2,  // the database being built by the running job
};
