// The stand-in's gzip: any bytes as packed data, and any bytes packed and unpacked again.

#include <sanitizer/common_interface_defs.h>
#include <sys/mman.h>

#include <array>
#include <cstdint>
#include <string>

#define main gzip_main
#include "../../platform/source/gzip.cpp"  // NOLINT(bugprone-suspicious-include) the target is a part of it
#undef main

namespace {

/// Without a file system.
int file_of(const std::string& bytes) {
  const int file = memfd_create("fuzz", 0);
  if (file == -1 || pwrite(file, bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size()))
    abort();
  return file;
}

std::string content_of(int file) {
  std::string bytes(static_cast<std::size_t>(lseek(file, 0, SEEK_END)), '\0');
  if (pread(file, bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) abort();
  return bytes;
}

/// The status of `work` over these bytes. What it writes replaces them.
int run(int (*work)(), std::string& bytes) {
  // The sanitizers take the number of a file as a pointer.
  // NOLINTBEGIN(performance-no-int-to-ptr)
  const int out = file_of("");
  const std::array<int, 3> files{file_of(bytes), out, file_of("")};
  std::array<int, 3> saved{};
  for (int number = 0; number < 3; ++number) {
    saved[static_cast<std::size_t>(number)] = dup(number);
    dup2(files[static_cast<std::size_t>(number)], number);
  }
  __sanitizer_set_report_fd(reinterpret_cast<void*>(static_cast<std::intptr_t>(saved[2])));
  const int status = work();
  bytes = content_of(out);
  for (int number = 0; number < 3; ++number) {
    dup2(saved[static_cast<std::size_t>(number)], number);
    close(saved[static_cast<std::size_t>(number)]);
    close(files[static_cast<std::size_t>(number)]);
  }
  __sanitizer_set_report_fd(reinterpret_cast<void*>(std::intptr_t{2}));
  // NOLINTEND(performance-no-int-to-ptr)
  return status;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string given(reinterpret_cast<const char*>(data), size);
  std::string unpacked = given;
  run(unpack, unpacked);

  // Longer than the buffers.
  std::string text;
  for (int i = 0; i < 600 && !given.empty(); ++i) text += given;
  std::string packed = text;
  if (run(pack, packed) != 0) abort();
  std::string again = packed;
  if (run(unpack, again) != 0 || again != text) abort();
  // Nothing that is cut off counts as whole.
  packed.resize(size == 0 ? 0 : packed.size() * data[0] / 256);
  if (run(unpack, packed) == 0) abort();
  return 0;
}
