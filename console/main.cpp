#include <kelmor/status.h>

#include <exception>
#include <iostream>

#include "exit_status.h"
#include "process.h"
#include "text.h"
#include "verbs.h"

namespace {

int run(const console::Arguments& arguments) {
  try {
    return console::run(arguments);
  } catch (const XTOOStatus& error) {
    std::cerr << "confsave: failed: " << console::reason(error) << ".\n";
  } catch (const std::exception& error) {
    std::cerr << "confsave: failed: " << console::printable(error.what()) << ".\n";
  }
  return console::kFailed;
}

}  // namespace

int main(int argc, char** argv) {
  console::prepare_process();
  const int status = run({argv + (argc > 0 ? 1 : 0), argv + argc});
  std::cout.flush();
  if (std::cout || (status != console::kDone && status != console::kFindings)) return status;
  std::cerr << "confsave: standard output could not be written.\n";
  return console::kFailed;
}
