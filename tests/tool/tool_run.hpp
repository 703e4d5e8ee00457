// The zeltocom tool run as a user runs it, for the tests: a child process
// against simulated instruments, its output, its JSON and its exit status.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <vector>

#include "zeltosim/zeltosim.hpp"

extern char** environ;

struct Outcome {
  int status = -1;
  std::string out;
  std::string err;
};

// Runs the tool with ZELTOCOM_PORTS = `ports` and `input` on its stdin,
// `meanwhile` (given the tool's process) in a thread of its own; a run that
// outlasts 60 s is killed (and fails the status checks). `environment`
// (VAR=value) stands before this process's own, which getenv() finds later;
// its ZELTOCOM_DB is left out, so that no run writes to a database the test
// did not name.
inline Outcome Tool(const std::vector<std::string>& args, const std::string& ports = "",
                    const std::string& input = "",
                    const std::function<void(pid_t)>& meanwhile = nullptr,
                    const std::vector<std::string>& environment = {}) {
  std::vector<std::string> env = environment;
  env.push_back("ZELTOCOM_PORTS=" + ports);
  for (char** e = environ; *e != nullptr; ++e) {
    const std::string_view entry = *e;
    if (!entry.starts_with("ZELTOCOM_PORTS=") && !entry.starts_with("ZELTOCOM_DB=")) {
      env.emplace_back(entry);
    }
  }
  std::vector<char*> argv = {const_cast<char*>(ZELTOCOM_TOOL)};
  for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
  argv.push_back(nullptr);
  std::vector<char*> envp;
  for (std::string& entry : env) envp.push_back(entry.data());
  envp.push_back(nullptr);
  int in[2], out[2], err[2];
  if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) {
    return {};
  }
  const pid_t child = fork();
  if (child == 0) {
    dup2(in[0], 0);
    dup2(out[1], 1);
    dup2(err[1], 2);
    execve(argv[0], argv.data(), envp.data());
    _exit(127);
  }
  close(in[0]);
  close(out[1]);
  close(err[1]);
  signal(SIGPIPE, SIG_IGN);
  if (!input.empty()) (void)!write(in[1], input.data(), input.size());
  close(in[1]);
  std::thread side;
  if (meanwhile) side = std::thread(meanwhile, child);

  Outcome run;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  pollfd fds[2] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
  std::string* sinks[2] = {&run.out, &run.err};
  int open = 2;
  while (open > 0 && std::chrono::steady_clock::now() < deadline) {
    if (poll(fds, 2, 100) <= 0) continue;
    for (int k = 0; k < 2; ++k) {
      if (fds[k].fd < 0 || fds[k].revents == 0) continue;
      char chunk[4096];
      const ssize_t n = read(fds[k].fd, chunk, sizeof chunk);
      if (n > 0) {
        sinks[k]->append(chunk, static_cast<std::size_t>(n));
      } else {
        close(fds[k].fd);
        fds[k].fd = -1;
        --open;
      }
    }
  }
  if (open > 0) kill(child, SIGKILL);
  for (const pollfd& fd : fds) {
    if (fd.fd >= 0) close(fd.fd);
  }
  int status = 0;
  waitpid(child, &status, 0);
  if (side.joinable()) side.join();
  run.status = WIFEXITED(status) && open == 0 ? WEXITSTATUS(status) : -1;
  return run;
}

// What a shell command prints on stdout, and its exit status.
inline Outcome Shell(const std::string& command) {
  Outcome run;
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return run;
  char chunk[4096];
  std::size_t got = 0;
  while ((got = std::fread(chunk, 1, sizeof chunk, pipe)) > 0) run.out.append(chunk, got);
  const int status = pclose(pipe);
  run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return run;
}

inline std::string Slurp(const std::string& file) {
  std::ifstream in(file);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// A directory of its own for each test, as ctest runs them side by side;
// removed with everything in it. Its path is empty when none could be made.
class TempDir {
 public:
  TempDir() {
    std::string name = (std::filesystem::temp_directory_path() / "zeltocom-tool-XXXXXX").string();
    path_ = mkdtemp(name.data()) != nullptr ? name : "";
  }
  ~TempDir() {
    std::error_code ignored;
    if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  bool made() const { return !path_.empty(); }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// A JSON document flattened to "members/0/name" -> value (strings without
// quotes, other values as JSON writes them, empty arrays and objects not at
// all); not valid() when the text is not exactly one valid JSON document.
class FlatJson {
 public:
  explicit FlatJson(const std::string& text) {
    const auto document = nlohmann::json::parse(text, nullptr, false);
    valid_ = !document.is_discarded();
    if (valid_) Flatten(document, "");
  }
  bool valid() const { return valid_; }
  bool has(const std::string& path) const { return values_.count(path) > 0; }
  std::string operator[](const std::string& path) const {
    const auto found = values_.find(path);
    return found == values_.end() ? "<absent " + path + ">" : found->second;
  }

 private:
  void Flatten(const nlohmann::json& value, const std::string& path) {
    if (!value.is_structured()) {
      values_[path] = value.is_string() ? value.get<std::string>() : value.dump();
      return;
    }
    for (const auto& member : value.items()) Flatten(member.value(), path + "/" + member.key());
  }

  bool valid_ = false;
  std::map<std::string, std::string> values_;
};

// The JSON of a run of the tool that should end with `status`.
inline FlatJson ToolJson(const std::vector<std::string>& args, const std::string& ports = "",
                         int status = 0) {
  const Outcome run = Tool(args, ports);
  EXPECT_EQ(run.status, status) << ::testing::PrintToString(args) << "\n" << run.err;
  FlatJson json(run.out);
  EXPECT_TRUE(json.valid()) << ::testing::PrintToString(args) << "\n" << run.out;
  return json;
}

inline zeltosim::Config Analyser(const std::string& serial, int fibers = 2) {
  zeltosim::Config config;
  config.serial = serial;
  config.fibers.resize(static_cast<std::size_t>(fibers));
  return config;
}

inline std::string Ports(const std::vector<const zeltosim::SimPort*>& ports) {
  return zeltosim::PortsVariable(ports);
}
