#include "snapshots/gunzip.h"

#include <string>

namespace ConfSave::snapshots {
namespace {

/// The first byte of a member.
constexpr std::uint8_t kMagic = 0x1f;

constexpr const char* kGarbage = "garbage follows the gzip data";
constexpr const char* kEndsInTheMiddle = "the archive ends in the middle";

Error damaged(const char* text) { return {Code::damaged, 0, "", text}; }

Error explain(int code) {
  switch (code) {
    case ISAL_INCORRECT_CHECKSUM:
      return damaged("the checksum of the gzip data is wrong");
    case ISAL_INVALID_WRAPPER:
    case ISAL_UNSUPPORTED_METHOD:
      return damaged("the archive does not begin as gzip data does");
    default:
      return damaged("the gzip data is invalid");
  }
}

}  // namespace

Gunzip::Gunzip(Source& packed, const Limits& limits)
    // Both are large, and not to be filled with zeros.
    : packed_(packed), limits_(limits), state_(new inflate_state), buffer_(new Buffer) {
  isal_inflate_init(state_.get());
}

Error Gunzip::refill() {
  if (state_->avail_in != 0 || source_ended_) return {};
  const Result<std::string_view> piece = packed_.next();
  if (!piece) return piece.error();
  source_ended_ = piece->empty();
  packed_size_ += static_cast<int64>(piece->size());
  // ISA-L only reads through this pointer. NOLINTNEXTLINE(cppcoreguidelines-pro-type-const-cast)
  auto* bytes = const_cast<char*>(piece->data());
  state_->next_in = reinterpret_cast<std::uint8_t*>(bytes);
  state_->avail_in = static_cast<std::uint32_t>(piece->size());
  return {};
}

void Gunzip::enter_header() {
  isal_inflate_reset(state_.get());
  isal_gzip_header_init(&header_);
  position_ = Position::in_header;
}

/// isal_inflate() would read the header as well, but forgets half of one when the input ends in it.
Error Gunzip::read_header(bool has_input) {
  const int code = isal_read_gzip_header(state_.get(), &header_);
  if (code == ISAL_DECOMP_OK) {
    state_->crc_flag = ISAL_GZIP_NO_HDR_VER;
    position_ = Position::in_data;
    is_first_ = false;
    return {};
  }
  if (code != ISAL_END_INPUT && !is_first_) return damaged(kGarbage);
  if (code != ISAL_END_INPUT) return explain(code);
  return has_input ? Error{} : damaged(kEndsInTheMiddle);
}

Error Gunzip::skip_zeros() {
  for (; state_->avail_in != 0; --state_->avail_in) {
    if (*state_->next_in++ != 0) return damaged(kGarbage);
  }
  return {};
}

Error Gunzip::check_size(int64 unpacked) const {
  if (unpacked > limits_.unpacked) {
    return {Code::unsafe, 0, "",
            "the archive unpacks to more than " + std::to_string(limits_.unpacked) + " bytes"};
  }
  if (unpacked > limits_.free && unpacked / limits_.ratio > packed_size_) {
    return {Code::unsafe, 0, "",
            "the archive unpacks to more than " + std::to_string(limits_.ratio) + " times its size"};
  }
  return {};
}

Error Gunzip::inflate(std::size_t& size) {
  state_->next_out = reinterpret_cast<std::uint8_t*>(buffer_->data());
  state_->avail_out = static_cast<std::uint32_t>(buffer_->size());
  const int code = isal_inflate(state_.get());
  size = buffer_->size() - state_->avail_out;
  if (code < 0 || code == ISAL_NEED_DICT) return explain(code);
  if (state_->block_state == ISAL_BLOCK_FINISH) position_ = Position::after_member;
  unpacked_size_ += static_cast<int64>(size);
  return check_size(unpacked_size_);
}

Result<std::string_view> Gunzip::next() {
  std::size_t size = 0;
  while (size == 0 && position_ != Position::at_end) {
    if (Error error = refill(); error.code != Code::ok) return error;
    const bool has_input = state_->avail_in != 0;
    Error error;
    switch (position_) {
      case Position::before_member:
        if (!has_input) return damaged("the archive is empty");
        enter_header();
        break;
      case Position::in_header:
        error = read_header(has_input);
        break;
      case Position::in_data:
        error = inflate(size);
        if (error.code == Code::ok && size == 0 && !has_input && position_ == Position::in_data) {
          error = damaged(kEndsInTheMiddle);
        }
        break;
      case Position::after_member:
        position_ = Position::in_padding;
        if (has_input && *state_->next_in == kMagic) enter_header();
        break;
      case Position::in_padding:
        if (!has_input) position_ = Position::at_end;
        error = skip_zeros();
        break;
      case Position::at_end:
        break;
    }
    if (error.code != Code::ok) return error;
  }
  return std::string_view(buffer_->data(), size);
}

}  // namespace ConfSave::snapshots
