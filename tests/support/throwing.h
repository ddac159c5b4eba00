#pragma once

// Exceptions: how the tests' doubles throw them, and how a test catches them.

#include <cxxabi.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <exception>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <typeinfo>

#include "kelmor/status.h"

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

inline std::string type_name(const std::type_info& type) {
  const std::unique_ptr<char, void (*)(void*)> name(
      abi::__cxa_demangle(type.name(), nullptr, nullptr, nullptr), std::free);
  return name.get();
}

/// Calls `call`. Returns what it throws, as "type status: text", or "type: text" for an exception of the
/// standard library. Every status must be an error.
template <class Call>
std::string thrown(Call call) {
  try {
    call();
  } catch (const XTOOStatus& error) {
    EXPECT_TRUE(error.IsError());
    return type_name(typeid(error)) + " " + std::to_string(error.Status()) + ": " + error.ErrorMessage();
  } catch (const std::exception& error) {
    return type_name(typeid(error)) + ": " + error.what();
  }
  return "nothing";
}

}  // namespace test
