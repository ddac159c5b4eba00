// Damaged archives are read and verified: gzip data, and tar data that is packed after it was damaged, so
// that the damage gets past the checksum of gzip. In one mode the checksums of the tar headers are right
// too.

#include "snapshots/archive_reader.h"

#include "archives.h"
#include "confsave/snapshots.h"
#include "pieces.h"

namespace {

using namespace ConfSave::snapshots;

void repair_checksums(std::string& tar) {
  for (std::size_t block = 0; block + 512 <= tar.size(); block += 512) {
    if (tar.compare(block + 257, 5, "ustar") != 0) continue;
    tar.replace(block + 148, 8, 8, ' ');
    unsigned sum = 0;
    for (std::size_t i = 0; i < 512; ++i) sum += static_cast<unsigned char>(tar[block + i]);
    char text[8];
    std::snprintf(text, sizeof text, "%06o", sum & 0777777U);
    tar.replace(block + 148, 7, text, 7);
  }
}

std::string make_archive(fuzz::Pieces& pieces) {
  static const std::string kWhole[] = {fuzz::tar(archive_write_set_format_pax),
                                       fuzz::tar(archive_write_set_format_gnutar)};
  static const std::string kPacked = fuzz::gzip(kWhole[0]) + fuzz::gzip(kWhole[1]);
  const unsigned mode = pieces.byte();
  if (mode % 4 == 0) return fuzz::damaged(kPacked, pieces);
  std::string tar = fuzz::damaged(kWhole[mode / 4 % 2], pieces);
  if (mode % 4 != 1) repair_checksums(tar);
  return fuzz::gzip(tar);
}

/// Gives the bytes in pieces of a few.
class SlowSource : public Source {
 public:
  SlowSource(std::string_view bytes, std::size_t size) : bytes_(bytes), size_(size) {}

  Result<std::string_view> next() override {
    const std::string_view piece = bytes_.substr(0, size_);
    bytes_.remove_prefix(piece.size());
    return piece;
  }

 private:
  std::string_view bytes_;
  std::size_t size_;
};

struct Found {
  std::string entries;
  bool whole = false;
};

Found read(Source& source) {
  Found found;
  std::size_t size = 0;
  ConfSave::int64 expected = 0;
  const EntryHandler handler = {[&](const Entry& entry) {
                                  fuzz::demand(!entry.path.empty() && entry.path.front() != '/');
                                  fuzz::demand(("/" + entry.path + "/").find("/../") == std::string::npos);
                                  found.entries += entry.path + '\n' + entry.target + '\n';
                                  expected = entry.size;
                                  size = 0;
                                  return Error{};
                                },
                                [&](std::string_view piece) {
                                  size += piece.size();
                                  return Error{};
                                },
                                [&] {
                                  fuzz::demand(static_cast<ConfSave::int64>(size) == expected);
                                  return Error{};
                                }};
  const Error error = read_archive(source, {}, handler);
  fuzz::demand(error.code == Code::ok || error.code == Code::damaged || error.code == Code::unsafe);
  found.whole = error.code == Code::ok;
  return found;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const bool prepared = [] {
    fuzz::make_live_configuration();
    fuzz::make_storage();
    return true;
  }();
  fuzz::demand(prepared);
  fuzz::Pieces pieces(data, size);
  const std::string archive = make_archive(pieces);
  MemorySource at_once(archive);
  SlowSource slowly(archive, 1 + size % 7);
  const Found one = read(at_once);
  const Found other = read(slowly);
  // How much comes before the damage depends on the pieces.
  fuzz::demand(one.whole == other.whole && (!one.whole || one.entries == other.entries));

  fuzz::Writer(fuzz::database()).run("update Config set keybase = ? where id = 1", archive);
  const auto verdict = verify({"weekly"});
  fuzz::demand(static_cast<bool>(verdict));
  const bool damaged =
      verdict->state == Verdict::State::damaged || verdict->state == Verdict::State::unsafe;
  fuzz::demand(damaged != static_cast<bool>(members({"weekly"})));
  fuzz::demand(damaged != static_cast<bool>(compare({"weekly"}, Live{})));
  return 0;
}
