// A gateway's shell: the four functions of class App, which ask and print for themselves. They save and
// restore snapshots that have no version.
//
//   gateway-shell

#include <confsave.h>
#include <fcntl.h>
#include <kelmor/paths.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <streambuf>
#include <string>

namespace {

using ConfSave::App;

/// What a name may have, and the phrase that a load demands.
const std::string kAnswerChars = ConfSave::VALID_NAME_CHARS + ", ";

/// While it lives, the library's questions end in an exception when the input ends, and at an answer that
/// must not become part of a statement: App::load() would restore without an answer, and checks no name.
class Answers : public std::streambuf {
 public:
  Answers() : below_(std::cin.rdbuf(this)) { std::cin.exceptions(std::ios::badbit); }
  Answers(const Answers&) = delete;
  Answers& operator=(const Answers&) = delete;
  ~Answers() override {
    std::cin.exceptions(std::ios::goodbit);
    std::cin.clear();
    std::cin.rdbuf(below_);
  }

 protected:
  int_type underflow() override {
    std::istream input(below_);
    if (!std::getline(input, line_)) throw std::runtime_error("no answer");
    if (line_.find_first_not_of(kAnswerChars) != std::string::npos) throw std::runtime_error("no name");
    line_ += '\n';
    setg(line_.data(), line_.data(), line_.data() + line_.size());
    return traits_type::to_int_type(line_.front());
  }

 private:
  std::streambuf* below_;
  std::string line_;
};

void report(const std::string& text) { std::cerr << "gateway-shell: " << text << ".\n"; }

/// Each App function opens the storage anew, and does not notice when it cannot.
bool has_storage() {
  if (ConfSave::Storage().opened) return true;
  report("the storage cannot be opened");
  return false;
}

std::optional<ConfSave::Config> find(const std::string& name) {
  ConfSave::Storage storage;
  for (const ConfSave::Config& config : storage.FindMatching(name, 0, false)) {
    if (config.vers == 0) return config;
  }
  return std::nullopt;
}

/// The library does not sync the files that it restores: after a power cut they could be empty.
void sync(const std::string& directory) {
  const int fd = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd == -1 || syncfs(fd) != 0) report("'" + directory + "' cannot be synced");
  if (fd != -1) close(fd);
}

void list(const std::string&) { App::lst(); }

void save(const std::string& name) {
  const Answers answers;
  // App::save() returns true even if SQLite refused the row.
  if (App::save(name, ConfSave::conf_full) && !find(name)) report("'" + name + "' was not stored");
}

void remove(const std::string& name) {
  if (!find(name)) return report("nothing is stored as '" + name + "' without a version");
  App::del(name);
  if (find(name)) report("'" + name + "' was not deleted");
}

void load(const std::string& name) {
  if (!find(name)) return report("nothing is stored as '" + name + "' without a version");
  const Answers answers;
  App::load(name);
  sync(toolsunix::FilenameConvertor::Instance().GetKelmorConfigPath());
  sync("/mnt/main/etc/");
}

void help(const std::string&);

struct Verb {
  const char* name;
  const char* operand;
  const char* effect;
  void (*run)(const std::string& name);
};

constexpr Verb kVerbs[] = {
    {"list", "", "list the snapshots", list},
    {"save", "NAME", "store the configuration as it is now", save},
    {"delete", "NAME", "delete a snapshot", remove},
    {"load", "NAME", "restore a snapshot", load},
    {"help", "", "print this list", help},
    {"exit", "", "leave the shell", nullptr},
};

void help(const std::string&) {
  for (const Verb& verb : kVerbs) {
    std::string call = std::string(verb.name) + " " + verb.operand;
    call.resize(13, ' ');
    std::cout << call << verb.effect << '\n';
  }
}

/// False after the verb that leaves the shell.
bool follow(const std::string& line) {
  std::istringstream words(line);
  std::string first;
  std::string name;
  std::string more;
  words >> first >> name >> more;
  if (first.empty()) return true;
  const Verb* verb = std::find_if(std::begin(kVerbs), std::end(kVerbs),
                                  [&](const Verb& one) { return one.name == first; });
  const bool is_call =
      verb != std::end(kVerbs) && name.empty() == (verb->operand[0] == '\0') && more.empty();
  if (!is_call) {
    report("this is no verb with its operand; type help");
  } else if (verb->run == nullptr) {
    return false;
  } else if (name.find_first_not_of(ConfSave::VALID_NAME_CHARS) != std::string::npos) {
    report("a name has letters, digits, '-' and '_'");
  } else if (verb->run == help || has_storage()) {
    verb->run(name);
  }
  return true;
}

}  // namespace

int main() try {
  const bool at_terminal = isatty(STDIN_FILENO) == 1;
  for (std::string line;;) {
    if (at_terminal) std::cout << "gateway> " << std::flush;
    if (!std::getline(std::cin, line)) break;
    if (!follow(line)) return 0;
    std::cout.flush();
    // The end of input that is typed at a question ends that question only.
    std::clearerr(stdin);
  }
  if (at_terminal) std::cout << '\n';
  return 0;
} catch (const XTOOStatus& error) {
  std::cerr << "status " << error.Status() << ": " << error.ErrorMessage() << '\n';
  return 1;
}
