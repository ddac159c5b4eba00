#pragma once

#include <ios>
#include <locale>
#include <string>

namespace test {

/// A host's locale that groups digits in threes, while it lives: for every stream made meanwhile, or for
/// one given stream.
class GroupedDigits {
 public:
  explicit GroupedDigits(char separator = '.') : before_(std::locale::global(grouping(separator))) {}
  explicit GroupedDigits(std::ios& stream) : stream_(&stream), before_(stream.imbue(grouping('.'))) {}
  GroupedDigits(const GroupedDigits&) = delete;
  GroupedDigits& operator=(const GroupedDigits&) = delete;
  ~GroupedDigits() {
    if (stream_ != nullptr) {
      stream_->imbue(before_);
    } else {
      std::locale::global(before_);
    }
  }

 private:
  struct Grouping : std::numpunct<char> {
    explicit Grouping(char separator) : separator_(separator) {}
    char do_thousands_sep() const override { return separator_; }
    std::string do_grouping() const override { return "\3"; }
    char separator_;
  };
  static std::locale grouping(char separator) { return {std::locale::classic(), new Grouping(separator)}; }

  std::ios* stream_ = nullptr;
  std::locale before_;
};

}  // namespace test
