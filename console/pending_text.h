#pragma once

#include <string>

#include "report.h"

namespace console {

/// One line, without a line end: which restore is pending, and until when.
std::string text_of(const cs::Pending& pending);

/// What a person has to know who has just made a restore pending: a paragraph.
std::string paragraph_of(const cs::Restored& restored, unsigned window);

}  // namespace console
