#pragma once

#include <exception>
#include <new>

#include "confsave/snapshots.h"

namespace ConfSave::snapshots {

inline constexpr const char* kThrown = "the platform or a function of the caller threw an exception";

/// Calls what a public function does. std::bad_alloc passes; any other exception becomes an error. Only the
/// host's platform can throw one, and what the caller passes: progress, sink and supply.
template <class Call>
auto at_boundary(Call call) -> decltype(call()) {
  try {
    return call();
  } catch (const std::bad_alloc&) {
    throw;
  } catch (const std::exception& error) {
    const char* what = error.what();
    return Error{Code::failed, 0, "", what != nullptr ? what : kThrown};
  } catch (...) {
    return Error{Code::failed, 0, "", kThrown};
  }
}

/// The same for a function without a value.
template <class Call>
Error error_at_boundary(Call call) {
  const auto result = at_boundary([&]() -> Result<int> {
    Error error = call();
    if (error.code != Code::ok) return error;
    return 0;
  });
  return result ? Error{} : result.error();
}

}  // namespace ConfSave::snapshots
