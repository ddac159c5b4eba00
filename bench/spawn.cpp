// Starts `true` by my_system, by system(3) and by fork, turn about, in a host that holds some memory.
//
//   spawn [MEBIBYTES] [ROUNDS]
//
// Prints the median of each and its ratio to system(3).

#include <kelmor/system.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace {

constexpr const char* kCommand = "true";

int by_fork() {
  const pid_t child = fork();
  if (child == 0) {
    execl("/bin/sh", "sh", "-c", kCommand, nullptr);
    _exit(127);
  }
  int status = -1;
  waitpid(child, &status, 0);
  return status;
}

struct Way {
  const char* name;
  int (*run)();
  std::vector<double> microseconds;
};

double time_of(int (*run)()) {
  const auto start = std::chrono::steady_clock::now();
  if (run() != 0) {
    static_cast<void>(std::fputs("a command failed\n", stderr));
    std::exit(1);
  }
  return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count();
}

double median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

std::size_t argument(int count, char** arguments, int index, std::size_t otherwise) {
  return count > index ? std::strtoul(arguments[index], nullptr, 10) : otherwise;
}

}  // namespace

int main(int count, char** arguments) {
  const std::size_t mebibytes = argument(count, arguments, 1, 1024);
  const std::size_t rounds = std::max<std::size_t>(argument(count, arguments, 2, 200), 1);

  // Written to, so that each page is there.
  const std::vector<char> resident(mebibytes << 20U, 'x');
  Way ways[] = {{"system(3)", [] { return std::system(kCommand); }, {}},
                {"my_system", [] { return my_system("%s", kCommand); }, {}},
                {"fork", by_fork, {}}};
  for (std::size_t round = 0; round < rounds; ++round) {
    for (Way& way : ways) way.microseconds.push_back(time_of(way.run));
  }

  const double reference = median(ways[0].microseconds);
  std::printf("host of %zu MiB, %zu rounds, medians\n", mebibytes, rounds);
  for (const Way& way : ways) {
    const double time = median(way.microseconds);
    std::printf("%-10s %8.0f us   %5.2f of system(3)\n", way.name, time, time / reference);
  }
}
