#include "kelmor/log.h"

#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <new>
#include <string>
#include <utility>

namespace {

constexpr int kDefaultLevel = 1;
constexpr const char* kDefaultFile = "/var/log/kelmor.log";

struct Record {
  std::string head;
  std::string text;
};

/// The record under construction: a thread writes one at a time. From its beginning to its end only, so
/// that destructors that run when a thread or the process ends can log.
thread_local Record* record = nullptr;

/// A log record must not throw into the library. If memory runs out, the record is truncated, or is none.
template <class Piece>
void append(const Piece& piece) noexcept {
  if (record == nullptr) return;
  try {
    record->text += piece;
  } catch (const std::exception&) {
  }
}

void begin(int level, const ClUnilogFname& function, const char* source, int line) noexcept {
  delete std::exchange(record, new (std::nothrow) Record);
  if (record == nullptr) return;
  try {
    record->head = "level=" + std::to_string(level) + " source=" + source + ":" + std::to_string(line) +
                   " function=\"" + function.Signature() + "\" name=" + function.Name() + " ";
  } catch (const std::exception&) {
  }
}

void text(const char* piece) noexcept {
  if (piece != nullptr) append(piece);
}

/// An integer of any other width cannot be read, and is shown as "?".
void integer(const void* value, unsigned width) noexcept {
  std::int64_t number = 0;
  switch (width) {
    case 1: {
      std::int8_t narrow = 0;
      std::memcpy(&narrow, value, sizeof narrow);
      number = narrow;
      break;
    }
    case 2: {
      std::int16_t narrow = 0;
      std::memcpy(&narrow, value, sizeof narrow);
      number = narrow;
      break;
    }
    case 4: {
      std::int32_t narrow = 0;
      std::memcpy(&narrow, value, sizeof narrow);
      number = narrow;
      break;
    }
    case 8:
      std::memcpy(&number, value, sizeof number);
      break;
    default:
      append("?");
      return;
  }
  if (record == nullptr) return;
  try {
    record->text += std::to_string(number);
  } catch (const std::exception&) {
  }
}

/// A record is one line. Drops a final line feed, and shows every other control character as \xNN.
std::string one_line(const std::string& text) {
  static constexpr char kHex[] = "0123456789abcdef";
  const std::size_t length = !text.empty() && text.back() == '\n' ? text.size() - 1 : text.size();
  std::string line;
  for (std::size_t i = 0; i < length; ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    if (byte < 0x20 || byte == 0x7f) {
      line += {'\\', 'x', kHex[byte >> 4U], kHex[byte & 0xfU]};
    } else {
      line += text[i];
    }
  }
  return line;
}

/// Appends the record with a single write, so that records of several processes do not mix.
void end() noexcept {
  const std::unique_ptr<Record> ended(std::exchange(record, nullptr));
  if (ended == nullptr) return;
  try {
    const std::string line = ended->head + "text=" + one_line(ended->text) + "\n";
    const char* file = secure_getenv("KELMOR_LOG_FILE");
    if (file == nullptr || *file == '\0') file = kDefaultFile;
    const int fd = open(file, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY, 0600);
    if (fd == -1) return;
    // Failure is ignored: a log that cannot be written must not stop a restore.
    [[maybe_unused]] const ssize_t written = write(fd, line.data(), line.size());
    close(fd);
  } catch (const std::exception&) {
  }
}

int wanted_level() {
  const char* value = secure_getenv("KELMOR_LOG_LEVEL");
  if (value == nullptr || value[0] < '0' || value[0] > '4' || value[1] != '\0') return kDefaultLevel;
  return value[0] - '0';
}

}  // namespace

const KorvLogProps* KorvLog_GetProps_cl_module(int) {
  // Another thread may ask meanwhile, of another level.
  thread_local KorvLogProps props = {kDefaultLevel, begin, text, text, integer, end};
  props.level = wanted_level();
  return &props;
}

void slput(int priority, const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  vsyslog(priority, format, arguments);
  va_end(arguments);
}
