// A small but complete platform. It replaces the stand-in, either as a library or as a part of the host.
// All its directories are below one directory.

#include <kelmor/log.h>
#include <kelmor/paths.h>
#include <kelmor/status.h>
#include <kelmor/system.h>
#include <sys/wait.h>
#include <syslog.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

// A process must define these only once: exceptions are caught by the type information that they generate.
XTOOMsg::~XTOOMsg() = default;
XTOOStatus::~XTOOStatus() = default;

XTOOStatus::XTOOStatus(int status, bool flag) : XTOOStatus(status, nullptr, flag) {}
XTOOStatus::XTOOStatus(int status, const char* text, bool) : XTOOMsg(text), status_(status) {}

void XTOOStatus::Clear() {
  status_ = 0;
  error_ = false;
  ClearMessage();
}

namespace toolsunix {

namespace {

std::string below_root(const char* name) {
  const char* root = secure_getenv("GATEWAY_ROOT");
  return (root != nullptr ? root : "/srv/gateway") + std::string(name);
}

}  // namespace

FilenameConvertor& FilenameConvertor::Instance() {
  static FilenameConvertor instance;
  return instance;
}

std::string FilenameConvertor::GetKelmorConfigPath() const { return below_root("/config/"); }

std::string FilenameConvertor::GetFullDynamicDirName(path::DynamicDirectoryId) const {
  return below_root("/state");
}

std::string FilenameConvertor::GetFullDirName(path::DirectoryId) const { return below_root("/tmp"); }

std::string FilenameConvertor::GetShortFilename(FileId id) const {
  return "file-" + std::to_string(static_cast<int>(id));
}

}  // namespace toolsunix

// Returns the shell's exit status, not a wait status. A command that was killed has failed, too.
int my_system(const char* format, ...) {
  std::vector<char> command(1 << 16);
  std::va_list arguments;
  va_start(arguments, format);
  const int length = std::vsnprintf(command.data(), command.size(), format, arguments);
  va_end(arguments);
  if (length < 0 || static_cast<std::size_t>(length) >= command.size()) return 127;
  const int status = std::system(command.data());
  if (status == -1) return 127;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// There is no log.
const KorvLogProps* KorvLog_GetProps_cl_module(int) { return nullptr; }

void slput(int priority, const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  vsyslog(priority, format, arguments);
  va_end(arguments);
}
