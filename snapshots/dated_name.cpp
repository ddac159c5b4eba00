#include "snapshots/dated_name.h"

#include <algorithm>

#include "snapshots/text.h"

namespace ConfSave::snapshots {

namespace {

std::string formatted(const char* format, std::time_t time) {
  std::tm local = {};
  localtime_r(&time, &local);
  char date[80] = {};
  return {date, std::strftime(date, sizeof date, format, &local)};
}

}  // namespace

std::string dated_name(const std::string& prefix, std::time_t time) {
  return prefix + formatted("%Y-%m-%d-%H-%M-%S", time);
}

std::string local_time(std::time_t time) { return formatted("%Y-%m-%d %H:%M:%S", time); }

bool is_dated_name(const std::string& prefix, const std::string& name) {
  if (!begins_with(name, prefix)) return false;
  const std::string form = "0000-00-00-00-00-00";
  std::string digits = name.substr(prefix.size());
  const auto is_digit = [](char letter) { return letter >= '0' && letter <= '9'; };
  std::replace_if(digits.begin(), digits.end(), is_digit, '0');
  if (!begins_with(digits, form)) return false;
  const std::string rest = digits.substr(form.size());
  return rest.empty() ||
         (rest.size() > 1 && rest[0] == '-' && rest.find_first_not_of('0', 1) == std::string::npos);
}

}  // namespace ConfSave::snapshots
