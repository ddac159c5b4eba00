#include "support/console.h"

#include <regex>

namespace test {

struct Console::State {
  struct Stream : std::streambuf {
    explicit Stream(State& owner) : state(owner) {}
    State& state;
  };

  /// Holds output back until it is flushed.
  struct Output : Stream {
    using Stream::Stream;
    int_type overflow(int_type letter) override {
      pending += traits_type::to_char_type(letter);
      return letter;
    }
    int sync() override {
      state.transcript += std::exchange(pending, "");
      return 0;
    }
    std::string pending;
  };

  /// Standard error is unbuffered.
  struct Errors : Stream {
    using Stream::Stream;
    int_type overflow(int_type letter) override {
      state.transcript += std::string("«") + traits_type::to_char_type(letter) + "»";
      return letter;
    }
    std::streamsize xsputn(const char* text, std::streamsize length) override {
      state.transcript += "«" + std::string(text, static_cast<std::size_t>(length)) + "»";
      return length;
    }
  };

  /// Delivers one line at a time, as a terminal does.
  struct Input : Stream {
    using Stream::Stream;
    int_type underflow() override {
      if (state.look) state.look();
      if (state.input.empty()) {
        state.transcript += "‹EOF›";
        return traits_type::eof();
      }
      const std::size_t end = state.input.find('\n');
      line = state.input.substr(0, end == std::string::npos ? end : end + 1);
      state.input.erase(0, line.size());
      state.transcript += "‹" + line.substr(0, end) + "›\n";
      setg(line.data(), line.data(), line.data() + line.size());
      return traits_type::to_int_type(line.front());
    }
    std::string line;
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
  return std::regex_replace(state_->transcript + state_->output.pending, std::regex("»«"), "");
}

std::string Console::unread() const { return state_->input; }

}  // namespace test
