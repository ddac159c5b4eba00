#pragma once

// Exceptions: how the tests' doubles throw them, and how a test catches them.

#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <typeinfo>

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

}  // namespace test
