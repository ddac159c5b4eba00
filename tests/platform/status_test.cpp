#include "kelmor/status.h"

#include <gtest/gtest.h>

namespace {

TEST(PlatformStatus, WithoutATextTheMessageIsEmpty) {
  const XTOOStatus status(36, true);
  EXPECT_EQ(status.Status(), 36);
  EXPECT_STREQ(status.ErrorMessage(), "");
  EXPECT_TRUE(status.IsError());
}

TEST(PlatformStatus, ATextIsCopied) {
  char text[] = "text";
  const XTOOStatus status(0, text, false);
  text[0] = 'n';
  EXPECT_STREQ(status.ErrorMessage(), "text");
  EXPECT_EQ(status.Status(), 0);
  EXPECT_TRUE(status.IsError());
}

TEST(PlatformStatus, ANullTextIsEmpty) { EXPECT_STREQ(XTOOStatus(1, nullptr, false).ErrorMessage(), ""); }

TEST(PlatformStatus, ACopyIsAsTheOriginal) {
  const XTOOStatus status(5, "text", false);
  XTOOStatus copy(1, true);
  copy = status;
  EXPECT_EQ(copy.Status(), 5);
  EXPECT_STREQ(copy.ErrorMessage(), "text");
  EXPECT_STREQ(XTOOStatus(copy).ErrorMessage(), "text");
}

TEST(PlatformStatus, ClearMakesItNoError) {
  XTOOStatus status(5, "text", false);
  status.Clear();
  EXPECT_EQ(status.Status(), 0);
  EXPECT_STREQ(status.ErrorMessage(), "");
  EXPECT_FALSE(status.IsError());
}

TEST(PlatformStatus, ItIsCaughtAsAMessage) {
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
