// A gateway's shell in small, linked to the shared library. What it defines itself comes before the
// platform's; it prints what was called. Built with HOST_BRINGS_ITS_OWN and without.

#include <confsave.h>
#include <kelmor/log.h>
#include <kelmor/system.h>

#include <cstdio>

#ifdef HOST_BRINGS_ITS_OWN

int my_system(const char*, ...) {
  std::puts("my_system of the host");
  return 0;
}

const KorvLogProps* KorvLog_GetProps_cl_module(int) {
  static const KorvLogProps props = {
      1,       nullptr, [](const char* text) { std::printf("log of the host: %s\n", text); },
      nullptr, nullptr, nullptr};
  return &props;
}

void slput(int priority, const char* format, ...) {
  std::printf("slput of the host: %d %s\n", priority, format);
}

#endif

int main() {
  ConfSave::AutoSave("", ConfSave::conf_corlu, 1);
  ConfSave::AutoSave("", ConfSave::conf_corlu, 1);
  try {
    ConfSave::IsFileExist("/dev/null/x");
  } catch (const ConfSave::XExternalFailure& error) {
    std::printf("caught status %d\n", error.Status());
  }
  const ConfSave::Storage storage;
  std::printf("opened: %d\n", storage.opened ? 1 : 0);
}
