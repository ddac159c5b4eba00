#include "patch.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <iostream>
#include <utility>

#include "exit_status.h"
#include "text.h"

namespace console {
namespace {

/// Nobody reads the differences of larger files, and diff(1) keeps a file in memory.
constexpr std::size_t kLargest = 16U << 20U;

class Descriptor {
 public:
  explicit Descriptor(int descriptor = -1) : descriptor_(descriptor) {}
  Descriptor(Descriptor&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(descriptor_, other.descriptor_);
    return *this;
  }
  ~Descriptor() {
    if (descriptor_ != -1) close(descriptor_);
  }

  int get() const { return descriptor_; }

 private:
  int descriptor_;
};

cs::Error system_error(const std::string& path) {
  return {cs::Code::failed, errno, path, std::strerror(errno)};
}

/// The content of a file on one side, for diff(1) to read: in memory, so that nothing is left on a disk.
class Content {
 public:
  /// No file is empty.
  Content() : file_(memfd_create("confsave", 0)) {
    if (file_.get() == -1) error_ = system_error("memory");
  }

  cs::Error add(std::string_view piece) {
    size_ += piece.size();
    // Reading goes on, to no effect: a file that is too large is not an error.
    if (is_too_large()) return {};
    while (!piece.empty()) {
      const ssize_t written = write(file_.get(), piece.data(), piece.size());
      if (written < 0) return system_error("memory");
      piece.remove_prefix(static_cast<std::size_t>(written));
    }
    return {};
  }

  void read_stored(const cs::Id& id, const std::string& path) {
    if (error_.code != cs::Code::ok) return;
    error_ = cs::read_file(id, path, [this](std::string_view piece) { return add(piece); });
    // A directory or a link, which has no lines.
    if (error_.code == cs::Code::bad_argument) {
      error_ = {};
      has_lines_ = false;
    }
  }

  void read_live(const std::string& path) {
    const Descriptor live(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat status = {};
    if (live.get() == -1 && errno != ELOOP) {
      error_ = system_error(path);
      return;
    }
    has_lines_ = live.get() != -1 && fstat(live.get(), &status) == 0 && S_ISREG(status.st_mode);
    std::array<char, 64U << 10U> buffer{};
    ssize_t size = 0;
    while (has_lines_ && !is_too_large() && error_.code == cs::Code::ok &&
           (size = read(live.get(), buffer.data(), buffer.size())) > 0) {
      error_ = add({buffer.data(), static_cast<std::size_t>(size)});
    }
    if (size < 0) error_ = system_error(path);
  }

  const cs::Error& error() const { return error_; }
  bool has_lines() const { return has_lines_; }
  bool is_too_large() const { return size_ > kLargest; }
  std::string name() const { return "/dev/fd/" + std::to_string(file_.get()); }

 private:
  Descriptor file_;
  std::size_t size_ = 0;
  bool has_lines_ = true;
  cs::Error error_;
};

/// Passes on what diff(1) prints. A terminal must not obey what is in a file.
bool pass_on(int from) {
  const bool terminal = isatty(STDOUT_FILENO) == 1;
  std::array<char, 64U << 10U> buffer{};
  ssize_t size = 0;
  std::string line;
  while ((size = read(from, buffer.data(), buffer.size())) > 0) {
    const std::string piece(buffer.data(), static_cast<std::size_t>(size));
    if (!terminal) {
      std::cout << piece;
      continue;
    }
    for (const char letter : piece) {
      if (letter == '\n') {
        std::cout << readable(line) << '\n';
        line.clear();
      } else if (letter == '\t') {
        std::cout << readable(line) << '\t';
        line.clear();
      } else {
        line += letter;
      }
    }
  }
  std::cout << readable(line);
  return size == 0;
}

int print_no_diff(int number) {
  std::cout.flush();
  std::cerr << "confsave: diff cannot be run: " << std::strerror(number)
            << ". Install it (Debian: diffutils), or leave out --patch.\n";
  return kFailed;
}

int run_diff(const std::array<std::string, 2>& files, const std::array<std::string, 2>& labels) {
  std::array<int, 2> pipe_ends{};
  if (pipe2(pipe_ends.data(), O_CLOEXEC) != 0) return print_no_diff(errno);
  const Descriptor reading(pipe_ends[0]);
  Descriptor writing(pipe_ends[1]);
  std::array<std::string, 8> words = {"diff",    "-u",      "--label", labels[0],
                                      "--label", labels[1], files[0],  files[1]};
  std::array<char*, words.size() + 1> arguments{};
  std::transform(words.begin(), words.end(), arguments.begin(),
                 [](std::string& word) { return word.data(); });
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, writing.get(), STDOUT_FILENO);
  pid_t child = 0;
  const int number = posix_spawnp(&child, "diff", &actions, nullptr, arguments.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (number != 0) return print_no_diff(number);
  writing = Descriptor();
  const bool passed = pass_on(reading.get());
  int status = 0;
  while (waitpid(child, &status, 0) == -1 && errno == EINTR) {
  }
  if (passed && WIFEXITED(status) && WEXITSTATUS(status) <= 1) return kDone;
  std::cout.flush();
  std::cerr << "confsave: diff failed. Leave out --patch to see which files differ.\n";
  return kFailed;
}

int print_patch(const Sides& sides, const cs::Difference& difference) {
  Content older;
  Content newer;
  if (difference.change != cs::Change::added) older.read_stored(id_of(sides.older), difference.path);
  if (difference.change != cs::Change::removed && sides.newer) {
    newer.read_stored(id_of(*sides.newer), difference.path);
  } else if (difference.change != cs::Change::removed) {
    newer.read_live(difference.path);
  }
  for (const Content* content : {&older, &newer}) {
    if (content->error().code != cs::Code::ok) return report(content->error());
  }
  if (!older.has_lines() || !newer.has_lines()) return kDone;
  const std::string path = readable(difference.path);
  if (older.is_too_large() || newer.is_too_large()) {
    std::cout << "Large files " << path << " differ\n";
    return kDone;
  }
  const auto label_of = [&path](const cs::Snapshot& snapshot) { return path + "\t" + label(snapshot); };
  return run_diff({difference.change == cs::Change::added ? "/dev/null" : older.name(),
                   difference.change == cs::Change::removed ? "/dev/null" : newer.name()},
                  {label_of(sides.older), sides.newer ? label_of(*sides.newer) : path + "\tlive"});
}

}  // namespace

int print_patches(const Sides& sides, const cs::Differences& differences) {
  for (const cs::Difference& difference : differences) {
    if (difference.change == cs::Change::modified && !difference.content) continue;
    if (difference.secret) {
      std::cout << "Key file " << readable(difference.path) << " differs\n";
    } else if (const int status = print_patch(sides, difference); status != kDone) {
      return status;
    }
  }
  return kDone;
}

}  // namespace console
