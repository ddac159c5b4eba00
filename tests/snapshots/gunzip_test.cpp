#include "snapshots/gunzip.h"

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <cstdint>

#include <ostream>

#include "support/gateway.h"

namespace {

using namespace test;
using namespace ConfSave::snapshots;

/// A source that hands its bytes out in pieces of one size.
class Pieces : public Source {
 public:
  Pieces(std::string bytes, std::size_t size) : bytes_(std::move(bytes)), size_(size) {}

  Result<std::string_view> next() override {
    const std::string_view piece = std::string_view(bytes_).substr(offset_, size_);
    offset_ += piece.size();
    return piece;
  }

 private:
  std::string bytes_;
  std::size_t size_;
  std::size_t offset_ = 0;
};

struct Unpacked {
  std::string bytes;
  Error error;
};

Unpacked unpack(const std::string& packed, std::size_t piece = 4096, const Limits& limits = {}) {
  Pieces source(packed, piece);
  Gunzip gunzip(source, limits);
  Unpacked result;
  for (;;) {
    const auto next = gunzip.next();
    if (!next) {
      result.error = next.error();
      return result;
    }
    if (next->empty()) return result;
    result.bytes += *next;
  }
}

class GunzipTest : public Gateway {
 protected:
  std::string gzip(const std::string& content, const std::string& options = "") {
    write_file(root() + "/plain", content);
    EXPECT_EQ(shell("cd " + root() + " && gzip -c " + options + " plain > packed"), 0);
    return read_file(root() + "/packed");
  }

  /// Whether the gzip of the commands takes it.
  bool gzip_accepts(const std::string& packed) {
    write_file(root() + "/tried.gz", packed);
    const int status = shell("gzip -dc " + root() + "/tried.gz >" + root() + "/unpacked 2>/dev/null");
    return status == 0;
  }

  std::string text_of(std::size_t size) {
    std::string text;
    for (unsigned number = 1; text.size() < size; number = number * 1103515245 + 12345) {
      text += std::to_string(number % 100000) + (number % 7 == 0 ? "\n" : " ");
    }
    return text;
  }
};

TEST_F(GunzipTest, UnpacksWhatGzipPacked) {
  for (const std::size_t size : {0U, 1U, 511U, 70000U, 3000000U}) {
    const std::string content = text_of(size);
    const Unpacked unpacked = unpack(gzip(content));
    EXPECT_EQ(unpacked.error.text, "") << size;
    EXPECT_TRUE(unpacked.bytes == content) << size;
  }
}

TEST_F(GunzipTest, PiecesOfAnySizeGiveTheSame) {
  const std::string content = text_of(5000);
  const std::string packed = gzip(content) + gzip("second") + std::string(700, '\0');
  for (std::size_t piece = 1; piece < 80; ++piece) {
    const Unpacked unpacked = unpack(packed, piece);
    EXPECT_EQ(unpacked.error.text, "") << piece;
    EXPECT_TRUE(unpacked.bytes == content + "second") << piece;
  }
}

TEST_F(GunzipTest, AgreesWithGzipOnWhatIsWhole) {
  const std::string packed = gzip("content");
  std::string wrong_checksum = packed;
  wrong_checksum[packed.size() - 8] = static_cast<char>(wrong_checksum[packed.size() - 8] ^ 1);
  std::string wrong_length = packed;
  wrong_length[packed.size() - 1] = static_cast<char>(wrong_length[packed.size() - 1] ^ 1);
  const struct {
    const char* what;
    std::string bytes;
    const char* text;
  } cases[] = {
      {"whole", packed, ""},
      {"with a name in its header", gzip("content", "-N"), ""},
      {"two members", packed + packed, ""},
      {"zeros behind", packed + std::string(2000, '\0'), ""},
      {"nothing", "", "the archive is empty"},
      {"garbage behind", packed + "garbage", "garbage follows the gzip data"},
      {"garbage behind zeros", packed + std::string(3, '\0') + "x", "garbage follows the gzip data"},
      {"a member behind zeros", packed + std::string(3, '\0') + packed, "garbage follows the gzip data"},
      {"garbage behind that begins as a member does", packed + "\x1fgarbage, longer than a header",
       "garbage follows the gzip data"},
      {"half a member behind", packed + packed.substr(0, 12), "the archive ends in the middle"},
      {"wrong checksum", wrong_checksum, "the checksum of the gzip data is wrong"},
      {"wrong length", wrong_length, "the checksum of the gzip data is wrong"},
      {"no gzip", "plain text, longer than a header", "the archive does not begin as gzip data does"},
  };
  for (const auto& c : cases) {
    const Unpacked unpacked = unpack(c.bytes);
    EXPECT_EQ(unpacked.error.text, c.text) << c.what;
    EXPECT_EQ(unpacked.error.code, *c.text == '\0' ? Code::ok : Code::damaged) << c.what;
    // Of an empty file gzip says the same, with status 0 in some versions; garbage it only warns of.
    const bool has_garbage = c.text == std::string("garbage follows the gzip data");
    if (!c.bytes.empty() && !has_garbage) {
      EXPECT_EQ(gzip_accepts(c.bytes), *c.text == '\0') << c.what;
    }
  }
}

TEST_F(GunzipTest, AnEndAnywhereIsNoticed) {
  const std::string packed = gzip(text_of(3000));
  for (std::size_t size = 0; size < packed.size(); ++size) {
    EXPECT_EQ(unpack(packed.substr(0, size)).error.code, Code::damaged) << size;
  }
}

TEST_F(GunzipTest, AnyFlippedByteOfTheDataIsNoticed) {
  const std::string content = text_of(3000);
  const std::string packed = gzip(content, "-n");
  // Bits of the last byte before the checksum and the size may mean nothing.
  const std::size_t last = packed.size() - 9;
  for (std::size_t at = 10; at < packed.size(); ++at) {
    if (at == last) continue;
    std::string flipped = packed;
    flipped[at] = static_cast<char>(flipped[at] ^ 0x20);
    EXPECT_NE(unpack(flipped).error.code, Code::ok) << at;
  }
}

TEST_F(GunzipTest, MemoryComesInPiecesThatFit32Bits) {
  const std::size_t size = (std::size_t{5} << 30) + 1;
  void* pages = mmap(nullptr, size, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  // cppcheck-suppress memleak ; a failed assertion ends the test
  ASSERT_NE(pages, MAP_FAILED);
  MemorySource source({static_cast<const char*>(pages), size});
  std::size_t sum = 0;
  for (auto piece = source.next(); !piece->empty(); piece = source.next()) {
    EXPECT_LE(piece->size(), UINT32_MAX);
    sum += piece->size();
  }
  EXPECT_EQ(sum, size);
  munmap(pages, size);
}

TEST_F(GunzipTest, ABombIsRefused) {
  const std::string packed = gzip(std::string(8 << 20, 'x'));
  Limits limits;
  limits.free = 1 << 20;
  limits.ratio = 250;
  EXPECT_EQ(unpack(packed, 4096, limits).error.text, "the archive unpacks to more than 250 times its size");
  EXPECT_EQ(unpack(packed, 4096, limits).error.code, Code::unsafe);
  limits.free = 9 << 20;
  EXPECT_EQ(unpack(packed, 4096, limits).error.text, "");
  limits.unpacked = (8 << 20) - 1;
  EXPECT_EQ(unpack(packed, 4096, limits).error.text, "the archive unpacks to more than 8388607 bytes");
  limits.unpacked = 8 << 20;
  EXPECT_EQ(unpack(packed, 4096, limits).error.text, "");
}

}  // namespace
