#include "process.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <csignal>

namespace console {

void prepare_process() {
  // Otherwise the next file that is opened gets the closed descriptor, and an error message ends up in
  // that file.
  for (int descriptor = 0; descriptor <= 2; ++descriptor) {
    if (fcntl(descriptor, F_GETFD) == -1 && errno == EBADF) open("/dev/null", O_RDWR);
  }

  umask(S_IRWXG | S_IRWXO);

  static_cast<void>(std::signal(SIGCHLD, SIG_DFL));
  sigset_t child;
  sigemptyset(&child);
  sigaddset(&child, SIGCHLD);
  sigprocmask(SIG_UNBLOCK, &child, nullptr);
}

}  // namespace console
