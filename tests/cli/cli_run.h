// Running kivcam as a user does: a shell command line, its output and exit code.
#pragma once

#include <sys/wait.h>

#include <cstdio>
#include <string>

namespace clitest {

struct Result {
  int code = -1;
  std::string out;
};

// Runs a shell command line, stdout and stderr together.
inline Result RunLine(const std::string& line) {
  std::string cmd = line + " 2>&1";
  Result r;
  FILE* p = popen(cmd.c_str(), "r");
  if (!p) return r;
  char buf[4096];
  while (size_t n = fread(buf, 1, sizeof buf, p)) r.out.append(buf, n);
  int status = pclose(p);
  r.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return r;
}

// kivcam with arguments, and with `input` on its standard input.
inline Result Kivcam(const std::string& args, const std::string& input = "") {
  std::string line = std::string(KIVCAM_CLI) + " " + args + " </dev/null";
  if (!input.empty()) {
    std::string quoted;
    for (char c : input) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    line = "printf '%s' '" + quoted + "' | " + std::string(KIVCAM_CLI) + " " + args;
  }
  return RunLine(line);
}

inline bool Has(const Result& r, const std::string& text) { return r.out.find(text) != std::string::npos; }

}  // namespace clitest
