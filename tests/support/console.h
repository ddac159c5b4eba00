#pragma once

// The console of a test: the input is fixed beforehand, the output is recorded as one transcript.

#include <functional>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <streambuf>
#include <string>
#include <utility>
#include <vector>

namespace test {

/// Replaces std::cin, std::cout and std::cerr while it lives.
///
/// The transcript shows what a person would have seen and typed, in order: standard output as it is,
/// standard error in «», each answer in ‹› where the library read it, the end of input as ‹EOF›. Standard
/// output appears when it is flushed, so a prompt that was not flushed in time follows its answer.
class Console {
 public:
  /// `input` holds the lines that a person types, each with its line feed; then the input ends. Calls
  /// `look` each time the library is about to read a line.
  explicit Console(std::string input = "", std::function<void()> look = nullptr);
  Console(const Console&) = delete;
  Console& operator=(const Console&) = delete;
  ~Console();

  /// Everything so far, unflushed output included.
  std::string transcript();

  /// The input that was not read.
  std::string unread() const;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

/// While it lives, calls `look` each time `text` is written to the stream in one piece, just before.
class WatchedOutput : public std::streambuf {
 public:
  WatchedOutput(std::ostream& stream, std::string text, std::function<void()> look)
      : stream_(stream), text_(std::move(text)), look_(std::move(look)), below_(stream.rdbuf(this)) {}
  WatchedOutput(const WatchedOutput&) = delete;
  WatchedOutput& operator=(const WatchedOutput&) = delete;
  ~WatchedOutput() override { stream_.rdbuf(below_); }

  /// The number of times the stream was flushed.
  int flushes() const { return flushes_; }

 protected:
  std::streamsize xsputn(const char* text, std::streamsize length) override {
    if (text_ == std::string(text, static_cast<std::size_t>(length))) look_();
    return below_->sputn(text, length);
  }
  int_type overflow(int_type letter) override { return below_->sputc(traits_type::to_char_type(letter)); }
  int sync() override {
    ++flushes_;
    return below_->pubsync();
  }

 private:
  std::ostream& stream_;
  std::string text_;
  std::function<void()> look_;
  std::streambuf* below_;
  int flushes_ = 0;
};

/// While it lives, standard output fails after so many letters, in a host that enables exceptions. Standard
/// error is untied, so that it does not meet the failure.
class BreakingOutput : public std::streambuf {
 public:
  explicit BreakingOutput(std::size_t letters)
      : letters_(letters), below_(std::cout.rdbuf(this)), tied_(std::cerr.tie(nullptr)) {
    std::cout.exceptions(std::ios::badbit);
  }
  BreakingOutput(const BreakingOutput&) = delete;
  BreakingOutput& operator=(const BreakingOutput&) = delete;
  ~BreakingOutput() override {
    std::cout.exceptions(std::ios::goodbit);
    std::cout.rdbuf(below_);
    std::cerr.tie(tied_);
  }

 protected:
  int_type overflow(int_type letter) override {
    if (letters_ == 0) throw std::runtime_error("the terminal is gone");
    below_->sputc(traits_type::to_char_type(letter));
    if (--letters_ == 0) below_->pubsync();
    return letter;
  }

 private:
  std::size_t letters_;
  std::streambuf* below_;
  std::ostream* tied_;
};

/// A host that enables exceptions at the end of its input.
class ThrowingAtEndOfInput {
 public:
  ThrowingAtEndOfInput() { std::cin.exceptions(std::ios::eofbit); }
  ThrowingAtEndOfInput(const ThrowingAtEndOfInput&) = delete;
  ThrowingAtEndOfInput& operator=(const ThrowingAtEndOfInput&) = delete;
  ~ThrowingAtEndOfInput() { std::cin.exceptions(std::ios::goodbit); }
};

}  // namespace test
