#include "process.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

namespace console {

void prepare_process() {
  // Otherwise the next file that is opened gets the closed descriptor, and an error message ends up in
  // that file.
  for (int descriptor = 0; descriptor <= 2; ++descriptor) {
    // Output that is lost must fail. A warning may be lost: tar would fail if it could not write one.
    const int flags = descriptor == STDOUT_FILENO ? O_RDONLY : O_RDWR;
    if (fcntl(descriptor, F_GETFD) == -1 && errno == EBADF) open("/dev/null", flags);
  }

  umask(S_IRWXG | S_IRWXO);

  // A write beyond the limit of a file's size then fails, and what was written so far is cleaned up.
  static_cast<void>(std::signal(SIGXFSZ, SIG_IGN));
  static_cast<void>(std::signal(SIGCHLD, SIG_DFL));
  sigset_t child;
  sigemptyset(&child);
  sigaddset(&child, SIGCHLD);
  sigprocmask(SIG_UNBLOCK, &child, nullptr);
}

}  // namespace console
