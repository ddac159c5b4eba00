#pragma once

#include <isa-l/igzip_lib.h>

#include <array>
#include <memory>
#include <string_view>

#include "snapshots/limits.h"
#include "snapshots/source.h"

namespace ConfSave::snapshots {

/// Unpacks gzip: one member, or several in a row, and zeros behind them. Code::damaged is what gzip warns
/// of or refuses: an end in the middle, a wrong checksum or length, anything else behind the last member.
/// Too many bytes for the packed ones are Code::unsafe. Errors have no path.
class Gunzip : public Source {
 public:
  /// `packed` must outlive this object.
  Gunzip(Source& packed, const Limits& limits);

  Result<std::string_view> next() override;

  /// Code::unsafe when so many bytes come out of what was read so far.
  Error check_size(int64 unpacked) const;

 private:
  using Buffer = std::array<char, 256 << 10>;

  enum class Position { before_member, in_header, in_data, after_member, in_padding, at_end };

  /// Makes sure that there is input, unless the source has ended.
  Error refill();
  void enter_header();
  Error read_header(bool has_input);
  Error skip_zeros();
  /// Unpacks into the buffer; `size` is how much.
  Error inflate(std::size_t& size);

  Source& packed_;
  Limits limits_;
  std::unique_ptr<inflate_state> state_;
  isal_gzip_header header_ = {};
  std::unique_ptr<Buffer> buffer_;
  Position position_ = Position::before_member;
  bool is_first_ = true;
  bool source_ended_ = false;
  int64 packed_size_ = 0;
  int64 unpacked_size_ = 0;
};

}  // namespace ConfSave::snapshots
