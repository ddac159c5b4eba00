#include "confsave.h"

#include <ctime>
#include <ostream>
#include <utility>

#include "integers.h"

namespace ConfSave {

const std::string VALID_NAME_CHARS = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz-_";

Config::Config(int64 version)
    : type(conf_none), vers(version), save_time(std::time(nullptr)), load_time(0) {}

void Config::update_save_time() { save_time = std::time(nullptr); }

void Config::update_load_time() { load_time = std::time(nullptr); }

// Not a stream: a host's locale must not group the digits of a version. The text omits the low
// 16 bits. // Quirk Q1
std::string Config::version(int64 v) {
  if (v == 0) return {};  // Quirk Q2
  const auto bits = static_cast<std::uint64_t>(v);
  const auto minor = static_cast<unsigned>((bits >> 24U) & 0xffU);
  const auto build = static_cast<unsigned>((bits >> 16U) & 0xffU);
  return std::to_string(high32(v)) + "." + std::to_string(minor) + "." + std::to_string(build);
}

std::string Config::version() const { return version(vers); }

std::string time_format(int64 t) {
  const std::time_t time = t;
  const std::tm* local = std::localtime(&time);
  // The year does not fit into an int.
  if (local == nullptr) return {};
  char text[100] = {};
  return {text, std::strftime(text, sizeof text, "%d.%m.%Y at %H:%M", local)};
}

std::ostream& operator<<(std::ostream& out, conftype type) {
  if (!out.good()) return out;
  switch (type) {
    case conf_full:
      return out << "full";
    case conf_part:
      return out << "part";
    case conf_corlu:
      return out << "corlu";
    case conf_none:
      break;
  }
  return out;
}

std::ostream& operator<<(std::ostream& out, const Config& config) {
  if (!out.good()) return out;
  out << '"' << config.name << "\",\t";
  const std::string version = config.version();
  if (!version.empty()) out << "version " << version << ",\t";
  out << config.type << ", saved on " << time_format(config.save_time) << ", ";
  if (config.load_time == 0) return out << "never loaded";
  return out << "loaded at " << time_format(config.load_time);
}

XChdir::XChdir(int status, bool flag, std::string directory)
    : XExternalFailure(status, flag), directory_(std::move(directory)) {}

XChdir::XChdir(int status, const char* text, bool flag, std::string directory)
    : XExternalFailure(status, text, flag), directory_(std::move(directory)) {}

}  // namespace ConfSave
