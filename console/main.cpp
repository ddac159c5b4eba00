#include <kelmor/status.h>

#include <exception>
#include <iostream>

#include "verbs.h"

namespace {

/// An exception's text, or its number where it has none.
std::string text_of(const XTOOStatus& error) {
  const std::string text = error.ErrorMessage();
  return text.empty() ? "status " + std::to_string(error.Status()) : text;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return console::run({argv + (argc > 0 ? 1 : 0), argv + argc});
  } catch (const XTOOStatus& error) {
    std::cerr << "confsave: failed: " << text_of(error) << '\n';
  } catch (const std::exception& error) {
    std::cerr << "confsave: failed: " << error.what() << '\n';
  }
  return console::kFailed;
}
