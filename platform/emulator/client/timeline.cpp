#include "platform/emulator/client/timeline.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <utility>

#include "platform/emulator/client/uri.h"
#include "platform/emulator/dsp/dsp.h"
#include "platform/parlo.h"

namespace parlo::client {
namespace {

// The file stands above the descriptors of shared buffers, which have to be low numbers.
constexpr int lowest_descriptor = 600;

// The DSP has tracks of its own. Viewers group tracks by the number of a process.
constexpr int dsp_process_after_host = 10'000'000;

constexpr int32_t first_product = 9;

// The application's span of the calling thread.
struct Span {
  bool is_open = false;
  std::string name;
  uint64_t begin = 0;
  uint64_t remote_begin = 0, remote_end = 0;  // 0 before a product has run
};
thread_local Span span;
thread_local uint32_t named_in_file = 0;  // in which the calling thread's track has its name

// A kill can end a write where a page of the file ends, but nowhere else. No write is longer than a page.
constexpr uint64_t page_size = 4096;
constexpr size_t span_name_max = 128;

[[gnu::format(printf, 2, 3)]] void append(std::string& text, const char* format, ...) {
  char part[256];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(part, sizeof part, format, arguments);
  va_end(arguments);
  text += part;
}

// Bytes that are no ASCII are taken for Latin-1, so that the text is always valid.
std::string quoted(std::string_view text) {
  std::string quoted = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') quoted += '\\';
    if (c >= ' ' && c < 0x7f)
      quoted += c;
    else
      append(quoted, "\\u%04x", static_cast<unsigned char>(c));
  }
  return quoted + '"';
}

void separate(std::string& events) {
  if (!events.empty()) events += ",\n";
}

// The parts that all events have. The caller appends further fields and the closing brace.
void begin_event(std::string& events, const char* phase, std::string_view name, int process, int64_t track,
                 uint64_t time) {
  separate(events);
  events.append("{\"ph\":\"").append(phase).append("\",\"name\":").append(quoted(name));
  append(events, ",\"pid\":%d,\"tid\":%" PRId64 ",\"ts\":%" PRIu64 ".%03u", process, track, time / 1000,
         static_cast<unsigned>(time % 1000));
}

void append_duration(std::string& events, uint64_t begin, uint64_t end) {
  const uint64_t duration = end - std::min(begin, end);
  append(events, ",\"dur\":%" PRIu64 ".%03u", duration / 1000, static_cast<unsigned>(duration % 1000));
}

void name_track(std::string& events, const char* what, int process, int64_t track, std::string_view name) {
  begin_event(events, "M", what, process, track, 0);
  events.append(",\"args\":{\"name\":").append(quoted(name)).append("}}");
}

int64_t track_of_handle(uint64_t handle) {
  return static_cast<int64_t>(handle & 0x7fffffff);
}

std::string arguments_of(const parlo_emulator_call& call, int error) {
  std::string fields;
  const auto add = [&fields](const Argument& argument, uint64_t value) {
    fields.append(quoted(argument.name));
    append(fields, argument.format == Format::hexadecimal ? ":\"0x%" PRIx64 "\"," : ":%" PRId64 ",", value);
  };
  for_each_argument(call, add);
  for_each_argument_of_method(call, add);
  if (call.text[0] != '\0') fields.append("\"text\":").append(quoted(call.text)).append(",");
  append(fields, "\"result\":%" PRId32, call.result);
  if (error != 0) fields.append(",\"error\":").append(quoted(std::strerror(error)));
  return "{" + fields + "}";
}

// Names the track of a module instance that has been opened.
void name_instance(std::string& events, const parlo_emulator_call& call, int process) {
  uint32_t session = 0;
  if (call.result != 0 || call.n_arguments == 0 || parse_uri(call.text, session) != KESO_SUCCESS) return;
  const int64_t track = track_of_handle(call.arguments[0]);
  std::string name = "session " + std::to_string(session);
  append(name, ", handle 0x%" PRIx64, call.arguments[0]);
  name_track(events, "thread_name", process, track, name);
}

bool changes_counters(const parlo_emulator_call& call) {
  switch (call.operation) {
    case PARLO_EMULATOR_MEM_ALLOC:
    case PARLO_EMULATOR_MEM_ALLOC2:
    case PARLO_EMULATOR_MEM_FREE:
    case PARLO_EMULATOR_MMAP:
    case PARLO_EMULATOR_MUNMAP:
    case PARLO_EMULATOR_HANDLE_CLOSE:
      return true;
    default:
      return call.result == PARLO_EMULATOR_SESSION_LOST || call.result == PARLO_EMULATOR_TIMED_OUT;
  }
}

void add_counter(std::string& events, const char* name, const char* unit, int process, uint64_t time, uint64_t value) {
  begin_event(events, "C", name, process, 0, time);
  append(events, ",\"args\":{\"%s\":%" PRIu64 "}}", unit, value);
}

// Empties a file, and keeps other processes' timelines from the file as long as this process has it open. The lock ends
// when any descriptor of the file is closed. Returns the reason where the file cannot be taken, otherwise a null pointer.
const char* take(int file) {
  struct stat status = {};
  if (fstat(file, &status) != 0 || !S_ISREG(status.st_mode)) return nullptr;
  struct flock whole_file = {};
  whole_file.l_type = F_WRLCK;
  whole_file.l_whence = SEEK_SET;
  if (fcntl(file, F_SETLK, &whole_file) != 0 && errno == EAGAIN) return "another process writes a timeline there";
  return ftruncate(file, 0) == 0 ? nullptr : std::strerror(errno);
}

}  // namespace

void Timeline::choose(std::string_view pattern) {
  if (pattern == pattern_) return;
  finish();
  pattern_ = pattern;
  begin_file();
}

void Timeline::begin_file() {
  if (pattern_.empty()) return;
  process_ = getpid();
  std::string name = pattern_;
  for (size_t at = 0; (at = name.find("%p", at)) != name.npos;) name.replace(at, 2, std::to_string(process_));
  file_ = open(name.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
  length_ = 0;
  ++n_file_;
  if (const int moved = file_ < 0 ? -1 : fcntl(file_, F_DUPFD_CLOEXEC, lowest_descriptor); moved >= 0) {
    close(file_);
    file_ = moved;
  }
  if (const char* const refusal = file_ < 0 ? std::strerror(errno) : take(file_)) {
    std::fprintf(stderr, "[parlo] PARLO_TRACE: cannot write %s: %s\n", name.c_str(), refusal);
    if (file_ >= 0) close(file_);
    file_ = -1;
    return;
  }
  std::string events;
  name_track(events, "process_name", process_, 0, "host");
  name_track(events, "process_name", process_ + dsp_process_after_host, 0, "DSP");
  write("[\n" + events);
}

// Spaces keep the events within one page. A file that cannot be written any more, on a full disk for instance, ends the
// timeline; the file loses the part of an event.
void Timeline::write(std::string events) {
  if (const uint64_t room = page_size - length_ % page_size; events.size() > room) events.insert(0, room, ' ');
  const ssize_t n = ::write(file_, events.data(), events.size());
  if (n == static_cast<ssize_t>(events.size())) {
    length_ += events.size();
    return;
  }
  std::fprintf(stderr, "[parlo] PARLO_TRACE: the timeline ends: %s\n", n < 0 ? std::strerror(errno) : "no room");
  if (n > 0 && ftruncate(file_, static_cast<off_t>(length_)) != 0) errno = 0;
  close(file_);
  file_ = -1;
}

void Timeline::finish() {
  if (writing()) write("\n]\n");
  if (writing()) close(file_);
  file_ = -1;
}

void Timeline::inherit() {
  if (writing()) close(file_);
  file_ = -1;
  if (pattern_.find("%p") != pattern_.npos) begin_file();
}

void Timeline::add(const TracedCall& call, int error, const Counters& counters) {
  if (!writing()) return;
  const uint64_t end = dsp::now();
  const int64_t thread = gettid();
  const int dsp = process_ + dsp_process_after_host;
  std::string events;
  if (std::exchange(named_in_file, n_file_) != n_file_)
    name_track(events, "thread_name", process_, thread, thread == process_ ? "main thread" : "thread");
  if (call.operation == PARLO_EMULATOR_HANDLE_OPEN) name_instance(events, call, dsp);

  const char* const method = method_name(call);
  const char* const name = method ? method : parlo_emulator_operation_name(call.operation);
  begin_event(events, "X", name, process_, thread, call.begin);
  append_duration(events, call.begin, end);
  events.append(",\"cat\":\"platform\",\"args\":").append(arguments_of(call, error)).append("}");

  if (call.dsp_end != 0) {
    const int64_t track = track_of_handle(call.arguments[0]);
    begin_event(events, "X", name, dsp, track, call.dsp_begin);
    append_duration(events, call.dsp_begin, call.dsp_end);
    events.append(",\"cat\":\"dsp\",\"args\":{");
    if (call.estimated_seconds > 0)
      append(events, "\"estimate of a board's microseconds\":%.3f", call.estimated_seconds * 1e6);
    events.append("}}");
    begin_event(events, "s", "call", process_, thread, call.begin);
    append(events, ",\"cat\":\"call\",\"id\":%" PRIu64 "}", ++n_flow_);
    begin_event(events, "f", "call", dsp, track, call.dsp_begin);
    append(events, ",\"cat\":\"call\",\"bp\":\"e\",\"id\":%" PRIu64 "}", n_flow_);
  }
  if (changes_counters(call)) {
    add_counter(events, "shared memory", "bytes", process_, end, counters.n_byte);
    add_counter(events, "mappings", "mappings", process_, end, counters.n_mapping);
  }
  if (span.is_open && call.method >= first_product) {
    if (span.remote_begin == 0) span.remote_begin = call.begin;
    span.remote_end = end;
  }
  write(",\n" + events);
}

void Timeline::begin_span(std::string_view name) {
  if (writing()) span = {.is_open = true, .name = std::string(name.substr(0, span_name_max)), .begin = dsp::now()};
}

void Timeline::end_span() {
  if (!std::exchange(span.is_open, false) || !writing()) return;
  std::string events;
  const int64_t thread = gettid();
  const auto add = [&](std::string_view name, uint64_t begin, uint64_t end) {
    begin_event(events, "X", name, process_, thread, begin);
    append_duration(events, begin, end);
    events.append(",\"cat\":\"application\"}");
  };
  const uint64_t end = dsp::now();
  add(span.name, span.begin, end);
  if (span.remote_end != 0) {
    add("staging", span.begin, span.remote_begin);
    add("remote", span.remote_begin, span.remote_end);
    add("back", span.remote_end, end);
  }
  write(",\n" + events);
}

}  // namespace parlo::client
