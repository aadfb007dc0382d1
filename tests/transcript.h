// Transcripts: everything that a program can observe while a scenario runs, as text that a person can read. The scenario
// stands in the same text: its commands are calls of the library, and a few words more.
#pragma once

#include <gtest/gtest.h>
#include <regex.h>
#include <stdio_ext.h>

#include <functional>
#include <list>
#include <map>
#include <stdexcept>
#include <thread>

#include "include/morun_state.h"
#include "tests/expected_text.h"
#include "tests/support.h"

namespace test {

using Lines = std::vector<std::string>;

inline Lines lines_of(const std::string& text, char end = '\n') {
  std::istringstream stream(text);
  Lines lines;
  for (std::string line; std::getline(stream, line, end);) lines.push_back(line);
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

// A function that is called by its name, with numbers for addresses.
struct Call {
  // What the address of a variable is given for, and so what is told of the variable afterwards.
  enum Parameter { plain, address, signed_word, unsigned_word, long_word };
  std::function<int64_t(const std::vector<uint64_t>&)> run;
  std::vector<Parameter> parameters;
};
template <class P>
constexpr Call::Parameter kind_of() {
  if constexpr (std::is_pointer_v<std::remove_pointer_t<P>>) return Call::address;
  if constexpr (std::is_same_v<P, uint64_t*>) return Call::long_word;
  if constexpr (std::is_same_v<P, int32_t*>) return Call::signed_word;
  if constexpr (std::is_same_v<P, uint32_t*>) return Call::unsigned_word;
  return Call::plain;
}
template <class P>
P argument(uint64_t word) {
  if constexpr (std::is_pointer_v<P>)
    return reinterpret_cast<P>(word);
  else
    return static_cast<P>(word);
}
template <class R, class... P>
Call by_words(R (*function)(P...)) {
  const auto run = [function]<size_t... i>(const std::vector<uint64_t>& words, std::index_sequence<i...>)->int64_t {
    if (words.size() != sizeof...(P)) throw std::invalid_argument(std::to_string(sizeof...(P)) + " arguments, please");
    if constexpr (std::is_void_v<R>)
      return function(argument<P>(words[i])...), 0;
    else
      return static_cast<int64_t>(function(argument<P>(words[i])...));
  };
  return {[run](const std::vector<uint64_t>& words) { return run(words, std::index_sequence_for<P...>()); },
          {kind_of<P>()...}};
}

// Runs the commands of the parameter's text in tests/transcripts. A command is a word and its arguments, which stand in
// parentheses with commas between them, or behind blanks. Semicolons separate the commands of a line. An argument is a
// number, the name of a variable, &name for its address, "text" without blanks, or a sum of two of these with + between.
//   quietly COMMANDS                      the transcript records nothing of the commands
//   failures of COMMANDS after COMMANDS   plays the first commands once for each platform call that they make, each time
//                                         behind the second ones on a fresh platform on which that platform call fails,
//                                         and once more with all later platform calls failing too
//   afterwards COMMAND                    runs the command behind each of the following lines
//   in_child COMMANDS                     runs the commands in a child process, whose are the parent's sessions and
//                                         buffers; its exit status is the result
//   in_fork COMMANDS                      the same where they stay the parent's
//   in_thread COMMAND                     runs the command in another thread
// The commands that every transcript has are in `commands_`. Functions of the library are in `calls_`.
class Transcript : public testing::TestWithParam<const char*> {
 protected:
  using Words = std::vector<std::string>;
  static constexpr char injected[] = "Input/output error";
  static constexpr uint64_t untouched = 0x5a5a5a5a5a5a5a5a;  // what a variable holds at first

  void SetUp() override {
    setenv("PARLO_TRACE", "1", 1);  // the platform prints its calls among what the library prints
    start_afresh();
  }
  void TearDown() override {
    unsetenv("PARLO_TRACE");
    start_afresh();
    parlo_emulator_reset();
  }
  void play() {
    expect_kept_text(played_commands([&](const std::string& line) -> std::string {
      if (line.starts_with("quietly ")) return observe(line.substr(8)), "";
      if (line.starts_with("failures of "))
        return failures(line.substr(12, line.find(" after ") - 12), line.substr(line.find(" after ") + 7));
      return observe(line);
    }));
  }
  // Frees the context without a call of the platform, and resets the platform with all its memory.
  virtual void start_afresh() {
    free(watched());
    parlo_emulator_reset();
    std::fill(std::begin(morun_map_db), std::end(morun_map_db), morun_map_entry{});
    configure("lowest_descriptor", "100");
    context = nullptr;
    fields_.clear();
    names_.clear();
    n_buffer_ = n_handle_ = 0;
    variables_ = {{"nullptr", 0},
                  {"stdout", reinterpret_cast<uintptr_t>(stdout)},
                  {"stderr", reinterpret_cast<uintptr_t>(stderr)}};
  }

  int64_t run(const std::string& commands) {
    if (const bool takes_over = commands.starts_with("in_child "); takes_over || commands.starts_with("in_fork "))
      return status_of_child([&] {
        if (takes_over) parlo_emulator_take_over();
        exit(static_cast<int>(run(commands.substr(commands.find(' ') + 1))) | 0x80);
        return 0;
      });
    int64_t status = 0;
    for (const std::string& command : lines_of(commands, ';')) {
      const Words words = words_of(command);
      if (words[0] == "afterwards") {
        afterwards_ = command.substr(command.find("afterwards") + 10);
        continue;
      }
      if (words[0] == "in_thread") {
        std::thread([&] { run(command.substr(command.find("in_thread") + 9)); }).join();
        continue;
      }
      const auto found = commands_.find(words[0]);
      status |= found != commands_.end() ? found->second({words.begin() + 1, words.end()}) : call(words);
    }
    return status;
  }
  void tell(const std::string& line) { told_ += line + '\n'; }
  // The transcript shows `name` instead of this address.
  void know(const std::string& name, const void* address) { names_[key("address", address)] = name; }
  uint64_t& variable(const std::string& name) {
    if (!name.starts_with("context.")) return variables_.emplace(name, untouched).first->second;
    tavik_context& c = *watched();
    const std::map<std::string, uint64_t*> fields = {{"session_handle[0]", c.session_handle},
                                                     {"active_session", &c.active_session},
                                                     {"n_row_max", &c.n_row_max},
                                                     {"input_matrix_size_max", &c.input_matrix_size_max},
                                                     {"output_matrix_size_max", &c.output_matrix_size_max},
                                                     {"X_size", &c.X_size},
                                                     {"A_size", &c.A_size}};
    return *fields.at(name.substr(8));
  }
  virtual uint64_t value(const std::string& word) {
    const size_t plus = word.find('+');
    if (plus != word.npos) return value(word.substr(0, plus)) + value(word.substr(plus + 1));
    if (word[0] == '&') return reinterpret_cast<uintptr_t>(&variable(word.substr(1)));
    if (word[0] == '"') return reinterpret_cast<uintptr_t>(texts_.emplace_back(word, 1, word.size() - 2).c_str());
    if (isdigit(word[0]) || word[0] == '-') return std::stoull(word, nullptr, 0);
    if (!word.starts_with("context.") && !variables_.contains(word)) throw std::invalid_argument(word);
    return variable(word);
  }
  template <class T = void>
  T* address(const std::string& word) {
    return reinterpret_cast<T*>(value(word));
  }
  template <class T = uint64_t>
  std::vector<T> values(const Words& words, size_t first = 0) {
    std::vector<T> values;
    for (size_t i = first; i < words.size(); ++i) values.push_back(static_cast<T>(value(words[i])));
    return values;
  }
  // Tells for each run of equal bytes how many there are.
  void tell_bytes(const void* memory, uint64_t size) {
    const auto* const bytes = static_cast<const uint8_t*>(memory);
    for (uint64_t start = 0, end; start < size; start = end) {
      for (end = start; end < size && bytes[end] == bytes[start]; ++end) continue;
      told_ += std::to_string(end - start) + " x " + std::to_string(bytes[start]) + " ";
    }
    told_ += '\n';
  }
  static int64_t configure(const std::string& field, const std::string& value) {
    test::configure([&](auto& config) {
      if (field == "module_label") strcpy(config.module_label, value.c_str());
      const auto set = [&]<class T>(const char* name, T& member) {
        if (field == name) member = static_cast<T>(std::stoull(value, nullptr, 0));
      };
      set("session_bytes", config.session_bytes);
      set("allocation_bytes", config.allocation_bytes);
      set("n_sessions", config.n_sessions);
      set("lowest_descriptor", config.lowest_descriptor);
      set("architecture", config.architecture);
      set("module_major", config.module_major);
      set("module_minor", config.module_minor);
      set("module_patch", config.module_patch);
      set("module_architecture", config.module_architecture);
      set("shared_matrix_unit", config.shared_matrix_unit);
    });
    return 0;
  }
  // Class; function or "any", with the number of a method behind it; which call, 0 for every one; status; error number.
  static int64_t arm(const Words& words) {
    const Words classes = {"once", "from_then_on", "truncated", "lost"};
    parlo_emulator_fault fault = {0, PARLO_EMULATOR_ANY_OPERATION, -1, 0, 0, words.size() > 4 ? 0 : EIO};
    fault.fault_class = static_cast<int32_t>(std::find(classes.begin(), classes.end(), words[0]) - classes.begin());
    const std::string function = words[1].substr(0, words[1].find(':'));
    for (int32_t i = 0; i < PARLO_EMULATOR_N_OPERATIONS; ++i)
      if (parlo_emulator_operation_name(i) == function) fault.operation = i;
    if (function != words[1]) fault.method = std::stoi(words[1].substr(function.size() + 1));
    fault.nth = static_cast<uint32_t>(std::stoul(words[2]));
    fault.status = std::stoi(words[3], nullptr, 0);
    if (fault.nth == 0)
      parlo_emulator_fail(fault.operation, fault.method, 0, fault.status, fault.error_number);
    else
      parlo_emulator_arm(&fault);
    return 0;
  }

  std::map<std::string, Call> calls_;
  std::map<std::string, std::function<int64_t(const Words&)>> commands_ = {
      {"configure", [](const Words& w) { return configure(w[0], w[1]); }},
      {"fault", arm},
      {"no_fault", [](const Words&) { return parlo_emulator_clear_fault(), 0; }},
      {"reset", [this](const Words&) { return start_afresh(), 0; }},
      {"let", [this](const Words& w) { return variable(w[0]) = value(w[1]), 0; }},
      {"know", [this](const Words& w) { return know(w[0], address(w[1])), 0; }}};
  // A scenario sets this to false where the entries of freed buffers depend on which addresses the system gives out.
  bool shows_registry_ = true;

 private:
  static Words words_of(std::string command) {
    for (char& c : command)
      if (strchr("(),", c) != nullptr) c = ' ';
    std::istringstream stream(command);
    return {std::istream_iterator<std::string>(stream), {}};
  }
  int64_t call(const Words& words) {
    const Call& function = calls_.at(words[0]);
    const int64_t status = function.run(values(words, 1));
    for (size_t i = 1; i < words.size(); ++i)
      if (words[i][0] == '&' && function.parameters[i - 1] != Call::plain)
        outputs_.emplace_back(words[i].substr(1), function.parameters[i - 1]);
    return status;
  }
  std::string told(uint64_t value, Call::Parameter kind) const {
    const auto word = static_cast<uint32_t>(value);
    const bool is_long = kind == Call::address || kind == Call::long_word;
    if (is_long ? value == untouched : word == static_cast<uint32_t>(untouched)) return "untouched";
    if (kind == Call::signed_word) return std::to_string(static_cast<int32_t>(word));
    if (kind == Call::unsigned_word) return std::to_string(word);
    const auto found = names_.find(key(kind == Call::address ? "address" : "handle", reinterpret_cast<void*>(value)));
    if (found != names_.end()) return found->second;
    return kind == Call::long_word ? std::to_string(value) : value == 0 ? "NULL" : "set";
  }
  tavik_context* watched() const {
    const auto found = variables_.find("c");
    return found == variables_.end()    ? context
           : found->second == untouched ? nullptr
                                        : reinterpret_cast<tavik_context*>(found->second);
  }
  static std::string key(const char* kind, const void* address) {
    char text[64];
    snprintf(text, sizeof text, "%s=0x%zx", kind, reinterpret_cast<uintptr_t>(address));
    return text;
  }

  std::string failures(const std::string& commands, const std::string& preparation) {
    std::string text;
    for (uint32_t nth = 1;; ++nth) {
      const std::string call = "  platform call " + std::to_string(nth) + " fails";
      const std::string once = failing(nth, false, preparation, commands),
                        for_good = failing(nth, true, preparation, commands);
      if (once.empty()) break;
      text += call + (once == for_good ? ", once or for good\n" : " once\n") + once;
      if (once != for_good) text += call + " for good\n" + for_good;
    }
    start_afresh();
    return text;
  }
  std::string failing(uint32_t nth, bool for_good, const std::string& preparation, const std::string& commands) {
    start_afresh();
    observe(preparation);
    const int32_t fault_class = for_good ? PARLO_EMULATOR_FAULT_FROM_THEN_ON : PARLO_EMULATOR_FAULT_ONCE;
    const parlo_emulator_fault fault = {fault_class, PARLO_EMULATOR_ANY_OPERATION, -1, nth, 0x77, EIO};
    parlo_emulator_arm(&fault);
    const std::string observed = observe(commands);
    const bool fired = parlo_emulator_faults_fired() != 0;
    parlo_emulator_clear_fault();
    const size_t failure = observed.find(injected);
    return fired ? indented(observed.substr(observed.rfind('\n', failure) + 1)) : "";
  }

  // Runs commands and returns what can be observed: the platform calls and printed lines in order, the error record, the
  // changes of the context, the outputs of the calls, and the result unless that is 0.
  std::string observe(const std::string& commands) {
    tavik_set_error(-1, "", "", 0, "%s", "");
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const std::string afterwards = afterwards_;
    int64_t status = 0;
    std::string misunderstood;
    try {
      status = run(commands);
    } catch (const std::exception& e) {
      misunderstood = e.what();
    }
    const bool flushed = __fpending(stdout) == 0;
    const std::string errors = testing::internal::GetCapturedStderr(), output = testing::internal::GetCapturedStdout();
    EXPECT_EQ(misunderstood, "") << commands;
    std::string text;
    const auto add = [&](const std::string& what, const std::string& line) {
      text += "  " + what + named(line) + '\n';
    };
    for (const std::string& line : lines_of(with_line_ends(errors))) add("", line);
    for (const std::string& line : lines_of(with_line_ends(output)))
      add(flushed ? "stdout: " : "stdout, not flushed: ", line);
    const tavik_error& error = *tavik_error_get_last();
    if (error.code != -1)
      add("error ", std::to_string(error.code) + " (" + error.function + ", " + error.file + ", line " +
                        std::to_string(error.line) + "): " + replaced(error.message, "\n", [](auto) { return "\\n"; }));
    const Lines before = std::exchange(fields_, fields_of(watched()));
    if (!shows_registry_) std::erase_if(fields_, [](const std::string& line) { return line.starts_with("registry["); });
    for (const std::string& field : fields_)
      if (std::find(before.begin(), before.end(), field) == before.end()) add("context: ", field);
    for (const auto& [name, kind] : std::exchange(outputs_, {})) add(name + " = ", told(variable(name), kind));
    if (afterwards == afterwards_) run(afterwards);
    for (const std::string& line : lines_of(std::exchange(told_, ""))) add("", line);
    return status == 0 ? text : text + "  = " + std::to_string(status) + '\n';
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

  std::string told_, afterwards_;
  std::vector<std::pair<std::string, Call::Parameter>> outputs_;  // of this line's calls
  Lines fields_;
  std::list<std::string> texts_;
  std::map<std::string, uint64_t> variables_;
  std::map<std::string, std::string> names_;
  int n_buffer_ = 0, n_handle_ = 0;
};

}  // namespace test
