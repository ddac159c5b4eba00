#include "kelmor/status.h"

#include <gtest/gtest.h>

namespace {

void expect_status(const XTOOStatus& actual, int status, const char* text, bool is_error = true) {
  EXPECT_EQ(actual.Status(), status);
  EXPECT_STREQ(actual.ErrorMessage(), text);
  EXPECT_EQ(actual.IsError(), is_error);
}

TEST(PlatformStatus, WithoutATextTheMessageIsEmpty) {
  expect_status(XTOOStatus(36, true), 36, "");
  expect_status(XTOOStatus(1, nullptr, false), 1, "");
}

TEST(PlatformStatus, ATextIsCopied) {
  char text[] = "text";
  const XTOOStatus status(0, text, false);
  text[0] = 'n';
  expect_status(status, 0, "text");
}

TEST(PlatformStatus, ACopyEqualsTheOriginalUntilItIsCleared) {
  const XTOOStatus status(5, "text", false);
  XTOOStatus copy(1, true);
  copy = status;
  expect_status(copy, 5, "text");
  expect_status(XTOOStatus(copy), 5, "text");
  copy.Clear();
  expect_status(copy, 0, "", false);
  expect_status(status, 5, "text");
}

TEST(PlatformStatus, CanBeCaughtAsAMessage) {
  try {
    throw XTOOStatus(5, "text", false);
  } catch (const XTOOMsg& message) {
    EXPECT_STREQ(message.ErrorMessage(), "text");
  }
}

TEST(PlatformText, IsNeverNull) {
  EXPECT_STREQ(CTOOString().c_str(), "");
  EXPECT_STREQ(CTOOString(nullptr).c_str(), "");
  EXPECT_STREQ(CTOOString("text").c_str(), "text");
}

}  // namespace
