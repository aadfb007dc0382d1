// Tests compare what they observe with texts in tests/transcripts. A person has read these texts before they are kept.
// MORUN_WRITE_TRANSCRIPTS=1 in the environment writes them anew.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>

namespace test {

inline std::string file_contents(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

// Returns the path of the running test's file in this folder. The file of a test with parameters has the parameter's name.
inline std::string file_of_test(const std::string& folder) {
  const std::string name = testing::UnitTest::GetInstance()->current_test_info()->name();
  return folder + "/" + name.substr(name.find('/') + 1) + ".txt";
}

inline void expect_kept_text(const std::string& text) {
  const std::string expected = file_of_test(MORUN_TRANSCRIPTS), actual = file_of_test(MORUN_ACTUAL_TRANSCRIPTS);
  std::ofstream(getenv("MORUN_WRITE_TRANSCRIPTS") != nullptr ? expected : actual) << text;
  if (file_contents(expected) == text) return;
  ADD_FAILURE() << "What is observed differs from " << expected << "; it stands in " << actual;
  fflush(stdout);
  EXPECT_NE(system(("diff -u '" + expected + "' '" + actual + "'").c_str()), 0);
}

// Returns the text with every line indented.
inline std::string indented(const std::string& text, const std::string& by = "  ") {
  std::istringstream stream(text);
  std::string lines;
  for (std::string line; std::getline(stream, line);) lines += by + line + '\n';
  return lines;
}

// Runs each line of the kept text that starts with "$ " as a command. Returns the text with the results of this run:
// the indented lines behind a command are its result. All other lines are for the reader.
inline std::string played_commands(const std::function<std::string(const std::string& command)>& run) {
  std::istringstream script(file_contents(file_of_test(MORUN_TRANSCRIPTS)));
  std::string text;
  size_t n_command = 0;
  for (std::string line; std::getline(script, line);) {
    if (line.starts_with("  ")) continue;
    text += line + '\n';
    if (!line.starts_with("$ ")) continue;
    text += run(line.substr(2));
    ++n_command;
  }
  EXPECT_GT(n_command, 0u);
  return text;
}

}  // namespace test
