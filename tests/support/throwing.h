#pragma once

// Exceptions: how the tests' doubles throw them, and how a test catches them.

#include <gtest/gtest.h>

#include <functional>
#include <ostream>
#include <stdexcept>
#include <string>
#include <typeinfo>
#include <vector>

namespace test {

using Raise = std::function<void()>;

/// Throws a copy of `exception`, of exactly its type.
template <class Exception>
Raise throwing(Exception exception) {
  return [exception] { throw exception; };
}

/// Calls `call`, which must throw exactly an `Exception`, not a class derived from it. Returns the
/// exception.
template <class Exception, class Call>
Exception thrown_by(Call call) {
  try {
    call();
  } catch (const Exception& error) {
    EXPECT_EQ(typeid(error), typeid(Exception)) << typeid(error).name();
    return error;
  }
  throw std::runtime_error(std::string("nothing of type ") + typeid(Exception).name() + " was thrown");
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
