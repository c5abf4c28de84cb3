// Error codes with one meaning throughout the scan library.
//
// Codes live in the system (Win32-style) error space; C-library failures carry errno values
// in their own space (see CQiError::EQiErrorSpace).
#pragma once

#include <cstdint>

namespace QiErrorCode {
inline constexpr uint32_t InvalidHandle = 6;         // file not open, item vanished
inline constexpr uint32_t NotEnoughMemory = 8;       // interface table could not grow
inline constexpr uint32_t InvalidData = 13;          // bad parameter type, invalid directory entry
inline constexpr uint32_t OutOfMemory = 14;          // also the default "errorCode" of a failure
inline constexpr uint32_t NoMoreFiles = 18;          // end of a folder listing or enumeration
inline constexpr uint32_t NotSupported = 50;         // engine refuses a unit, handler refuses item
inline constexpr uint32_t AlreadyAssigned = 85;      // interface id already taken
inline constexpr uint32_t InvalidParameter = 87;     // invalid parameter
inline constexpr uint32_t ScanEngineNotDefined = 160;
inline constexpr uint32_t NoContent = 232;           // content missing, skipped
inline constexpr uint32_t NoMoreItems = 259;         // no more queued folders
inline constexpr uint32_t NotConfigured = 774;       // database not configured, unreadable long path
inline constexpr uint32_t OperationAborted = 995;    // always ends the scan
inline constexpr uint32_t NotFound = 1168;           // optional key absent, no output handler
inline constexpr uint32_t ProcNotFound = 1287;       // export missing in a plug-in
inline constexpr uint32_t ItemPathMisuse = 1359;     // misuse of an engine's item path
inline constexpr uint32_t FunctionFailed = 1627;     // fall back to the default scan
}  // namespace QiErrorCode
