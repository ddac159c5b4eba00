#include "process.h"
#include "verbs.h"

int main(int argc, char** argv) {
  console::prepare_process();
  return console::run({argv + (argc > 0 ? 1 : 0), argv + argc});
}
