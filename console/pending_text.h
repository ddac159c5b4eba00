#pragma once

#include <string>

#include "report.h"

namespace console {

/// One line, without a line end: which restore is pending, and until when.
std::string text_of(const cs::Pending& pending);

/// What a person has to know who has just made a restore pending: a paragraph.
std::string paragraph_of(const cs::Restored& restored, unsigned window);

/// Prints on standard error which restore is pending or was interrupted, and changes nothing.
void say_what_is_unfinished();

/// Prints text_of() on standard error if a restore is pending. One whose time is up is taken back.
void mention_pending();

}  // namespace console
