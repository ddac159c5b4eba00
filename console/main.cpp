#include <confsave.h>

#include <iostream>
#include <string>
#include <string_view>

namespace {

enum ExitStatus { kDone = 0, kFailed = 1, kUsage = 2 };

/// True if something was written to standard error while this object lived. The library's load()
/// returns nothing; that it failed shows in its message alone.
class ErrorWatch : public std::streambuf {
 public:
  ErrorWatch() : terminal_(std::cerr.rdbuf(this)) {}
  ErrorWatch(const ErrorWatch&) = delete;
  ErrorWatch& operator=(const ErrorWatch&) = delete;
  ~ErrorWatch() override { std::cerr.rdbuf(terminal_); }

  bool heard() const { return heard_; }

 protected:
  int_type overflow(int_type letter) override {
    if (traits_type::eq_int_type(letter, traits_type::eof())) return traits_type::not_eof(letter);
    heard_ = true;
    return terminal_->sputc(traits_type::to_char_type(letter));
  }
  std::streamsize xsputn(const char* text, std::streamsize length) override {
    heard_ = heard_ || length > 0;
    return terminal_->sputn(text, length);
  }
  int sync() override { return terminal_->pubsync(); }

 private:
  std::streambuf* terminal_;
  bool heard_ = false;
};

int save(const char* name) { return ConfSave::save(name, ConfSave::conf_full, 0, false) ? kDone : kFailed; }

int list(const char*) {
  ConfSave::Storage storage;
  if (!storage.opened) {
    std::cerr << "Open configuration storage error\n";
    return kFailed;
  }
  for (const ConfSave::Config& config : storage.List(0, "", true)) std::cout << config << '\n';
  return kDone;
}

int load(const char* name) {
  const ErrorWatch errors;
  ConfSave::load(name, nullptr, 0, false);
  return errors.heard() ? kFailed : kDone;
}

struct Verb {
  std::string_view name;
  bool takes_name;
  int (*run)(const char* name);
};

constexpr Verb kVerbs[] = {
    {"save", true, save},
    {"list", false, list},
    {"load", true, load},
};

int usage() {
  std::cerr << "usage: confsave save NAME\n"
               "       confsave list\n"
               "       confsave load NAME\n";
  return kUsage;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return usage();
  for (const Verb& verb : kVerbs) {
    if (verb.name != argv[1]) continue;
    if (argc != (verb.takes_name ? 3 : 2)) return usage();
    return verb.run(verb.takes_name ? argv[2] : nullptr);
  }
  return usage();
}
