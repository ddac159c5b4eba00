#include "support/console.h"

#include <regex>

namespace test {

struct Console::State {
  /// Holds output back until it is flushed.
  class Output : public std::streambuf {
   public:
    explicit Output(State& state) : state_(state) {}
    const std::string& pending() const { return pending_; }

   protected:
    int_type overflow(int_type letter) override {
      if (!traits_type::eq_int_type(letter, traits_type::eof())) {
        pending_ += traits_type::to_char_type(letter);
      }
      return traits_type::not_eof(letter);
    }
    int sync() override {
      state_.transcript += pending_;
      pending_.clear();
      return 0;
    }

   private:
    State& state_;
    std::string pending_;
  };

  /// Standard error is unbuffered.
  class Errors : public std::streambuf {
   public:
    explicit Errors(State& state) : state_(state) {}

   protected:
    int_type overflow(int_type letter) override {
      if (!traits_type::eq_int_type(letter, traits_type::eof())) {
        const char one = traits_type::to_char_type(letter);
        xsputn(&one, 1);
      }
      return traits_type::not_eof(letter);
    }
    std::streamsize xsputn(const char* text, std::streamsize length) override {
      state_.transcript += "«" + std::string(text, static_cast<std::size_t>(length)) + "»";
      return length;
    }

   private:
    State& state_;
  };

  /// Delivers one line at a time, as a terminal does.
  class Input : public std::streambuf {
   public:
    explicit Input(State& state) : state_(state) {}

   protected:
    int_type underflow() override {
      if (state_.look) state_.look();
      if (state_.input.empty()) {
        state_.transcript += "‹EOF›";
        return traits_type::eof();
      }
      const std::size_t end = state_.input.find('\n');
      line_ = state_.input.substr(0, end == std::string::npos ? end : end + 1);
      state_.input.erase(0, line_.size());
      state_.transcript += "‹" + line_.substr(0, end) + "›\n";
      setg(line_.data(), line_.data(), line_.data() + line_.size());
      return traits_type::to_int_type(line_.front());
    }

   private:
    State& state_;
    std::string line_;
  };

  State(std::string typed, std::function<void()> hook)
      : input(std::move(typed)), look(std::move(hook)), output(*this), errors(*this), reader(*this) {}

  std::string input;
  std::function<void()> look;
  std::string transcript;
  Output output;
  Errors errors;
  Input reader;
  std::streambuf* old_out = nullptr;
  std::streambuf* old_err = nullptr;
  std::streambuf* old_in = nullptr;
};

Console::Console(std::string input, std::function<void()> look)
    : state_(std::make_unique<State>(std::move(input), std::move(look))) {
  state_->old_out = std::cout.rdbuf(&state_->output);
  state_->old_err = std::cerr.rdbuf(&state_->errors);
  state_->old_in = std::cin.rdbuf(&state_->reader);
  std::cin.clear();
}

Console::~Console() {
  std::cout.rdbuf(state_->old_out);
  std::cerr.rdbuf(state_->old_err);
  std::cin.rdbuf(state_->old_in);
  std::cin.clear();
}

// Consecutive pieces of standard error share one pair of marks.
std::string Console::transcript() {
  return std::regex_replace(state_->transcript + state_->output.pending(), std::regex("»«"), "");
}

std::string Console::unread() const { return state_->input; }

}  // namespace test
