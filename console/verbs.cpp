#include "verbs.h"

#include <confsave.h>

#include <algorithm>
#include <charconv>
#include <iostream>
#include <string_view>

namespace console {
namespace {

/// Hears whether anything is written to standard error while it lives. The library's load() returns
/// nothing: that it failed shows in its message alone.
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

bool is_open(const ConfSave::Storage& storage) {
  if (!storage.opened) std::cerr << "Open configuration storage error\n";
  return storage.opened;
}

int save(const std::string& name) {
  return ConfSave::save(name, ConfSave::conf_full, 0, false) ? kDone : kFailed;
}

int list(const std::string&) {
  ConfSave::Storage storage;
  if (!is_open(storage)) return kFailed;
  for (const ConfSave::Config& config : storage.List(0, "", true)) std::cout << config << '\n';
  return kDone;
}

int load(const std::string& name) {
  const ErrorWatch errors;
  ConfSave::load(name, nullptr, 0, false);
  return errors.heard() ? kFailed : kDone;
}

/// Deletes the one snapshot of this name. Of several versions none is preferred.
int remove(const std::string& name) {
  if (!is_valid_name(name)) return kUsage;
  ConfSave::Storage storage;
  if (!is_open(storage)) return kFailed;
  const ConfSave::Configs found = storage.FindMatching(name, 0, false);
  if (found.empty()) {
    std::cerr << "No such config.\n";
    return kFailed;
  }
  if (found.size() > 1) {
    std::cerr << "There are several versions of '" << name << "'; none was deleted:\n";
    for (const ConfSave::Config& config : found) std::cerr << config << '\n';
    return kFailed;
  }
  storage.Delete(name, found.front().vers);
  if (!storage.Exists(name, found.front().vers)) return kDone;
  std::cerr << "'" << name << "' could not be deleted; the log says why.\n";
  return kFailed;
}

int autosave(const std::string& limit) {
  unsigned number = 0;
  const auto [end, error] = std::from_chars(limit.data(), limit.data() + limit.size(), number);
  if (error != std::errc() || end != limit.data() + limit.size() || number == 0) {
    std::cerr << "confsave: --max takes a number of at least 1, not '" << limit << "'\n";
    return kUsage;
  }
  // The library's autosave keeps quiet about a storage that cannot be opened.
  if (const ConfSave::Storage storage; !is_open(storage)) return kFailed;
  ConfSave::AutoSave("", ConfSave::conf_full, number);
  return kDone;
}

int check_old(const std::string&) {
  if (const ConfSave::Storage storage; !is_open(storage)) return kFailed;
  std::cout << (ConfSave::CheckOld() ? "An autosave older than 31 days is stored.\n"
                                     : "No autosave older than 31 days is stored.\n");
  return kDone;
}

int run_shell(const std::string&) { return shell(); }

/// One way to call the program: what stands before the argument, and what the argument is, if any.
struct Verb {
  std::string_view name;
  std::string_view option;
  std::string_view argument;
  std::string_view effect;
  int (*run)(const std::string& argument);
};

constexpr Verb kVerbs[] = {
    {"save", "", "NAME", "keep the configuration as it is now", save},
    {"list", "", "", "show what is kept", list},
    {"load", "", "NAME", "restore the configuration; NAME may be a pattern", load},
    {"delete", "", "NAME", "delete a kept configuration", remove},
    {"autosave", "--max", "N", "keep the configuration under a name made of the time, at most N of those",
     autosave},
    {"check-old", "", "", "tell whether an autosave is older than 31 days", check_old},
    {"shell", "", "", "the commands of the gateway's shell", run_shell},
};

void print_usage() {
  std::cerr << "usage:\n";
  for (const Verb& verb : kVerbs) {
    std::string call = "  confsave " + std::string(verb.name);
    for (const std::string_view word : {verb.option, verb.argument}) {
      if (!word.empty()) call.append(" ").append(word);
    }
    call.resize(std::max<std::size_t>(call.size(), 29), ' ');
    std::cerr << call << verb.effect << '\n';
  }
}

/// The verb's argument, or null when the call does not have the verb's form.
const std::string* argument_of(const Verb& verb, const Arguments& arguments) {
  static const std::string kNone;
  std::size_t next = 1;
  if (!verb.option.empty()) {
    if (next == arguments.size() || arguments[next] != verb.option) return nullptr;
    ++next;
  }
  if (verb.argument.empty()) return next == arguments.size() ? &kNone : nullptr;
  return next + 1 == arguments.size() ? &arguments[next] : nullptr;
}

}  // namespace

bool is_valid_name(const std::string& name) {
  constexpr std::size_t kLongest = 80;
  if (!name.empty() && name.size() <= kLongest &&
      name.find_first_not_of(ConfSave::VALID_NAME_CHARS) == std::string::npos) {
    return true;
  }
  std::cerr << "confsave: a name has 1 to 80 characters of [" << ConfSave::VALID_NAME_CHARS << "]\n";
  return false;
}

int run(const Arguments& arguments) {
  for (const Verb& verb : kVerbs) {
    if (arguments.empty() || verb.name != arguments.front()) continue;
    const std::string* argument = argument_of(verb, arguments);
    if (argument != nullptr) return verb.run(*argument);
  }
  print_usage();
  return kUsage;
}

}  // namespace console
