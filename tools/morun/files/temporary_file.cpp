#include "tools/morun/files/temporary_file.h"

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <string>
#include <system_error>

namespace tool {
namespace {

sigset_t interruption_set() {
  sigset_t set;
  sigemptyset(&set);
  for (const int signal : interruptions) sigaddset(&set, signal);
  return set;
}

// Signals that interrupt this thread wait until the end of the scope.
class InterruptionsWait {
 public:
  InterruptionsWait() {
    const sigset_t set = interruption_set();
    pthread_sigmask(SIG_BLOCK, &set, &before_);
  }
  ~InterruptionsWait() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
  InterruptionsWait(const InterruptionsWait&) = delete;
  InterruptionsWait& operator=(const InterruptionsWait&) = delete;

 private:
  sigset_t before_;
};

std::system_error last_error() {
  return std::system_error(errno, std::generic_category());
}

// A signal handler may read an entry at any moment, so entries are never freed.
struct Entry {
  std::atomic<bool> is_taken = false;
  std::atomic<bool> names_file = false;
  char path[PATH_MAX] = "";
};
std::array<Entry, 16> entries;

size_t take_entry() {
  const auto entry = std::find_if(entries.begin(), entries.end(), [](Entry& e) { return !e.is_taken.exchange(true); });
  if (entry == entries.end()) throw std::system_error(EMFILE, std::generic_category());
  return static_cast<size_t>(entry - entries.begin());
}

// The handler is installed so that the default action is restored first. The signal that is raised here then ends the
// program.
void remove_all_and_end(int signal) {
  for (const Entry& entry : entries) {
    if (entry.names_file) unlink(entry.path);
  }
  raise(signal);
}

int create(Entry& entry, const std::filesystem::path& folder) {
  const std::string path = folder / ".morun.XXXXXX";
  if (path.size() >= sizeof entry.path) return errno = ENAMETOOLONG, -1;
  std::memcpy(entry.path, path.c_str(), path.size() + 1);
  const InterruptionsWait no_file_without_its_entry;
  const int descriptor = mkostemp(entry.path, O_CLOEXEC | O_NOFOLLOW);
  entry.names_file = descriptor >= 0;
  return descriptor;
}

}  // namespace

void remove_temporary_files_on_interruption() {
  struct sigaction action = {};
  action.sa_handler = remove_all_and_end;
  action.sa_mask = interruption_set();
  action.sa_flags = static_cast<int>(SA_RESETHAND);
  for (const int signal : interruptions) {
    struct sigaction before = {};
    sigaction(signal, nullptr, &before);
    if (before.sa_handler != SIG_IGN) sigaction(signal, &action, nullptr);
  }
}

TemporaryFile::TemporaryFile(const std::filesystem::path& folder)
    : entry_(take_entry()), descriptor_(create(entries[entry_], folder)) {
  if (descriptor_.is_open()) return;
  const int error = errno;
  entries[entry_].is_taken = false;
  throw std::system_error(error, std::generic_category());
}

TemporaryFile::~TemporaryFile() {
  Entry& entry = entries[entry_];
  if (entry.names_file) unlink(entry.path);
  entry.names_file = false;
  entry.is_taken = false;
}

void TemporaryFile::rename_to(const std::filesystem::path& target) {
  Entry& entry = entries[entry_];
  if (!descriptor_.close() || std::rename(entry.path, target.c_str()) != 0) throw last_error();
  entry.names_file = false;
}

}  // namespace tool
