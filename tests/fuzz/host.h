#pragma once

// Shared by the fuzz targets: a gateway of their own, and a command runner that runs nothing.

#include <confsave.h>
#include <kelmor/log.h>
#include <kelmor/system.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>

inline int my_system(const char*, ...) { return 1; }

namespace fuzz {

inline std::string make_gateway() {
  // The sandbox's own file system, in memory.
  char name[] = "/mnt/confsave-fuzz-XXXXXX";
  std::string root = mkdtemp(name);
  for (const char* directory : {"/config/user", "/state", "/temp"}) {
    std::filesystem::create_directories(root + directory);
  }
  setenv("KELMOR_CONFIG_PATH", (root + "/config").c_str(), 1);
  setenv("KELMOR_DYNAMIC_DIR", (root + "/state").c_str(), 1);
  setenv("KELMOR_TEMP_DIR", (root + "/temp").c_str(), 1);
  setenv("KELMOR_LOG_LEVEL", "0", 1);
  std::atexit([] { std::filesystem::remove_all(std::getenv("CONFSAVE_FUZZ_ROOT")); });
  setenv("CONFSAVE_FUZZ_ROOT", root.c_str(), 1);
  std::cout.setstate(std::ios::badbit);
  std::cerr.setstate(std::ios::badbit);
  return root;
}

/// The gateway of this process.
inline const std::string& root() {
  static const std::string path = make_gateway();
  return path;
}

inline void write(const std::string& file, const std::string& bytes) {
  std::ofstream(file, std::ios::binary | std::ios::trunc) << bytes;
}

inline std::string read(const std::string& file) {
  std::ifstream stream(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), {}};
}

inline std::string database() { return root() + "/state/storage.db"; }

/// Runs `call`, which may throw any documented exception, and no other.
template <class Call>
void expect_stated_end(Call call) {
  try {
    call();
  } catch (const XTOOStatus&) {
    // A documented exception.
  }
}

}  // namespace fuzz
