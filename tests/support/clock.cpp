// A library for LD_PRELOAD: the time of day is CLOCK_SHIFT seconds later. Other clocks are right.

#include <dlfcn.h>
#include <sys/time.h>

#include <cstdlib>
#include <ctime>

namespace {

std::time_t shift() {
  const char* text = std::getenv("CLOCK_SHIFT");
  return text != nullptr ? std::strtol(text, nullptr, 10) : 0;
}

}  // namespace

// Their signatures, with names that can be read.
// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name)
extern "C" {

int clock_gettime(clockid_t clock, timespec* result) noexcept {
  static const auto real =
      reinterpret_cast<int (*)(clockid_t, timespec*)>(dlsym(RTLD_NEXT, "clock_gettime"));
  const int status = real(clock, result);
  const bool is_shifted = clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE;
  if (status == 0 && is_shifted) result->tv_sec += shift();
  return status;
}

int gettimeofday(timeval* result, void* zone) noexcept {
  static const auto real = reinterpret_cast<int (*)(timeval*, void*)>(dlsym(RTLD_NEXT, "gettimeofday"));
  const int status = real(result, zone);
  if (status == 0) result->tv_sec += shift();
  return status;
}

std::time_t time(std::time_t* result) noexcept {
  timespec now = {};
  clock_gettime(CLOCK_REALTIME, &now);
  if (result != nullptr) *result = now.tv_sec;
  return now.tv_sec;
}

}  // extern "C"
// NOLINTEND(readability-inconsistent-declaration-parameter-name)
