#pragma once

// Exceptions: how the tests' doubles throw them, and how a test catches them.

#include <functional>
#include <ostream>
#include <string>
#include <vector>

namespace test {

using Raise = std::function<void()>;

/// Throws a copy of `exception`, of exactly its type.
template <class Exception>
Raise throwing(Exception exception) {
  return [exception] { throw exception; };
}

/// Calls `call`. Returns what it throws, as "type status: text", or "type: text" for any other exception.
/// Every status must be an error.
std::string thrown(const std::function<void()>& call);

/// A row of a table of exceptions: a name, the exception, and a text that the test expects.
struct Thrown {
  std::string name;
  Raise raise;
  std::string text;
};

inline void PrintTo(const Thrown& row, std::ostream* out) { *out << row.name; }

/// One exception of each kind, with its thrown(), for the tests that exceptions propagate.
std::vector<Thrown> every_exception();

/// Names the tests of a table after its rows.
constexpr auto by_name = [](const auto& row) { return row.param.name; };

}  // namespace test
