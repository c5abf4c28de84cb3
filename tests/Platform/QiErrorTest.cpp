#include <gtest/gtest.h>

#include <cerrno>

#include "Platform/FXErrorUtil.h"

namespace {
CQiError Inner() { return QI_ERROR_WIN32(QiErrorCode::NotSupported, "Engine refuses, Unit=%d", 7); }
CQiError Middle() {
  CQiError error = Inner();
  if (error.IsError()) return QI_PUSH(error);
  return CQiError();
}
CQiError Outer() {
  QI_RETURN_IF_ERROR(Middle(), "Outer failed, Path=%s", "/data");
  return CQiError();
}
}  // namespace

// Each level pushes its frame; the text shows the code and then every frame, newest first.
TEST(QiError, FramesAccumulateInCallOrderAndRenderNewestFirst) {
  CQiError error = Outer();
  ASSERT_TRUE(error.IsWin32(QiErrorCode::NotSupported));
  std::string frames;
  for (const auto& frame : error.GetFrames()) frames += frame.text + "|";
  EXPECT_EQ(frames, "Engine refuses, Unit=7||Outer failed, Path=/data|");
  EXPECT_NE(std::string(error.GetFrames()[1].function).find("Middle"), std::string::npos);
  const std::string text = error.AsString();
  EXPECT_EQ(text.rfind("Win32 error 50 (not supported)", 0), 0u) << text;
  EXPECT_LT(text.find("Outer failed, Path=/data"), text.find("Engine refuses, Unit=7")) << text;
  EXPECT_NE(text.find("QiErrorTest.cpp:"), std::string::npos);
}

TEST(QiError, ErrNoErrorsCarryTheSystemText) {
  CQiError error = QI_ERROR_ERRNO(ENOENT, "lstat failed, Path=%s", "/nope");
  EXPECT_TRUE(error.IsErrNo(ENOENT));
  EXPECT_FALSE(error.IsWin32(ENOENT));
  EXPECT_EQ(error.CodeAsString(), "errno 2 (No such file or directory)");
}

TEST(QiError, AppendTextExtendsTheNewestFrame) {
  CQiError error = QI_ERROR_WIN32(QiErrorCode::NotFound, "No consumer");
  error.AppendText("%s. Reporting scan failures is not supported.", "x");
  EXPECT_EQ(error.GetFrames().back().text,
            "No consumerx. Reporting scan failures is not supported.");
  CQiError bare(CQiError::EQiErrorSpace::Win32, 5);
  bare.AppendText("text %d", 1);
  ASSERT_EQ(bare.GetFrames().size(), 1u);
  EXPECT_EQ(bare.GetMessage(), "text 1");
}
