#include "snapshots/staged_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace ConfSave::snapshots {
namespace {

constexpr std::size_t kBlock = 4096;

bool is_hole(std::string_view block) {
  return block.size() == kBlock && block.find_first_not_of('\0') == std::string_view::npos;
}

}  // namespace

StagedFile::StagedFile(int directory, const std::string& name)
    : file_(beside_streams(
          Descriptor(openat(directory, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                            S_IRUSR | S_IWUSR)))) {}

std::size_t StagedFile::to_block_end() const { return kBlock - static_cast<std::size_t>(size_) % kBlock; }

bool StagedFile::add(std::string_view piece) {
  while (!piece.empty()) {
    const std::string_view block = piece.substr(0, to_block_end());
    const bool skips = is_hole(block);
    const std::string_view part = skips ? block : up_to_hole(piece);
    if (!skips && !write_all(part)) return false;
    size_ += static_cast<int64>(part.size());
    piece.remove_prefix(part.size());
  }
  return true;
}

/// Up to the next whole block of zeros.
std::string_view StagedFile::up_to_hole(std::string_view piece) const {
  std::size_t end = std::min(piece.size(), to_block_end());
  while (end + kBlock <= piece.size() && !is_hole(piece.substr(end, kBlock))) end += kBlock;
  return end + kBlock > piece.size() ? piece : piece.substr(0, end);
}

bool StagedFile::write_all(std::string_view bytes) {
  for (int64 offset = size_; !bytes.empty();) {
    const ssize_t written = pwrite(file_.get(), bytes.data(), bytes.size(), offset);
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return false;
    offset += written;
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

bool StagedFile::finish() { return ftruncate(file_.get(), size_) == 0; }

}  // namespace ConfSave::snapshots
