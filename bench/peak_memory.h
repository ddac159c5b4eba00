#pragma once

#include <fstream>
#include <string>

/// In KiB. Not getrusage's, which a process has from the one that started it.
inline long peak_memory() {
  std::ifstream status("/proc/self/status");
  for (std::string word; status >> word;) {
    if (word != "VmHWM:") continue;
    long value = 0;
    status >> value;
    return value;
  }
  return 0;
}
