#include "confsave.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <locale>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/console.h"
#include "support/gateway.h"

namespace {

using namespace test;

using ConfSave::ask_user_yesno;

/// The answer without repeating: true, false, or the exception as thrown() has it.
std::string answer() {
  std::string result;
  const std::string error = thrown([&] { result = ask_user_yesno("Go? ", false) ? "true" : "false"; });
  return error == "nothing" ? result : error;
}

struct Answer {
  const char* name;
  std::vector<std::string> lines;
  std::string result;
};

void PrintTo(const Answer& row, std::ostream* out) { *out << row.name; }

class YesNoAnswer : public testing::TestWithParam<Answer> {};

TEST_P(YesNoAnswer, HasThisResult) {
  for (const std::string& line : GetParam().lines) {
    Console console(line + "\nrest\n");
    EXPECT_EQ(answer(), GetParam().result) << line;
    EXPECT_EQ(console.transcript(), "Go? ‹" + line + "›\n");
    EXPECT_EQ(console.unread(), "rest\n");
  }
}

INSTANTIATE_TEST_SUITE_P(
    Each, YesNoAnswer,
    testing::Values(Answer{"YesInAnyCase", {"y", "Y", "yes", "Yes", "yEs", "YES"}, "true"},
                    Answer{"NoInAnyCase", {"n", "N", "no", "No", "nO", "NO"}, "false"},
                    Answer{"AnythingElseCancels",
                           {"ye", "yess", "nope", "y ", " y", "n ", " no", "", "yes no", "1"},
                           "ConfSave::XCancel 0: "}),
    by_name);

TEST(YesNoQuestion, EndOfInputCancels) {
  Console console;
  EXPECT_EQ(answer(), "ConfSave::XCancel 0: ");
  EXPECT_EQ(console.transcript(), "Go? ‹EOF›");
}

TEST(YesNoQuestion, AnswerNeedsNoLineFeed) {
  const Console console("yes");
  EXPECT_EQ(answer(), "true");
}

TEST(YesNoQuestion, RepeatsUntilAnAnswerComes) {
  Console console("maybe\n\ny \nno\n");
  EXPECT_FALSE(ask_user_yesno("Go? ", true));
  EXPECT_EQ(console.transcript(), "Go? ‹maybe›\nGo? ‹›\nGo? ‹y ›\nGo? ‹no›\n");
}

TEST(YesNoQuestion, RepeatedQuestionIsDecidedByTheNextLine) {
  for (const std::string answer : {"ye", "yess", "nope", "y ", ""}) {
    Console console(answer + "\nyes\n" + answer + "\nno\n");
    EXPECT_TRUE(ask_user_yesno("Go? ", true)) << answer;
    EXPECT_FALSE(ask_user_yesno("Go? ", true)) << answer;
    EXPECT_EQ(console.transcript(), "Go? ‹" + answer + "›\nGo? ‹yes›\nGo? ‹" + answer + "›\nGo? ‹no›\n");
  }
}

TEST(YesNoQuestion, RepeatsForEverAtTheEndOfInput) {
  Console console("maybe");
  {
    const BreakingOutput broken(12);
    EXPECT_THROW(ask_user_yesno("Go? ", true), std::runtime_error);
  }
  EXPECT_EQ(console.out(), "Go? Go? Go? ");
}

TEST(YesNoQuestion, PromptIsPrintedExactly) {
  Console console("yes\n");
  EXPECT_TRUE(ask_user_yesno(ConfSave::YES_NO_SUFFIX, false));
  EXPECT_EQ(console.transcript(), " [Yes/No] ‹yes›\n");
}

TEST(YesNoQuestion, PromptIsFlushedInAHostThatUntiesItsStreams) {
  const Untied untied;
  Console console("yes\n");
  EXPECT_TRUE(ask_user_yesno("Go? ", false));
  EXPECT_EQ(console.transcript(), "Go? ‹yes›\n");
}

/// Maps 'j' and 'J' to 'Y', in the function for one letter only.
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
