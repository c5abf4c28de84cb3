#include "Platform/FXErrorUtil.h"

CQiError FXErrorUtil::ErrorWin32(uint32_t code, const char* file, const char* function, int line) {
  CQiError error(CQiError::EQiErrorSpace::Win32, code);
  error.Push(file, function, line);
  return error;
}

CQiError FXErrorUtil::ErrorWin32(uint32_t code, const char* file, const char* function, int line,
                                 const char* format, ...) {
  CQiError error(CQiError::EQiErrorSpace::Win32, code);
  va_list args;
  va_start(args, format);
  error.PushV(file, function, line, format, args);
  va_end(args);
  return error;
}

CQiError FXErrorUtil::ErrorErrNo(int err, const char* file, const char* function, int line) {
  CQiError error(CQiError::EQiErrorSpace::ErrNo, static_cast<uint32_t>(err));
  error.Push(file, function, line);
  return error;
}

CQiError FXErrorUtil::ErrorErrNo(int err, const char* file, const char* function, int line,
                                 const char* format, ...) {
  CQiError error(CQiError::EQiErrorSpace::ErrNo, static_cast<uint32_t>(err));
  va_list args;
  va_start(args, format);
  error.PushV(file, function, line, format, args);
  va_end(args);
  return error;
}

CQiError FXErrorUtil::ErrorEventMessage(uint32_t eventId, const char* file, const char* function,
                                        int line) {
  CQiError error(CQiError::EQiErrorSpace::Event, eventId);
  error.Push(file, function, line);
  return error;
}

CQiError FXErrorUtil::ErrorEventMessage(uint32_t eventId, const char* file, const char* function,
                                        int line, const char* format, ...) {
  CQiError error(CQiError::EQiErrorSpace::Event, eventId);
  va_list args;
  va_start(args, format);
  error.PushV(file, function, line, format, args);
  va_end(args);
  return error;
}

const char* FXErrorUtil::Win32Text(uint32_t code) {
  switch (code) {
    case 0: return "success";
    case QiErrorCode::InvalidHandle: return "invalid handle";
    case QiErrorCode::NotEnoughMemory: return "not enough memory";
    case QiErrorCode::InvalidData: return "invalid data";
    case QiErrorCode::OutOfMemory: return "out of memory";
    case QiErrorCode::NoMoreFiles: return "no more files";
    case QiErrorCode::NotSupported: return "not supported";
    case QiErrorCode::AlreadyAssigned: return "already assigned";
    case QiErrorCode::InvalidParameter: return "invalid parameter";
    case QiErrorCode::ScanEngineNotDefined: return "scan engine not defined";
    case QiErrorCode::NoContent: return "no content";
    case QiErrorCode::NoMoreItems: return "no more items";
    case QiErrorCode::NotConfigured: return "not configured or not readable";
    case QiErrorCode::OperationAborted: return "operation aborted";
    case QiErrorCode::NotFound: return "not found";
    case QiErrorCode::ProcNotFound: return "entry point not found";
    case QiErrorCode::ItemPathMisuse: return "item path misuse";
    case QiErrorCode::FunctionFailed: return "function failed";
    default: return "unknown error";
  }
}
