#pragma once

// The console of a test: what is typed is fixed beforehand, what is shown is noted as one transcript.

#include <functional>
#include <iostream>
#include <memory>
#include <streambuf>
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

/// While it lives, calls `look` whenever `text` is written to the stream in one piece, before it gets
/// there.
class WhenSaid : public std::streambuf {
 public:
  WhenSaid(std::ostream& stream, std::string text, std::function<void()> look)
      : stream_(stream), text_(std::move(text)), look_(std::move(look)), below_(stream.rdbuf(this)) {}
  WhenSaid(const WhenSaid&) = delete;
  WhenSaid& operator=(const WhenSaid&) = delete;
  ~WhenSaid() override { stream_.rdbuf(below_); }

  /// How often the stream was flushed.
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

}  // namespace test
