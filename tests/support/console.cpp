#include "support/console.h"

#include <streambuf>

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
        state_.out += traits_type::to_char_type(letter);
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
      const std::string piece(text, static_cast<std::size_t>(length));
      state_.err += piece;
      // Consecutive pieces share one pair of marks.
      static const std::string kClose = "»";
      std::string& shown = state_.transcript;
      if (shown.size() >= kClose.size() &&
          shown.compare(shown.size() - kClose.size(), kClose.size(), kClose) == 0) {
        shown.resize(shown.size() - kClose.size());
        shown += piece + kClose;
      } else {
        shown += "«" + piece + kClose;
      }
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

  explicit State(std::string typed)
      : input(std::move(typed)), output(*this), errors(*this), reader(*this) {}

  std::string input;
  std::string transcript;
  std::string out;
  std::string err;
  Output output;
  Errors errors;
  Input reader;
  std::streambuf* old_out = nullptr;
  std::streambuf* old_err = nullptr;
  std::streambuf* old_in = nullptr;
};

Console::Console(std::string input) : state_(std::make_unique<State>(std::move(input))) {
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

std::string Console::transcript() { return state_->transcript + state_->output.pending(); }

std::string Console::out() { return state_->out; }

std::string Console::err() { return state_->err; }

std::string Console::unread() const { return state_->input; }

WatchedInput::int_type WatchedInput::underflow() {
  if (ended_) return traits_type::eof();
  look_();
  line_.clear();
  while (!ended_ && (line_.empty() || line_.back() != '\n')) {
    const int_type letter = below_->sbumpc();
    ended_ = traits_type::eq_int_type(letter, traits_type::eof());
    if (!ended_) line_ += traits_type::to_char_type(letter);
  }
  if (line_.empty()) return traits_type::eof();
  setg(line_.data(), line_.data(), line_.data() + line_.size());
  return traits_type::to_int_type(line_.front());
}

}  // namespace test
