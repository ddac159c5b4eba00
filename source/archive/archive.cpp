#include "confsave.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "archive/pack.h"
#include "contents.h"
#include "log.h"
#include "places.h"
#include "throw.h"

namespace ConfSave {
namespace {

const ClUnilogFname kCreate{
    "void ConfSave::Archive::Create(const std::vector<char>&, const std::vector<char>&)", "Create"};

void pack_into(TempFile& file, const std::string& dir, const std::string& files) {
  file.create();
  pack(file.name(), dir, files);
  file.rewind();
}

void write_into(TempFile& file, const std::vector<char>& bytes) {
  file.create();
  // A short write does not set errno: never report a stale one.
  errno = 0;  // Quirk Q33
  if (write(file.fd(), bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) {
    const int error = errno;
    if (KovrLogHelper record{1, kCreate, kArchiveSource, ""}) {
      record << file.name() << ": failed to write to temporary file: " << std::strerror(error);
    }
    throw_text<XTOOStatus>(status_write, std::strerror(error));
  }
  file.rewind();
}

}  // namespace

Archive::Archive(conftype type, const std::string& dir) : arc_dir(dir), arc_type(type) {}

Archive::~Archive() = default;

void Archive::Create() {
  const bool with_database = IsConfigDbExist(arc_dir.c_str());
  const std::string files = packing_list(Base::configuration, arc_type, with_database);
  if (arc_type != conf_corlu) {
    pack_into(etc_file, kFailoverDirectory, packing_list(Base::failover, arc_type, false));
  }
  pack_into(keybase_file, arc_dir, files);
}

void Archive::Create(const std::vector<char>& etc, const std::vector<char>& keybase) {
  write_into(etc_file, etc);
  write_into(keybase_file, keybase);
}

void Archive::Fetch(std::vector<char>& etc, std::vector<char>& keybase) const {
  TempFile_to_BinObj(etc_file, etc);
  TempFile_to_BinObj(keybase_file, keybase);
}

// A failure ends it: nothing is rolled back. // Quirk Q32
void Archive::Extract(const char* target) const {
  const std::string dest = target != nullptr ? target : arc_dir;
  RemoveConfigDb(dest.c_str());
  if (arc_type != conf_corlu && !etc_file.name().empty()) {
    // Both archives go into an explicit target. // Quirk Q27
    unpack(etc_file.name(), target != nullptr ? dest : kFailoverDirectory);
  }
  if (!keybase_file.name().empty()) unpack(keybase_file.name(), dest);
}

}  // namespace ConfSave
