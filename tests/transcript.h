// Transcripts: everything that a program can observe while a scenario runs, as text that a person can read.
#pragma once

#include <gtest/gtest.h>
#include <regex.h>
#include <stdio_ext.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>

#include "include/morun_state.h"
#include "tests/expected_text.h"
#include "tests/support.h"

namespace test {

using Lines = std::vector<std::string>;

inline Lines lines_of(const std::string& text) {
  std::istringstream stream(text);
  Lines lines;
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

// Returns the text with every match of an extended regular expression replaced by make(group), where group(i) is the
// i-th part of the match.
std::string replaced(std::string rest, const char* expression, auto make) {
  regex_t compiled;
  regcomp(&compiled, expression, REG_EXTENDED);
  regmatch_t at[4];
  std::string told;
  const auto group = [&](size_t i) {
    return rest.substr(static_cast<size_t>(at[i].rm_so), static_cast<size_t>(at[i].rm_eo - at[i].rm_so));
  };
  while (regexec(&compiled, rest.c_str(), std::size(at), at, 0) == 0) {
    told += rest.substr(0, static_cast<size_t>(at[0].rm_so)) + make(group);
    rest.erase(0, static_cast<size_t>(at[0].rm_eo));
  }
  regfree(&compiled);
  return told + rest;
}

// Returns a line for each field of a context that is not zero.
inline Lines fields_of(const tavik_context* c) {
  Lines lines;
  const auto add = [&](auto... parts) {
    std::ostringstream line;
    (line << ... << parts);
    lines.push_back(line.str());
  };
  if (c == nullptr) return lines;
  const auto at = [](const void* address) {
    char text[32];
    snprintf(text, sizeof text, "address=0x%zx", reinterpret_cast<uintptr_t>(address));
    return std::string(text);
  };
  for (int fd = 0; c == context && fd <= TAVIK_MAX_DESCRIPTOR; ++fd)
    if (morun_map_db[fd].address != 0)
      add("registry[", fd, "] address=0x", std::hex, morun_map_db[fd].address, std::dec, " of ", morun_map_db[fd].size,
          " bytes");
  add("n_sessions ", c->n_sessions, ", active_session ", static_cast<int64_t>(c->active_session), ", tessel_locked ",
      c->tessel_locked);
  for (size_t i = 0; i < TAVIK_MAX_SESSIONS; ++i)
    if (c->session_name[i][0] != '\0')
      add("session ", i, ": \"", c->session_name[i], "\", id ", c->session_id[i], ", domain ", c->session_domain[i],
          std::hex, ", handle=0x", c->session_handle[i]);
  if (c->n_row_max != 0)
    add("limits ", c->output_matrix_size_max, ", ", c->input_matrix_size_max, ", rows ", c->n_row_max);
  if (c->A0 != nullptr)
    add("A0 ", at(c->A0), ", A1 ", at(c->A1), ", A2 ", at(c->A2), " of ", c->A_size, " bytes, X ", at(c->X), " of ",
        c->X_size, " bytes; fds ", c->A0_fd, " ", c->A1_fd, " ", c->A2_fd, " ", c->X_fd);
  for (size_t i = 0; i < c->n_buffers; ++i)
    add("buffer ", i, ": ", at(c->buffer_pointer[i]), " of ", c->buffer_size[i], " bytes, fd ", c->buffer_fd[i],
        ", session ", c->buffer_session[i]);
  for (int fd = 0; fd <= TAVIK_MAX_DESCRIPTOR; ++fd)
    if (c->fd_to_session[fd] != 0) add("fd_to_session[", fd, "] ", c->fd_to_session[fd]);
  return lines;
}

class Transcript : public testing::Test {
 protected:
  static constexpr char injected[] = "Input/output error";

  void SetUp() override {
    setenv("PARLO_TRACE", "1", 1);  // the platform prints its calls among what the library prints
    start_afresh();
  }
  void TearDown() override {
    unsetenv("PARLO_TRACE");
    start_afresh();
    parlo_emulator_reset();
    if (!HasFatalFailure()) expect_kept_text(text_);
  }
  // Frees the context without a call of the platform, and resets the platform with all its memory.
  void start_afresh() {
    free(std::exchange(*watched_, nullptr));
    parlo_emulator_reset();
    std::fill(std::begin(morun_map_db), std::end(morun_map_db), morun_map_entry{});
    configure([](auto& config) { config.lowest_descriptor = 100; });
    watched_ = &context;
    context = nullptr;
    fields_.clear();
    names_.clear();
    n_buffer_ = n_handle_ = 0;
  }

  void watch(tavik_context*& context) { watched_ = &context, fields_ = fields_of(context); }
  // The transcript shows `name` instead of this address.
  void know(const char* name, const void* address) { names_[key("address", address)] = name; }
  // Makes the lines that follow each call.
  std::function<std::string()> aftermath = [] { return ""; };
  // A scenario sets this to false where the entries of freed buffers depend on which addresses the system gives out.
  bool shows_registry = true;
  void say(const std::string& line) { text_ += line + '\n'; }

  // Makes a call and records its source text, the platform calls and printed lines in order, the changes of the context
  // and the result.
  void play(const std::string& call, const std::function<int64_t()>& run) {
    say(call);
    text_ += observe(run);
  }
  // Runs the commands of the kept text. A result of 0 is not recorded.
  void play_script(const std::function<void(const std::string& command)>& run) {
    text_ = played_commands([&](const std::string& command) {
      const std::string told = observe([&] { return run(command), 0; });
      return told.substr(0, told.rfind("  = 0"));
    });
  }
  // Runs a step of which the transcript records nothing.
  void prepare(const std::function<void()>& run) {
    observe([&] {
      run();
      return 0;
    });
  }
  // Makes a call that ends the process, in a child.
  void play_to_the_end(const std::string& call, const std::function<void()>& run) {
    play(call + ", in a process of its own", [&]() -> int64_t {
      const pid_t child = fork();
      if (child == 0) parlo_emulator_take_over(), run(), _exit(99);
      int status = 0;
      waitpid(child, &status, 0);
      return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    });
  }

  // Plays the call once for each platform call that it makes, each time on a fresh platform on which that platform call
  // fails, and once more with all later platform calls failing too. Tells what follows from the failure.
  void play_failures(const std::string& call, const std::function<void()>& preparation,
                     const std::function<int64_t()>& run) {
    say(call);
    for (uint32_t nth = 1;; ++nth) {
      const std::string once = failing(nth, false, preparation, run), for_good = failing(nth, true, preparation, run);
      if (once.empty()) break;
      say(" platform call " + std::to_string(nth) + " fails" + (once == for_good ? ", once or for good" : " once"));
      text_ += once;
      if (once == for_good) continue;
      say(" platform call " + std::to_string(nth) + " fails for good");
      text_ += for_good;
    }
    start_afresh();
  }

 private:
  static std::string key(const char* kind, const void* address) {
    char text[64];
    snprintf(text, sizeof text, "%s=0x%zx", kind, reinterpret_cast<uintptr_t>(address));
    return text;
  }

  std::string failing(uint32_t nth, bool for_good, const std::function<void()>& preparation,
                      const std::function<int64_t()>& run) {
    start_afresh();
    prepare(preparation);
    const int32_t fault_class = for_good ? PARLO_EMULATOR_FAULT_FROM_THEN_ON : PARLO_EMULATOR_FAULT_ONCE;
    const parlo_emulator_fault fault = {fault_class, PARLO_EMULATOR_ANY_OPERATION, -1, nth, 0x77, EIO};
    parlo_emulator_arm(&fault);
    const std::string observed = observe(run);
    const bool fired = parlo_emulator_faults_fired() != 0;
    parlo_emulator_clear_fault();
    const size_t failure = observed.find(injected);
    return fired ? observed.substr(observed.rfind('\n', failure) + 1) : "";
  }

  std::string observe(const std::function<int64_t()>& run) {
    tavik_set_error(-1, "", "", 0, "%s", "");
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const int64_t status = run();
    const bool flushed = __fpending(stdout) == 0;
    const std::string errors = testing::internal::GetCapturedStderr(), output = testing::internal::GetCapturedStdout();
    std::string told;
    const auto tell = [&](const std::string& what, const std::string& line) {
      told += "  " + what + named(line) + '\n';
    };
    for (const std::string& line : lines_of(with_line_ends(errors))) tell("", line);
    for (const std::string& line : lines_of(with_line_ends(output)))
      tell(flushed ? "stdout: " : "stdout, not flushed: ", line);
    const tavik_error& error = *tavik_error_get_last();
    if (error.code != -1)
      tell("error ", std::to_string(error.code) + " (" + error.function + ", " + error.file + ", line " +
                         std::to_string(error.line) +
                         "): " + replaced(error.message, "\n", [](auto) { return "\\n"; }));
    const Lines before = std::exchange(fields_, fields_of(*watched_));
    if (!shows_registry) std::erase_if(fields_, [](const std::string& line) { return line.starts_with("registry["); });
    for (const std::string& field : fields_)
      if (std::find(before.begin(), before.end(), field) == before.end()) tell("context: ", field);
    for (const std::string& line : lines_of(aftermath())) tell("", line);
    return told + "  = " + std::to_string(status) + '\n';
  }

  // Lines of the platform begin a line of the transcript, even behind a line of the library that has no end. Lines of a
  // sanitizer are left out.
  static std::string with_line_ends(std::string text) {
    if (!text.empty() && text.back() != '\n') text += " (no line end)\n";
    text = replaced(text, "==[0-9]+==[^\n]*\n", [](auto) { return ""; });
    text = replaced(text, "([^\n])\\[parlo\\] ", [](auto group) { return group(1) + " (no line end)\n"; });
    return replaced(text, "\\[parlo\\] ", [](auto) { return ""; });
  }

  // Returns the line with names instead of addresses and handles, and with * instead of line numbers that are not
  // published.
  std::string named(const std::string& line) {
    const bool allocates = line.starts_with("parlo_mem_alloc"), opens = line.starts_with("parlo_handle_open");
    const std::string told =
        replaced(line, "(handle=|address=|[A-Z][a-z_A-Z0-9]* = |addr = )(0x[0-9a-f]+)", [&](auto group) {
          const std::string value = group(2), entry = (group(1) == "handle=" ? group(1) : "address=") + value;
          if (allocates && value != "0x0") names_[entry] = "buffer#" + std::to_string(++n_buffer_);
          if (opens) names_[entry] = "handle#" + std::to_string(++n_handle_);
          const auto found = names_.find(entry);
          if (found == names_.end()) return group(0);
          return (group(1).back() == ' ' ? group(1) : "") + found->second;
        });
    return replaced(told,
                    "(source/(host/kernels|morun_[a-z]+_macro/[a-z0-9_]+)(, func = [a-z0-9_]+)?, line (= )?)[0-9]+",
                    [](auto group) { return group(1) + "*"; });
  }

  std::string text_;
  tavik_context** watched_ = &context;
  Lines fields_;
  std::map<std::string, std::string> names_;
  int n_buffer_ = 0, n_handle_ = 0;
};
#define PLAY(...) play(#__VA_ARGS__, [&] { return __VA_ARGS__; })

}  // namespace test
