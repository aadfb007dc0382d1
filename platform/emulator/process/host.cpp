#include "platform/emulator/process/host.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <new>
#include <sstream>
#include <string>
#include <vector>

#include "platform/emulator/parlo_emulator.h"
#include "platform/emulator/process/channel.h"
#include "platform/emulator/process/records.h"

namespace parlo::process {
namespace {

// ---- The program -------------------------------------------------------------------------------------------------

char library_path[PATH_MAX];

// A relative path of the library is one only until the program changes its folder.
[[gnu::constructor]] void find_library() {
  Dl_info info;
  if (!dladdr(&library_path, &info) || !info.dli_fname || !realpath(info.dli_fname, library_path))
    library_path[0] = '\0';
}

// The program that starts programs of another processor, with its arguments.
std::vector<std::string> launcher() {
  const char* const words = secure_getenv("PARLO_DSP_LAUNCHER");
  std::istringstream stream(words ? words : "");
  std::vector<std::string> launcher;
  for (std::string word; stream >> word;) launcher.push_back(word);
  return launcher;
}

struct SpawnSettings {
  SpawnSettings() {
    posix_spawnattr_init(&attributes);
    posix_spawn_file_actions_init(&files);
  }
  ~SpawnSettings() {
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&files);
  }
  posix_spawnattr_t attributes;
  posix_spawn_file_actions_t files;
};

// The process keeps standard error for messages. It has a process group of its own, so that a key that interrupts the
// host leaves the session to the host's cleanup. Libraries that are preloaded are the application's.
int spawn(int control, pid_t& process) {
  const std::string library = library_path;
  if (library.empty()) {
    std::fprintf(stderr, "[parlo] cannot start parlo-dsp: libparlo.so does not know where it stands\n");
    return ENOENT;
  }
  std::vector<std::string> words = launcher();
  words.push_back(library.substr(0, library.rfind('/') + 1) + "parlo-dsp");
  words.push_back(std::to_string(getpid()));
  std::vector<char*> arguments, environment;
  for (std::string& word : words) arguments.push_back(word.data());
  for (char** entry = environ; entry && *entry; ++entry)
    if (std::strncmp(*entry, "LD_PRELOAD=", 11) != 0) environment.push_back(*entry);
  arguments.push_back(nullptr);
  environment.push_back(nullptr);

  SpawnSettings settings;
  sigset_t none, all;
  sigemptyset(&none);
  sigfillset(&all);
  posix_spawnattr_setsigmask(&settings.attributes, &none);
  posix_spawnattr_setsigdefault(&settings.attributes, &all);
  posix_spawnattr_setpgroup(&settings.attributes, 0);
  posix_spawnattr_setflags(&settings.attributes,
                           POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
  if (posix_spawn_file_actions_addopen(&settings.files, 0, "/dev/null", O_RDWR, 0) != 0 ||
      posix_spawn_file_actions_adddup2(&settings.files, 0, 1) != 0 ||
      posix_spawn_file_actions_adddup2(&settings.files, control, control_descriptor) != 0 ||
      posix_spawn_file_actions_addclosefrom_np(&settings.files, control_descriptor + 1) != 0)
    return ENOMEM;
  const int error =
      posix_spawn(&process, arguments[0], &settings.files, &settings.attributes, arguments.data(), environment.data());
  if (error != 0 && error != ENOMEM)
    std::fprintf(stderr, "[parlo] cannot start %s: %s\n", arguments[0], std::strerror(error));
  return error;
}

// ---- The session -------------------------------------------------------------------------------------------------

// A socket on which one call at a time waits for its answer.
struct Line {
  explicit Line(Descriptor socket) : channel(std::move(socket)) {}
  Channel channel;
  std::mutex mutex;
  uint64_t serial = 0;
};

class ProcessSpace final : public dsp::Space {
 public:
  ProcessSpace(dsp::MatrixUnitTable& units, uint32_t limit_milliseconds, Descriptor control)
      : units_(units), limit_milliseconds_(limit_milliseconds), control_(std::move(control)) {
    control_.channel.set_limit(limit_milliseconds);
  }
  ~ProcessSpace() override { kill_process(); }

  // Must be called once, before anything else.
  int spawn_with(int other_end) { return spawn(other_end, process_); }

  int32_t open(uint64_t handle, const dsp::Module& module) override {
    Descriptor mine, other;
    if (!Channel::connect(mine, other)) return PARLO_EMULATOR_NO_MEMORY;
    const auto line = std::make_shared<Line>(std::move(mine));
    line->channel.set_limit(limit_milliseconds_);
    Lines::node_type entry = entry_for(handle, line);
    Request request = {.kind = RequestKind::open, .handle = handle};
    request.module = module;
    const int32_t status = ask_control(request, other.number());
    const std::lock_guard lock(lines_mutex_);
    if (status == KESO_SUCCESS) lines_.insert(std::move(entry));
    return status;
  }

  int32_t close(uint64_t handle) override {
    const int32_t status = ask_control({.kind = RequestKind::close, .handle = handle});
    const std::lock_guard lock(lines_mutex_);
    lines_.erase(handle);
    return status;
  }

  int32_t map(const dsp::SharedBuffer& buffer, int file) override {
    Request request = {.kind = RequestKind::map};
    request.buffer = buffer;
    return ask_control(request, file);
  }

  int32_t unmap(int32_t descriptor, uint64_t address, uint64_t length) override {
    Request request = {.kind = RequestKind::unmap};
    request.buffer = {0, descriptor, address, length};
    return ask_control(request);
  }

  // Must not wait. A release that finds no room goes with the next request, because only a closing needs to know of it.
  void release(uint64_t memory) override {
    const Transfer transfer = control_.channel.try_to_send(release_of(memory));
    if (transfer == Transfer::done || has_ended_) return;
    const std::lock_guard lock(unsent_mutex_);
    unsent_releases_.push_back(memory);
  }

  uint64_t n_mappings() override { return n_mappings_; }

  int32_t invoke(uint64_t handle, const dsp::Call& call, dsp::Reply& reply) override {
    const std::shared_ptr<Line> line = find(handle);
    if (!line) return PARLO_EMULATOR_BAD_HANDLE;
    Request request = {.kind = RequestKind::invoke, .handle = handle};
    request.call = call;
    Answer answer;
    const int32_t status = ask(*line, request, -1, answer);
    reply = answer.reply;
    reply.text[sizeof reply.text - 1] = '\0';
    return status;
  }

  int process() const override { return process_; }

 private:
  // To one request. No method reserves a matrix unit more than once; the limit of a call counts for each answer.
  static constexpr int answers_max = 4;

  using Lines = std::map<uint64_t, std::shared_ptr<Line>>;

  static Lines::node_type entry_for(uint64_t handle, const std::shared_ptr<Line>& line) {
    Lines lines;
    return lines.extract(lines.emplace(handle, line).first);
  }

  std::shared_ptr<Line> find(uint64_t handle) {
    const std::lock_guard lock(lines_mutex_);
    const auto found = lines_.find(handle);
    return found == lines_.end() ? nullptr : found->second;
  }

  static Request release_of(uint64_t memory) {
    Request request = {.kind = RequestKind::release};
    request.buffer.memory = memory;
    return request;
  }

  int32_t send_releases() {
    std::vector<uint64_t> memories;
    {
      const std::lock_guard lock(unsent_mutex_);
      memories.swap(unsent_releases_);
    }
    for (const uint64_t memory : memories) {
      const Transfer transfer = control_.channel.send(release_of(memory));
      if (transfer != Transfer::done) return lose(transfer);
    }
    return KESO_SUCCESS;
  }

  int32_t ask_control(const Request& request, int descriptor = -1) {
    if (const int32_t status = send_releases(); status != KESO_SUCCESS) return status;
    Answer answer;
    const int32_t status = ask(control_, request, descriptor, answer);
    if (answer.kind == AnswerKind::done) n_mappings_ = answer.n_mappings;
    return status;
  }

  // Sends the request and waits for its answer. Meanwhile, the process may ask for matrix units.
  int32_t ask(Line& line, Request request, int descriptor, Answer& answer) {
    const std::lock_guard lock(line.mutex);
    if (has_ended_) return PARLO_EMULATOR_SESSION_LOST;
    request.serial = ++line.serial;
    Transfer transfer = line.channel.send(request, descriptor);
    if (transfer == Transfer::no_memory) return PARLO_EMULATOR_NO_MEMORY;
    if (transfer == Transfer::bad) return PARLO_EMULATOR_UNKNOWN_DESCRIPTOR;
    for (int n_answer = 0; n_answer < answers_max && transfer == Transfer::done; ++n_answer) {
      transfer = line.channel.receive(answer);
      if (transfer != Transfer::done) break;
      if (answer.protocol != protocol || answer.serial != request.serial) break;
      if (answer.kind == AnswerKind::no_memory) throw std::bad_alloc();
      if (answer.kind == AnswerKind::done) return answer.status;
      if (request.kind != RequestKind::invoke) break;
      if (answer.kind == AnswerKind::reserve_unit)
        transfer = line.channel.send(
            Request{.kind = RequestKind::permit, .serial = request.serial, .permit = permit(request, answer)});
      else if (answer.kind == AnswerKind::end_unit)
        units_.end(request.handle);
      else
        break;
    }
    answer = {};
    return lose(transfer);
  }

  Permit permit(const Request& request, const Answer& answer) {
    try {
      if (!units_.reserve(request.handle, answer.unit)) return Permit::refused;
    } catch (const std::bad_alloc&) {
      return Permit::no_memory;
    }
    if (has_ended_) units_.end(request.handle);  // nobody else would
    return Permit::granted;
  }

  int32_t lose(Transfer transfer) {
    kill_process();
    return transfer == Transfer::timed_out ? PARLO_EMULATOR_TIMED_OUT : PARLO_EMULATOR_SESSION_LOST;
  }

  // A forked child that has taken the session over is not the parent of the process. A host that has waited for all its
  // children has already taken the process's status; another process may have the process's number then.
  void kill_process() {
    const std::lock_guard lock(process_mutex_);
    if (has_ended_.exchange(true) || process_ <= 0) return;
    siginfo_t info;
    if (waitid(P_PID, static_cast<id_t>(process_), &info, WEXITED | WNOHANG | WNOWAIT) != 0) return;
    kill(process_, SIGKILL);
    while (waitpid(process_, nullptr, 0) < 0 && errno == EINTR) continue;
    n_mappings_ = 0;
  }

  dsp::MatrixUnitTable& units_;
  const uint32_t limit_milliseconds_;
  Line control_;
  std::mutex lines_mutex_;  // guards lines_
  Lines lines_;
  std::mutex unsent_mutex_;  // guards unsent_releases_
  std::vector<uint64_t> unsent_releases_;
  std::mutex process_mutex_;  // held while the process is ended
  std::atomic<bool> has_ended_ = false;
  std::atomic<uint64_t> n_mappings_ = 0;
  pid_t process_ = -1;
};

}  // namespace

int32_t start(dsp::MatrixUnitTable& units, uint32_t limit_milliseconds, std::shared_ptr<dsp::Space>& space) {
  Descriptor mine, other;
  if (!Channel::connect(mine, other)) return PARLO_EMULATOR_NO_MEMORY;
  const auto session = std::make_shared<ProcessSpace>(units, limit_milliseconds, std::move(mine));
  const int error = session->spawn_with(other.number());
  if (error != 0) return error == ENOMEM || error == EAGAIN ? PARLO_EMULATOR_NO_MEMORY : PARLO_EMULATOR_NO_PROCESS;
  space = session;
  return KESO_SUCCESS;
}

uint32_t default_limit_milliseconds() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  return 0;
#else
  return launcher().empty() ? 30000 : 0;
#endif
}

}  // namespace parlo::process
