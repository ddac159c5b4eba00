// The host of the second library that is measured: performs one operation.
//
//   bench-typed save NAME | open | show NAME | diff NAME | verify NAME | decode NAME | restore NAME
//
// "decode" only unpacks both archives, and only reads the files of the live configuration. With
// BENCH_FIGURES=FILE it also writes, as JSON: the seconds of the operation, the most memory that the
// process had, in KiB, and the bytes of the members.

#include <confsave/snapshots.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include "snapshots/gunzip.h"
#include "snapshots/storage_reader.h"

namespace {

using namespace ConfSave::snapshots;
using ConfSave::int64;
using Clock = std::chrono::steady_clock;

template <class Value>
Value expect(Result<Value> result) {
  if (result) return std::move(*result);
  std::cerr << "bench-typed: " << result.error().path << ": " << result.error().text << '\n';
  std::exit(1);
}

int64 size_of(const Members& found) {
  int64 size = 0;
  for (const Member& member : found) size += member.size;
  return size;
}

void decode(const Id& id) {
  Query query;
  query.pattern = id.name;
  const Snapshot snapshot = expect(find(query));
  auto reader = expect(StorageReader::open(std::chrono::milliseconds(1000)));
  for (const char* column : {"keybase", "etc"}) {
    const auto packed = expect(BlobSource::open(reader->database(), column, snapshot.id));
    Gunzip unpacked(*packed, Limits{});
    while (!expect(unpacked.next()).empty()) {
    }
  }
  std::vector<char> buffer(128 << 10);
  const char* files = std::getenv("BENCH_FILES");
  std::ifstream names(files != nullptr ? files : "");
  for (std::string name; std::getline(names, name);) {
    std::ifstream file(name, std::ios::binary);
    file.rdbuf()->pubsetbuf(nullptr, 0);
    while (file.read(buffer.data(), static_cast<std::streamsize>(buffer.size()))) {
    }
  }
}

void perform(const std::string& verb, const Id& id) {
  SaveOptions options;
  options.overwrite = true;
  if (verb == "save") expect(save(id, options));
  if (verb == "open") expect(list());
  if (verb == "show") expect(members(id));
  if (verb == "diff") expect(compare(id, Live{}));
  if (verb == "verify") expect(verify(id));
  if (verb == "decode") decode(id);
  RestoreOptions how;
  how.keep = false;
  if (verb == "restore") expect(restore(id, how));
}

/// In KiB. Not getrusage's, which a process has from the one that started it.
long peak_memory() {
  std::ifstream status("/proc/self/status");
  for (std::string word; status >> word;) {
    if (word != "VmHWM:") continue;
    long value = 0;
    status >> value;
    return value;
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string verb = argv[1];
  const Id id{argc > 2 ? argv[2] : "", ConfSave::CURRENT_VERSION};
  const auto start = Clock::now();
  perform(verb, id);
  const double all = std::chrono::duration<double>(Clock::now() - start).count();
  const long peak = peak_memory();
  if (const char* file = std::getenv("BENCH_FIGURES")) {
    std::ofstream(file) << "{\"all\": " << all << ", \"peak\": " << peak
                        << ", \"bytes\": " << (verb == "verify" ? size_of(expect(members(id))) : 0)
                        << "}\n";
  }
  return 0;
}
