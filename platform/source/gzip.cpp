// The command runner puts this `gzip` first on a command's path, because it packs and unpacks several times
// faster than the system's. What tar does not ask for is left to that one, and KELMOR_GZIP names another
// program.
//
// Each write is checked: an archive that a full disk cuts off does not count as complete.

#include <isa-l/igzip_lib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr int kFailed = 1;
constexpr int kCannotRun = 127;
constexpr const char* kPlain[] = {"/usr/bin/gzip", "/bin/gzip"};

/// As much as a pipe holds.
constexpr std::size_t kBuffer = 64 << 10;
/// The first byte of a member.
constexpr std::uint8_t kMagic = 0x1f;
std::uint8_t input[kBuffer];
std::uint8_t output[4 * kBuffer];

int fail(const char* why) {
  static_cast<void>(std::fprintf(stderr, "gzip: %s\n", why));
  return kFailed;
}

int fail_as_the_system_says(const char* what) {
  std::perror(what);
  return kFailed;
}

/// At the end 0, after an error -1.
ssize_t read_some(int source, std::uint8_t* bytes) {
  ssize_t length = -1;
  do {
    length = read(source, bytes, kBuffer);
  } while (length == -1 && errno == EINTR);
  return length;
}

bool write_all(const std::uint8_t* bytes, std::size_t length) {
  while (length > 0) {
    const ssize_t written = write(STDOUT_FILENO, bytes, length);
    if (written == -1 && errno == EINTR) continue;
    if (written <= 0) return false;
    bytes += written;
    length -= static_cast<std::size_t>(written);
  }
  return true;
}

// With ISA-L -------------------------------------------------------------------------------------------

int pack() {
  static std::uint8_t memory[ISAL_DEF_LVL2_DEFAULT];
  static isal_zstream stream;
  isal_deflate_init(&stream);
  stream.gzip_flag = IGZIP_GZIP;
  stream.level = 2;
  stream.level_buf = memory;
  stream.level_buf_size = sizeof memory;
  while (stream.internal_state.state != ZSTATE_END) {
    if (stream.avail_in == 0 && stream.end_of_stream == 0) {
      const ssize_t length = read_some(STDIN_FILENO, input);
      if (length == -1) return fail_as_the_system_says("gzip: standard input");
      stream.next_in = input;
      stream.avail_in = static_cast<std::uint32_t>(length);
      stream.end_of_stream = length == 0 ? 1 : 0;
    }
    stream.next_out = output;
    stream.avail_out = sizeof output;
    if (isal_deflate(&stream) != COMP_OK) return fail("the data cannot be packed");
    if (!write_all(output, sizeof output - stream.avail_out)) {
      return fail_as_the_system_says("gzip: standard output");
    }
  }
  return close(STDOUT_FILENO) == 0 ? 0 : fail_as_the_system_says("gzip: standard output");
}

/// False at the end. An error ends the process: it must not count as the end.
bool refill(inflate_state& state) {
  const ssize_t length = read_some(STDIN_FILENO, input);
  if (length == -1) std::exit(fail_as_the_system_says("gzip: standard input"));
  state.next_in = input;
  state.avail_in = static_cast<std::uint32_t>(length);
  return length > 0;
}

enum class Header { read, none, bad };

/// isal_inflate() reads headers as well, but forgets half of one when the input ends in it.
Header read_header(inflate_state& state) {
  isal_gzip_header header = {};
  isal_inflate_reset(&state);
  isal_gzip_header_init(&header);
  if (state.avail_in == 0 && !refill(state)) return Header::none;
  if (*state.next_in != kMagic) return Header::none;
  for (;;) {
    const int code = isal_read_gzip_header(&state, &header);
    if (code == ISAL_DECOMP_OK) break;
    if (code != ISAL_END_INPUT) return Header::none;
    if (!refill(state)) return Header::bad;
  }
  state.crc_flag = ISAL_GZIP_NO_HDR_VER;
  return Header::read;
}

/// One member, behind its header.
int unpack_member(inflate_state& state) {
  while (state.block_state != ISAL_BLOCK_FINISH) {
    const bool has_input = state.avail_in != 0 || refill(state);
    state.next_out = output;
    state.avail_out = sizeof output;
    const int code = isal_inflate(&state);
    if (code == ISAL_INCORRECT_CHECKSUM) return fail("standard input: the checksum is wrong");
    if (code != ISAL_DECOMP_OK) return fail("standard input: the packed data is invalid");
    const std::size_t size = sizeof output - state.avail_out;
    if (!write_all(output, size)) return fail_as_the_system_says("gzip: standard output");
    const bool has_ended = state.block_state == ISAL_BLOCK_FINISH;
    if (!has_input && size == 0 && !has_ended) return fail("standard input: the packed data is cut off");
  }
  return 0;
}

/// What follows the last member is ignored.
int unpack() {
  static inflate_state state;
  isal_inflate_init(&state);
  for (bool is_first = true;; is_first = false) {
    const Header header = read_header(state);
    if (header == Header::bad) return fail("standard input: the packed data is cut off");
    if (header == Header::none && is_first) return fail("standard input: this is no gzip data");
    if (header == Header::none) return 0;
    if (const int failed = unpack_member(state); failed != 0) return failed;
  }
}

// With another program ---------------------------------------------------------------------------------

/// The system's gzip checks its own writes.
bool is_plain(const char* program) {
  return std::strcmp(program, kPlain[0]) == 0 || std::strcmp(program, kPlain[1]) == 0;
}

int become(const char* program, char** arguments) {
  execv(program, arguments);
  std::perror(program);
  return kCannotRun;
}

/// Copies `source` to standard output. Returns false if a read or a write fails.
bool hand_on(int source) {
  for (;;) {
    const ssize_t length = read_some(source, input);
    if (length == -1) return false;
    if (length == 0) return close(STDOUT_FILENO) == 0;
    if (!write_all(input, static_cast<std::size_t>(length))) return false;
  }
}

/// igzip, for one, ignores a failure of its last write.
int pack_with(const char* program, char** arguments) {
  int ends[2];
  if (pipe(ends) != 0) return kFailed;
  const pid_t child = fork();
  if (child == -1) return kFailed;
  if (child == 0) {
    dup2(ends[1], STDOUT_FILENO);
    close(ends[0]);
    close(ends[1]);
    _exit(become(program, arguments));
  }
  close(ends[1]);
  const bool written = hand_on(ends[0]);
  if (!written) std::perror("gzip: write");
  close(ends[0]);
  int status = 0;
  if (waitpid(child, &status, 0) != child || !WIFEXITED(status)) return kFailed;
  if (WEXITSTATUS(status) != 0) return WEXITSTATUS(status);
  return written ? 0 : kFailed;
}

bool unpacks(char** arguments) {
  for (char** argument = arguments + 1; *argument != nullptr; ++argument) {
    if (std::strcmp(*argument, "-d") == 0) return true;
  }
  return false;
}

}  // namespace

int main(int count, char** arguments) {
  const char* chosen = secure_getenv("KELMOR_GZIP");
  if (chosen != nullptr && *chosen != '\0') {
    const bool checks_writes = is_plain(chosen) || unpacks(arguments);
    return checks_writes ? become(chosen, arguments) : pack_with(chosen, arguments);
  }
  if (count == 1) return pack();
  if (count == 2 && unpacks(arguments)) return unpack();
  return become(kPlain[0], arguments);
}
