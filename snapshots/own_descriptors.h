#pragma once

#include <semaphore.h>

#include <exception>
#include <functional>
#include <thread>

namespace ConfSave::snapshots {

/// A thread that has a table of descriptors of its own. Closing a file releases the locks of fcntl(2) that
/// the same table has on it, whoever took them: those of a host that uses the configuration database by
/// SQLite, too. Nobody has locks in this table. What a task opens is to be closed by a task of the same
/// object. The thread begins with the first one, runs no handler of a signal, and ends before this object.
class OwnDescriptors {
 public:
  using Task = std::function<void()>;

  OwnDescriptors();
  OwnDescriptors(const OwnDescriptors&) = delete;
  OwnDescriptors& operator=(const OwnDescriptors&) = delete;
  ~OwnDescriptors();

  /// Runs `task` there, and waits for its end. What it throws is thrown again here. Without a thread or a
  /// table, which the system may refuse, it uses the descriptors of the process: it must not fail for that.
  void run(const Task& task);

 private:
  enum class State { not_started, started, refused };

  void start();
  void serve();

  State state_ = State::not_started;
  std::thread thread_;
  sem_t begin_{};
  sem_t done_{};
  const Task* task_ = nullptr;  ///< none: the thread ends
  std::exception_ptr thrown_;
};

}  // namespace ConfSave::snapshots
