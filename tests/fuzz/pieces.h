#pragma once

// What the fuzz targets make of their input.

#include <algorithm>
#include <cstdint>
#include <string>

namespace fuzz {

/// Returns the input piece by piece.
class Pieces {
 public:
  Pieces(const std::uint8_t* data, std::size_t size) : data_(data), left_(size) {}

  bool is_empty() const { return left_ == 0; }

  std::uint8_t byte() {
    if (left_ == 0) return 0;
    --left_;
    return *data_++;
  }

  std::string text() {
    const std::size_t length = std::min<std::size_t>(byte(), left_);
    std::string result(reinterpret_cast<const char*>(data_), length);
    data_ += length;
    left_ -= length;
    return result;
  }

  /// A position below `end`, which is not 0.
  std::size_t position(std::size_t end) {
    const std::size_t high = byte();
    return (high << 8U | byte()) * end >> 16U;
  }

 private:
  const std::uint8_t* data_;
  std::size_t left_;
};

/// `file` with the damage that the rest of the input says: four to six bytes for each strike. So a short
/// input reaches deep into a file, and an empty one leaves it whole.
inline std::string damaged(std::string file, Pieces& pieces) {
  while (!pieces.is_empty() && !file.empty()) {
    const std::uint8_t strike = pieces.byte();
    const std::size_t at = pieces.position(file.size());
    const std::uint8_t value = pieces.byte();
    switch (strike % 8) {
      case 0:
        file[at] = static_cast<char>(static_cast<unsigned char>(file[at]) ^ 1U << value % 8U);
        break;
      case 1:
        file.resize(at);
        break;
      case 2:
        file.insert(at, value, static_cast<char>(pieces.byte()));
        break;
      case 3:
        file.erase(at, value);
        break;
      case 4: {
        const std::string block(file, at, std::size_t{value} * 2);
        file.replace(pieces.position(file.size()), block.size(), block);
        break;
      }
      default:
        file[at] = static_cast<char>(value);
    }
  }
  return file;
}

}  // namespace fuzz
