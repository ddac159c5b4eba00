#include <algorithm>
#include <locale>

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

void expect_answer(const std::vector<std::string>& lines, const std::string& result) {
  for (const std::string& line : lines) {
    Console console(line + "\nrest\n");
    EXPECT_EQ(answer(), result) << line;
    EXPECT_EQ(console.transcript(), "Go? ‹" + line + "›\n");
    EXPECT_EQ(console.unread(), "rest\n");
  }
}

TEST(YesNoQuestion, HasTwoAnswersInAnyCase) {
  expect_answer({"y", "Y", "yes", "Yes", "yEs", "YES"}, "true");
  expect_answer({"n", "N", "no", "No", "nO", "NO"}, "false");
  expect_answer({"ye", "yess", "nope", "y ", " y", "n ", " no", "", "yes no", "1"},
                "ConfSave::XCancel 0: ");
}

TEST(YesNoQuestion, EndOfInputCancels) {
  Console console;
  EXPECT_EQ(answer(), "ConfSave::XCancel 0: ");
  EXPECT_EQ(console.transcript(), "Go? ‹EOF›");
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
  EXPECT_EQ(console.transcript(), "‹maybe›\n‹EOF›Go? Go? Go? ");
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
