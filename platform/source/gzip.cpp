// The command runner puts this `gzip` first on a command's path. It runs the program that KELMOR_GZIP
// names. The default is igzip, which writes the same format several times faster, or the system's gzip.
//
// igzip ignores a failure of its last write: on a full disk a truncated archive would count as complete.
// This program therefore writes igzip's output itself, and checks every write.

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr int kFailed = 1;
constexpr int kCannotRun = 127;

constexpr const char* kFast = "/usr/bin/igzip";
constexpr const char* kPlain[] = {"/usr/bin/gzip", "/bin/gzip"};

const char* chosen_program() {
  const char* chosen = secure_getenv("KELMOR_GZIP");
  if (chosen != nullptr && *chosen != '\0') return chosen;
  return access(kFast, X_OK) == 0 ? kFast : kPlain[0];
}

/// The system's gzip checks its own writes.
bool is_plain(const char* program) {
  return std::strcmp(program, kPlain[0]) == 0 || std::strcmp(program, kPlain[1]) == 0;
}

int become(const char* program, char** arguments) {
  execv(program, arguments);
  std::perror(program);
  return kCannotRun;
}

bool write_all(const char* bytes, std::size_t length) {
  while (length > 0) {
    const ssize_t written = write(STDOUT_FILENO, bytes, length);
    if (written == -1 && errno == EINTR) continue;
    if (written <= 0) return false;
    bytes += written;
    length -= static_cast<std::size_t>(written);
  }
  return true;
}

/// Copies `source` to standard output. Returns false if a read or a write fails.
bool hand_on(int source) {
  static char buffer[1 << 16];
  for (;;) {
    const ssize_t length = read(source, buffer, sizeof buffer);
    if (length == -1 && errno == EINTR) continue;
    if (length == -1) return false;
    if (length == 0) return close(STDOUT_FILENO) == 0;
    if (!write_all(buffer, static_cast<std::size_t>(length))) return false;
  }
}

int pack(const char* program, char** arguments) {
  int ends[2];
  if (pipe(ends) != 0) return kFailed;
  const pid_t child = fork();
  if (child == -1) return kFailed;
  if (child == 0) {
    dup2(ends[1], STDOUT_FILENO);
    close(ends[0]);
    close(ends[1]);
    _exit(become(program, arguments));
  }
  close(ends[1]);
  const bool written = hand_on(ends[0]);
  if (!written) std::perror("gzip: write");
  close(ends[0]);
  int status = 0;
  if (waitpid(child, &status, 0) != child || !WIFEXITED(status)) return kFailed;
  if (WEXITSTATUS(status) != 0) return WEXITSTATUS(status);
  return written ? 0 : kFailed;
}

bool unpacks(char** arguments) {
  for (char** argument = arguments + 1; *argument != nullptr; ++argument) {
    if (std::strcmp(*argument, "-d") == 0) return true;
  }
  return false;
}

}  // namespace

int main(int, char** arguments) {
  const char* program = chosen_program();
  return is_plain(program) || unpacks(arguments) ? become(program, arguments) : pack(program, arguments);
}
