// The zeltocom tool run as a user runs it, for the tests: a child process
// against simulated instruments, its output, its JSON and its exit status.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <regex>
#include <string>
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
// outlasts 60 s is killed (and fails the status checks).
inline Outcome Tool(const std::vector<std::string>& args, const std::string& ports = "",
                    const std::string& input = "",
                    const std::function<void(pid_t)>& meanwhile = nullptr) {
  std::vector<std::string> env = {"ZELTOCOM_PORTS=" + ports};
  for (char** e = environ; *e != nullptr; ++e) {
    if (std::strncmp(*e, "ZELTOCOM_PORTS=", 15) != 0) env.emplace_back(*e);
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

// A JSON document flattened to "members/0/name" -> value (strings without
// quotes); false when the text is not exactly one valid JSON document.
class FlatJson {
 public:
  explicit FlatJson(const std::string& text) : s_(text) {
    valid_ = Value("") && (Space(), i_ == s_.size());
  }
  bool valid() const { return valid_; }
  bool has(const std::string& path) const { return values_.count(path) > 0; }
  std::string operator[](const std::string& path) const {
    const auto found = values_.find(path);
    return found == values_.end() ? "<absent " + path + ">" : found->second;
  }

 private:
  void Space() {
    while (i_ < s_.size() && std::strchr(" \t\r\n", s_[i_]) != nullptr) ++i_;
  }
  bool Eat(char c) {
    Space();
    if (i_ >= s_.size() || s_[i_] != c) return false;
    ++i_;
    return true;
  }
  bool Value(const std::string& path) {
    Space();
    if (Eat('{')) {
      if (Eat('}')) return true;
      do {
        std::string key;
        if (!String(key) || !Eat(':') || !Value(path + "/" + key)) return false;
      } while (Eat(','));
      return Eat('}');
    }
    if (Eat('[')) {
      if (Eat(']')) return true;
      int index = 0;
      do {
        if (!Value(path + "/" + std::to_string(index++))) return false;
      } while (Eat(','));
      return Eat(']');
    }
    std::string text;
    if (i_ < s_.size() && s_[i_] == '"') {
      if (!String(text)) return false;
      values_[path] = text;
      return true;
    }
    static const std::regex literal(
        R"(true|false|null|-?(0|[1-9][0-9]*)(\.[0-9]+)?([eE][+-]?[0-9]+)?)");
    std::smatch match;
    const auto from = s_.begin() + static_cast<long>(i_);
    if (!std::regex_search(from, s_.end(), match, literal,
                           std::regex_constants::match_continuous)) {
      return false;
    }
    values_[path] = match.str();
    i_ += match.str().size();
    return true;
  }
  bool String(std::string& text) {
    if (!Eat('"')) return false;
    while (i_ < s_.size() && s_[i_] != '"') {
      const unsigned char c = static_cast<unsigned char>(s_[i_++]);
      if (c < 0x20) return false;
      if (c != '\\') {
        text += static_cast<char>(c);
        continue;
      }
      if (i_ >= s_.size()) return false;
      const char e = s_[i_++];
      if (e == 'u') {
        if (i_ + 4 > s_.size()) return false;
        const std::string hex = s_.substr(i_, 4);
        if (hex.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) return false;
        const long code = std::strtol(hex.c_str(), nullptr, 16);
        text += code < 0x80 ? static_cast<char>(code) : '?';
        i_ += 4;
      } else if (const char* known = std::strchr("\"\\/bfnrt", e); known != nullptr && e != 0) {
        text += "\"\\/\b\f\n\r\t"[known - "\"\\/bfnrt"];
      } else {
        return false;
      }
    }
    return Eat('"');
  }

  const std::string& s_;
  std::size_t i_ = 0;
  bool valid_ = false;
  std::map<std::string, std::string> values_;
};

inline zeltosim::Config Analyser(const std::string& serial, int fibers = 2) {
  zeltosim::Config config;
  config.serial = serial;
  config.fibers.resize(static_cast<std::size_t>(fibers));
  return config;
}

inline std::string Ports(const std::vector<const zeltosim::SimPort*>& ports) {
  return zeltosim::PortsVariable(ports);
}
