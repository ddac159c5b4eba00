// Lets a program see the inode numbers of a tree that was made anew.
//
// A restore writes down the inodes of files. After a power cut that is only played, the same files are in
// other inodes. Loaded by LD_PRELOAD, this library puts the old numbers into what stat and its relatives
// return. The file that FAULT_INODES names has lines "DEVICE INODE NUMBER".

#include <dlfcn.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <map>
#include <utility>

namespace {

using Numbers = std::map<std::pair<std::uint64_t, std::uint64_t>, std::uint64_t>;

Numbers read_numbers() {
  Numbers numbers;
  const char* file = std::getenv("FAULT_INODES");
  std::ifstream stream(file != nullptr ? file : "");
  std::uint64_t device = 0;
  std::uint64_t inode = 0;
  std::uint64_t number = 0;
  while (stream >> device >> inode >> number) numbers[{device, inode}] = number;
  return numbers;
}

template <class Number>
void replace(std::uint64_t device, Number& inode) {
  static const Numbers numbers = read_numbers();
  const auto found = numbers.find({device, inode});
  if (found != numbers.end()) inode = found->second;
}

template <class Function>
Function* next(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

int replaced(int result, struct stat* status) {
  if (result == 0) replace(status->st_dev, status->st_ino);
  return result;
}

}  // namespace

// Their signatures, with names that can be read.
// NOLINTBEGIN(bugprone-easily-swappable-parameters,readability-inconsistent-declaration-parameter-name)
extern "C" {

int fstat(int file, struct stat* status) noexcept {
  return replaced(next<int(int, struct stat*)>("fstat")(file, status), status);
}

int stat(const char* path, struct stat* status) noexcept {
  return replaced(next<int(const char*, struct stat*)>("stat")(path, status), status);
}

int lstat(const char* path, struct stat* status) noexcept {
  return replaced(next<int(const char*, struct stat*)>("lstat")(path, status), status);
}

int fstatat(int directory, const char* path, struct stat* status, int flags) noexcept {
  const auto function = next<int(int, const char*, struct stat*, int)>("fstatat");
  return replaced(function(directory, path, status, flags), status);
}

int statx(int directory, const char* path, int flags, unsigned mask, struct statx* status) noexcept {
  const auto function = next<int(int, const char*, int, unsigned, struct statx*)>("statx");
  const int result = function(directory, path, flags, mask, status);
  if (result == 0) replace(makedev(status->stx_dev_major, status->stx_dev_minor), status->stx_ino);
  return result;
}

}  // extern "C"
// NOLINTEND(bugprone-easily-swappable-parameters,readability-inconsistent-declaration-parameter-name)
