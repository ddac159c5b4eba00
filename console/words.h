#pragma once

#include <optional>
#include <string>
#include <vector>

namespace console {

using Arguments = std::vector<std::string>;

/// The words of a list, which blanks part.
Arguments split(const std::string& list);

/// The words of a line. Blanks part them, except within '' and "" and behind a backslash. Nothing if a
/// quotation mark has no partner.
std::optional<Arguments> words_of(const std::string& line);

}  // namespace console
