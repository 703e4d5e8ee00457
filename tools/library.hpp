// The subcommands' way to the instruments: the library's C interface, with
// its results turned into answers and its failures into Stop.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace cli {

struct Answer {
  int result = 0;     // the library's 1, 0 or -1
  std::string text;   // the answer, when result is 1
  std::string error;  // the library's error text otherwise
  bool ok() const { return result == 1; }
};

// Room for the paths the library writes into an array of buffers.
struct PathBuffers {
  explicit PathBuffers(std::size_t count);
  std::vector<std::string> First(int count) const;
  std::vector<std::vector<char>> storage;
  std::vector<char*> pointers;
};

// Where the library's list of ports came from: as the JSON names it and as
// a person reads it.
struct Origin {
  const char* key;
  const char* text;
};
Origin PortsOrigin();
// The ports the library lists, in its order.
std::vector<std::string> EnumeratedPorts();

// The listed path that `name` stands for: a listed path, a link to one, or
// the serial number of an instrument on one (found by probing them). Fails
// saying what was looked at.
std::string ResolvePort(const std::string& name, int baud);

std::string LastError();
std::string PortError(const std::string& path);

// Nothing for a result of 1; else ends with the library's error text for
// `path` as a failure: the tool has judged its arguments before, so what the
// library refuses then is the instrument's state (unplugged, busy, another
// model).
void Require(int result, const std::string& path);

// Opens the port `name` stands for (ResolvePort), searching the rate when
// `baud` is 0, and gives its path. A refused rate is bad usage, any other
// failure an instrument's.
std::string OpenPort(const std::string& name, int baud);
// Opens all at once; on a failure none stays open.
void OpenPorts(const std::vector<std::string>& paths, int baud);

Answer Send(const std::string& path, const std::string& command);
Answer ChainSend(const std::string& path, const std::string& serial, const std::string& command);
// The same command to every port at once; answers in the order of `paths`.
std::vector<Answer> SendToEach(const std::vector<std::string>& paths, const std::string& command);
// `call` on every path at once, each in a thread of its own; a result other
// than 1 comes with the library's error text of that thread.
std::vector<Answer> AtOnce(const std::vector<std::string>& paths,
                           const std::function<int(const std::string&)>& call);
// The answer's text, or Failure naming `where` and the library's error.
std::string Expect(const Answer& answer, const std::string& where);

std::string SerialOf(const std::string& path);

// An answer's lines, without their line ends ("\r\n" or "\n") and without
// the empty lines at its end.
std::vector<std::string> Lines(const std::string& text);

// "GETxyI" and 3 make "GETxyI03".
std::string FiberCommand(const std::string& name, int fiber);

// The entries of `all` that have not failed (each has ok()).
template <typename Entry>
std::vector<Entry*> Working(std::vector<Entry>& all) {
  std::vector<Entry*> working;
  for (Entry& entry : all) {
    if (entry.ok()) working.push_back(&entry);
  }
  return working;
}

// The device path of each entry.
template <typename Entry>
std::vector<std::string> PathsOf(const std::vector<Entry*>& entries) {
  std::vector<std::string> paths;
  for (const Entry* entry : entries) paths.push_back(entry->path);
  return paths;
}

}  // namespace cli
