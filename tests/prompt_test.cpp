#include "confsave.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <locale>
#include <stdexcept>
#include <streambuf>

#include "support/console.h"
#include "support/gateway.h"

namespace {

using ConfSave::ask_user_yesno;
using test::Console;

void expect_cancelled(const std::string& input) {
  Console console(input);
  const auto error = test::thrown_by<ConfSave::XCancel>([] { ask_user_yesno("Go? ", false); });
  EXPECT_EQ(error.Status(), 0) << input;
  EXPECT_STREQ(error.ErrorMessage(), "") << input;
  EXPECT_EQ(console.out(), "Go? ");
  EXPECT_EQ(console.err(), "");
}

TEST(YesNoQuestion, YesInAnyCaseIsTrue) {
  for (const char* answer : {"y", "Y", "yes", "Yes", "yEs", "YES"}) {
    Console console(std::string(answer) + "\nrest\n");
    EXPECT_TRUE(ask_user_yesno("Go? ", false)) << answer;
    EXPECT_EQ(console.transcript(), "Go? ‹" + std::string(answer) + "›\n");
    EXPECT_EQ(console.unread(), "rest\n");
  }
}

TEST(YesNoQuestion, NoInAnyCaseIsFalse) {
  for (const char* answer : {"n", "N", "no", "No", "nO", "NO"}) {
    Console console(std::string(answer) + "\n");
    EXPECT_FALSE(ask_user_yesno("Go? ", false)) << answer;
    EXPECT_EQ(console.transcript(), "Go? ‹" + std::string(answer) + "›\n");
  }
}

TEST(YesNoQuestion, AnythingElseCancels) {
  for (const char* answer : {"ye", "yess", "nope", "y ", " y", "n ", " no", "", "yes no", "1"}) {
    expect_cancelled(std::string(answer) + "\n");
  }
}

TEST(YesNoQuestion, TheEndOfInputCancels) {
  expect_cancelled("");
  Console console("yes");
  EXPECT_TRUE(ask_user_yesno("Go? ", false));
}

TEST(YesNoQuestion, WithRepeatItAsksUntilAnAnswerComes) {
  Console console("maybe\n\ny \nno\n");
  EXPECT_FALSE(ask_user_yesno("Go? ", true));
  EXPECT_EQ(console.transcript(), "Go? ‹maybe›\nGo? ‹›\nGo? ‹y ›\nGo? ‹no›\n");
}

/// Output that is gone after so many flushes, in a host that wants to hear of it.
class EndingOutput : public std::streambuf {
 public:
  explicit EndingOutput(int flushes) : flushes_(flushes), before_(std::cout.rdbuf(this)) {
    std::cout.exceptions(std::ios::badbit);
  }
  EndingOutput(const EndingOutput&) = delete;
  EndingOutput& operator=(const EndingOutput&) = delete;
  ~EndingOutput() override {
    std::cout.exceptions(std::ios::goodbit);
    std::cout.rdbuf(before_);
  }

 protected:
  int_type overflow(int_type letter) override { return before_->sputc(traits_type::to_char_type(letter)); }
  int sync() override {
    before_->pubsync();
    if (--flushes_ == 0) throw std::runtime_error("the terminal is gone");
    return 0;
  }

 private:
  int flushes_;
  std::streambuf* before_;
};

TEST(YesNoQuestion, WithRepeatTheNextLineDecides) {
  for (const std::string answer : {"ye", "yess", "nope", "y ", ""}) {
    Console console(answer + "\nyes\n" + answer + "\nno\n");
    EXPECT_TRUE(ask_user_yesno("Go? ", true)) << answer;
    EXPECT_FALSE(ask_user_yesno("Go? ", true)) << answer;
    EXPECT_EQ(console.transcript(), "Go? ‹" + answer + "›\nGo? ‹yes›\nGo? ‹" + answer + "›\nGo? ‹no›\n");
  }
}

TEST(YesNoQuestion, WithRepeatItAsksForEverAtTheEndOfInput) {
  Console console("maybe");
  {
    // The first question is flushed once more, for the input that is tied to it.
    const EndingOutput output(4);
    EXPECT_THROW(ask_user_yesno("Go? ", true), std::runtime_error);
  }
  EXPECT_EQ(console.out(), "Go? Go? Go? ");
}

TEST(YesNoQuestion, ThePromptIsWrittenExactlyAsItIs) {
  Console console("yes\n");
  EXPECT_TRUE(ask_user_yesno(ConfSave::YES_NO_SUFFIX, false));
  EXPECT_EQ(console.transcript(), " [Yes/No] ‹yes›\n");
}

TEST(YesNoQuestion, ThePromptIsSeenInAHostThatUntiedItsStreams) {
  std::ostream* tied = std::cin.tie(nullptr);
  Console console("yes\n");
  EXPECT_TRUE(ask_user_yesno("Go? ", false));
  std::cin.tie(tied);
  EXPECT_EQ(console.transcript(), "Go? ‹yes›\n");
}

/// Knows 'j' and 'J' as the small form of 'Y', letter by letter only.
struct OtherLetters : std::ctype<char> {
  char do_toupper(char c) const override {
    return c == 'j' || c == 'J' ? 'Y' : std::ctype<char>::do_toupper(c);
  }
  const char* do_toupper(char* begin, const char* end) const override {
    std::fill(begin, const_cast<char*>(end), '?');
    return end;
  }
};

TEST(YesNoQuestion, LettersAreFoldedByTheGlobalLocale) {
  const std::locale before = std::locale::global(std::locale(std::locale::classic(), new OtherLetters));
  Console console("j\nx\n");
  EXPECT_TRUE(ask_user_yesno("Go? ", false));
  EXPECT_THROW(ask_user_yesno("Go? ", false), ConfSave::XCancel);
  std::locale::global(before);
}

}  // namespace
