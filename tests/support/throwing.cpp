#include "support/throwing.h"

#include <cxxabi.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <stdexcept>
#include <typeinfo>

#include "confsave.h"

namespace test {
namespace {

std::string type_of(const std::type_info& type) {
  char* const name = abi::__cxa_demangle(type.name(), nullptr, nullptr, nullptr);
  std::string text = name;
  std::free(name);
  return text;
}

std::string text_of(const XTOOStatus& error) {
  EXPECT_TRUE(error.IsError());
  return type_of(typeid(error)) + " " + std::to_string(error.Status()) + ": " + error.ErrorMessage();
}

}  // namespace

std::string thrown(const std::function<void()>& call) {
  try {
    call();
  } catch (const ConfSave::XChdir& error) {
    return text_of(error) + " " + error.Directory();
  } catch (const XTOOStatus& error) {
    return text_of(error);
  } catch (const std::exception& error) {
    return type_of(typeid(error)) + ": " + error.what();
  } catch (int number) {
    return "int: " + std::to_string(number);
  }
  return "nothing";
}

std::vector<Thrown> every_exception() {
  using namespace ConfSave;
  return {{"XNotFound", throwing(XNotFound(3, true)), "ConfSave::XNotFound 3: "},
          {"XExternalFailure", throwing(XExternalFailure(36, true)), "ConfSave::XExternalFailure 36: "},
          {"XChdir", throwing(XChdir(4, true, "/srv")), "ConfSave::XChdir 4:  /srv"},
          {"XCancel", throwing(XCancel(1, true)), "ConfSave::XCancel 1: "},
          {"XAmbiguity", throwing(XAmbiguity(2, true)), "ConfSave::XAmbiguity 2: "},
          {"XConstraint", throwing(XConstraint(0, "quota", false)), "ConfSave::XConstraint 0: quota"},
          {"XTOOStatus", throwing(XTOOStatus(5, true)), "XTOOStatus 5: "},
          {"RuntimeError", throwing(std::runtime_error("no")), "std::runtime_error: no"},
          {"Number", throwing(7), "int: 7"}};
}

}  // namespace test
