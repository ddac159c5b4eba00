#include "conversation.h"

#include <confsave.h>

#include <cstdio>
#include <iostream>
#include <streambuf>
#include <utility>

#include "interrupt.h"
#include "names.h"

namespace console {
namespace {

constexpr const char* kNameQuestion = "Name for the current configuration: ";
constexpr const char* kSavedClaim = "configuration saved.\n";

bool ends_with(const std::string& text, const std::string& end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

/// Passes on and records what is written. Hides from the library that the terminal is gone, because the
/// library reports that as a failed operation.
class Recorder : public std::streambuf {
 public:
  explicit Recorder(std::ostream& stream) : stream_(stream), below_(stream.rdbuf(this)) {}
  Recorder(const Recorder&) = delete;
  Recorder& operator=(const Recorder&) = delete;
  ~Recorder() override { stream_.rdbuf(below_); }

  const std::string& text() const { return text_; }
  /// Forgets what was recorded after the first `size` letters.
  void keep(std::size_t size) { text_.resize(size); }
  std::streambuf& below() { return *below_; }

 protected:
  int_type overflow(int_type letter) override {
    if (traits_type::eq_int_type(letter, traits_type::eof())) return traits_type::not_eof(letter);
    const char one = traits_type::to_char_type(letter);
    return xsputn(&one, 1) == 1 ? letter : traits_type::eof();
  }

  std::streamsize xsputn(const char* text, std::streamsize length) override {
    text_.append(text, static_cast<std::size_t>(length));
    below_->sputn(text, length);
    recorded();
    return length;
  }

  int sync() override {
    below_->pubsync();
    return 0;
  }

  /// Called after each write. Its exceptions propagate to the writer.
  virtual void recorded() {}

 private:
  std::ostream& stream_;
  std::streambuf* below_;
  std::string text_;
};

/// Makes a stream propagate the exceptions of its buffer.
class Propagation {
 public:
  explicit Propagation(std::ios& stream) : stream_(stream), before_(stream.exceptions()) {
    // An earlier failure must not throw now.
    stream_.clear(stream_.rdstate() & ~std::ios::badbit);
    stream_.exceptions(std::ios::badbit);
  }
  Propagation(const Propagation&) = delete;
  Propagation& operator=(const Propagation&) = delete;
  ~Propagation() {
    stream_.clear(stream_.rdstate() & ~std::ios::badbit);
    stream_.exceptions(before_);
  }

 private:
  std::ios& stream_;
  std::ios::iostate before_;
};

}  // namespace

struct Conversation::Streams {
  /// Standard output. The report that the current configuration was saved is checked.
  class Output : public Recorder {
   public:
    explicit Output(Streams& streams) : Recorder(std::cout), streams_(streams) {}

   protected:
    void recorded() override {
      if (ends_with(text(), kSavedClaim)) streams_.demand_proof();
    }

   private:
    Streams& streams_;
  };

  /// Standard input, line by line.
  class Input : public std::streambuf {
   public:
    explicit Input(Streams& streams) : streams_(streams), below_(std::cin.rdbuf(this)) {}
    Input(const Input&) = delete;
    Input& operator=(const Input&) = delete;
    ~Input() override { std::cin.rdbuf(below_); }

    /// False at the end of input, and after an interrupt.
    bool read_line(std::string& line) {
      line.clear();
      wait_for_typed_line();
      for (;;) {
        const int_type letter = interrupted() ? traits_type::eof() : below_->sbumpc();
        if (traits_type::eq_int_type(letter, traits_type::eof())) return !line.empty() && !interrupted();
        line += traits_type::to_char_type(letter);
        if (line.back() == '\n') return true;
      }
    }

   protected:
    int_type underflow() override {
      if (!streams_.answer(line_)) return traits_type::eof();
      setg(line_.data(), line_.data(), line_.data() + line_.size());
      return traits_type::to_int_type(line_.front());
    }

   private:
    Streams& streams_;
    std::streambuf* below_;
    std::string line_;
  };

  explicit Streams(Proof proof)
      : was_saved(std::move(proof)), output(*this), errors(std::cerr), input(*this) {}

  /// Reads the next answer, with its line feed. False at the end of input.
  bool answer(std::string& line) {
    const bool at_name = ends_with(output.text(), kNameQuestion);
    for (;;) {
      if (!input.read_line(line)) return end_of_input();
      if (!at_name) return true;
      name = line.substr(0, line.find('\n'));
      asked = std::time(nullptr);
      const std::size_t printed_by_library = errors.text().size();
      if (check_name(name)) return true;
      errors.keep(printed_by_library);
      std::cout << kNameQuestion << std::flush;
    }
  }

  bool end_of_input() const {
    if (interrupted()) {
      std::clearerr(stdin);
      std::cout << std::endl;
    }
    if (was_saved) throw ConfSave::XCancel(0, true);
    return false;
  }

  void demand_proof() {
    if (!was_saved || was_saved(name, asked)) return;
    disproved = true;
    output.below().pubsync();
    std::cerr << "confsave: '" << name << "' was not stored. Nothing is restored over a configuration that "
              << "is not saved.\n";
    throw ConfSave::XCancel(0, true);
  }

  Proof was_saved;
  bool disproved = false;
  std::string name;
  std::time_t asked = 0;
  Output output;
  Recorder errors;
  Input input;
  Propagation output_exceptions{std::cout};
  Propagation input_exceptions{std::cin};
};

Conversation::Conversation(Proof was_saved) : streams_(std::make_unique<Streams>(std::move(was_saved))) {}

Conversation::~Conversation() = default;

const std::string& Conversation::output() const { return streams_->output.text(); }

const std::string& Conversation::errors() const { return streams_->errors.text(); }

bool Conversation::printed(const std::string& text) const {
  return output().find(text) != std::string::npos || errors().find(text) != std::string::npos;
}

bool Conversation::disproved() const { return streams_->disproved; }

}  // namespace console
