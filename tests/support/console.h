#pragma once

// The console of a test: what is typed is fixed beforehand, what is shown is noted as one transcript.

#include <iostream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace test {

/// Replaces std::cin, std::cout and std::cerr while it lives.
///
/// The transcript is what a person would have seen and typed, in order. Output is in it as it is,
/// errors in «», each answer in ‹› at the place where it was waited for, the end of input as ‹EOF›.
/// Standard output is in it only from the moment it was flushed, so a prompt that was not flushed before
/// the answer was read stands behind the answer.
class Console {
 public:
  /// `input` is what is typed: lines, each with its line feed, then the end of input.
  explicit Console(std::string input = "");
  Console(const Console&) = delete;
  Console& operator=(const Console&) = delete;
  ~Console();

  /// All so far, what is not flushed included.
  std::string transcript();

  /// What went to standard output, flushed or not, and to standard error.
  std::string out();
  std::string err();

  /// What was typed and not read.
  std::string unread() const;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace test
