#include "Scan/ScanLibrary.h"

extern "C" int FsScanLibraryVersion() { return 1; }
