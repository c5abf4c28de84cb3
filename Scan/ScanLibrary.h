// Identity of the scan library build.
#pragma once

// The version of the scan library's class interface; raised when the interface changes.
extern "C" int FsScanLibraryVersion();
