// The zeltocom tool run as a user runs it, for the tests: a child process
// against simulated instruments, its output, its JSON and its exit status.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
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

// `env` (VAR=value) over this process's environment less the variables each
// run of the tool is given: no run writes to a database that its test did
// not name.
inline std::vector<std::string> Environment(std::vector<std::string> env = {}) {
  for (char** e = environ; *e != nullptr; ++e) {
    const std::string_view entry = *e;
    if (!entry.starts_with("ZELTOCOM_PORTS=") && !entry.starts_with("ZELTOCOM_DB=")) {
      env.emplace_back(entry);
    }
  }
  return env;
}

inline std::string Slurp(const std::string& file) {
  std::ifstream in(file);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// What was written to the file `fd`, which is closed.
inline std::string Contents(int fd) {
  std::string text = Slurp("/proc/self/fd/" + std::to_string(fd));
  close(fd);
  return text;
}

// Runs `argv` (a path first) with the environment `env` and `input` on its
// stdin, `meanwhile` (given its process) in a thread of its own; a run that
// outlasts 60 s is killed (and fails the status checks).
inline Outcome Run(const std::vector<std::string>& argv, const std::vector<std::string>& env,
                   const std::string& input = "",
                   const std::function<void(pid_t)>& meanwhile = nullptr) {
  // Built before the fork: the child of a threaded process must not allocate.
  const auto pointers = [](const std::vector<std::string>& words) {
    std::vector<char*> all;
    for (const std::string& word : words) all.push_back(const_cast<char*>(word.c_str()));
    all.push_back(nullptr);
    return all;
  };
  const std::vector<char*> args = pointers(argv);
  const std::vector<char*> envp = pointers(env);
  int in[2];
  const int out = memfd_create("stdout", MFD_CLOEXEC);
  const int err = memfd_create("stderr", MFD_CLOEXEC);
  if (pipe2(in, O_CLOEXEC) != 0 || out < 0 || err < 0) return {};
  const pid_t child = fork();
  if (child == 0) {
    dup2(in[0], 0);
    dup2(out, 1);
    dup2(err, 2);
    execve(args[0], args.data(), envp.data());
    _exit(127);
  }
  close(in[0]);
  signal(SIGPIPE, SIG_IGN);
  if (!input.empty()) (void)!write(in[1], input.data(), input.size());
  close(in[1]);
  std::thread side;
  if (meanwhile) side = std::thread(meanwhile, child);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  int status = 0;
  bool ended = false;
  while (!(ended = waitpid(child, &status, WNOHANG) == child) &&
         std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  if (!ended) {
    kill(child, SIGKILL);
    waitpid(child, &status, 0);
  }
  if (side.joinable()) side.join();
  return {ended && WIFEXITED(status) ? WEXITSTATUS(status) : -1, Contents(out), Contents(err)};
}

// The tool run with ZELTOCOM_PORTS = `ports` and `environment` (VAR=value)
// over this process's own.
inline Outcome Tool(const std::vector<std::string>& args, const std::string& ports = "",
                    const std::string& input = "",
                    const std::function<void(pid_t)>& meanwhile = nullptr,
                    const std::vector<std::string>& environment = {}) {
  std::vector<std::string> argv = {ZELTOCOM_TOOL};
  argv.insert(argv.end(), args.begin(), args.end());
  std::vector<std::string> env = environment;
  env.push_back("ZELTOCOM_PORTS=" + ports);
  return Run(argv, Environment(std::move(env)), input, meanwhile);
}

// A shell command's run.
inline Outcome Shell(const std::string& command) {
  return Run({"/bin/sh", "-c", command}, Environment());
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

// A JSON document flattened to "/members/0/name" -> value (strings without
// quotes, other values as JSON writes them, empty arrays and objects as
// null); not valid() when the text is not exactly one valid JSON document.
class FlatJson {
 public:
  explicit FlatJson(const std::string& text) : flat_(nlohmann::json::parse(text, nullptr, false)) {
    if (valid()) flat_ = flat_.flatten();
  }
  bool valid() const { return !flat_.is_discarded(); }
  bool has(const std::string& path) const { return valid() && flat_.contains(path); }
  std::string operator[](const std::string& path) const {
    if (!has(path)) return "<absent " + path + ">";
    const nlohmann::json& value = flat_.at(path);
    return value.is_string() ? value.get<std::string>() : value.dump();
  }

 private:
  nlohmann::json flat_;
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
