#include "snapshots/boot.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>

#include "snapshots/descriptor.h"
#include "snapshots/system_error.h"

namespace ConfSave::snapshots {
namespace {

constexpr const char* kBootFile = "/proc/sys/kernel/random/boot_id";

}  // namespace

int64 since_boot() {
  timespec time = {};
  clock_gettime(CLOCK_BOOTTIME, &time);
  return int64{time.tv_sec} * 1000 + time.tv_nsec / 1'000'000;
}

Result<std::string> boot_identity() {
  const Descriptor file(open(kBootFile, O_RDONLY | O_CLOEXEC));
  char text[64];
  const ssize_t size = file ? read(file.get(), text, sizeof text) : -1;
  if (size < 0) return system_error(kBootFile);
  const std::string whole(text, static_cast<std::size_t>(size));
  const std::string line = whole.substr(0, whole.find('\n'));
  if (line.empty()) return Error{Code::failed, 0, kBootFile, "the file is empty"};
  return line;
}

Result<Window> open_window(std::chrono::seconds length) {
  Result<std::string> boot = boot_identity();
  if (!boot) return boot.error();
  return Window{std::move(*boot), since_boot() + std::chrono::milliseconds(length).count()};
}

Result<int64> left_of(const Window& window) {
  const Result<std::string> boot = boot_identity();
  if (!boot) return boot.error();
  return *boot == window.boot ? std::max<int64>(window.deadline - since_boot(), 0) : 0;
}

int64 end_of(const Window& window) {
  const Result<int64> left = left_of(window);
  timespec now = {};
  clock_gettime(CLOCK_REALTIME, &now);
  // To the nearest second, so that who asks twice sees the same.
  const int64 milliseconds = int64{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000 + (left ? *left : 0);
  return (milliseconds + 500) / 1000;
}

bool is_of_another_boot(const Window& window) {
  const Result<std::string> boot = boot_identity();
  return boot && *boot != window.boot;
}

}  // namespace ConfSave::snapshots
