#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "frame/fixed_text.hpp"

namespace zeltocom {

// Settings of one adjustment set as last read from or written to the
// instrument; -1 means not yet asked.
struct FiberSettings {
  int factor = -1;
  int averages = -1;
  int intensityMode = -1;  // 1 logarithmic, 0 linear
  int pwm = -1;
  float customTime = -1.0f;
};

constexpr int kAdjustmentSets = 99;

struct s_CommPorts;

// One opened instrument: directly on a serial port, or daisy-chained behind
// one (then `parent` is the port's record and `fd` is the parent's).
struct s_CommPort {
  int fd = -1;
  FixedText<254> devicePath;
  FixedText<20> deviceIdText;
  FixedText<15> serialNumber;
  FixedText<27> hardwareDescriptor;  // empty: not asked yet
  int deviceType = 0;
  FixedText<20> firmwareText;
  int firmwareNumber = -1;
  FixedText<10> eotFormat;  // end-of-response marker
  int baudrate = 0;
  double charTimeMs = 0.15;
  int numFibers = -1;
  std::array<FiberSettings, kAdjustmentSets> fiberSettings{};
  FiberSettings* fiberSettingsCur = nullptr;
  int adjustmentSet = -1;
  int sequenceTimeout = -1;
  int sequenceSamples = -1;
  int sequencePeriod = -1;
  int patternThresholdLow = -1;
  int patternThresholdHigh = -1;
  int captureState = 0;  // 1 after a sequence capture, 0 after any other capture
  std::string lastResponse;
  FixedText<512> errorText;
  bool autoResponseTimeout = true;
  std::unique_ptr<std::thread> triggerThread;
  std::atomic<int> triggerState{0};
  std::atomic<bool> triggerAbort{false};
  int triggerPreDelay = 0;
  int triggerPostDelay = 0;
  s_CommPort* prev = nullptr;
  s_CommPort* next = nullptr;
  std::unique_ptr<s_CommPorts> chain;
  s_CommPort* parent = nullptr;
  s_CommPort* busOwner = nullptr;  // who holds this port's line now
  int busState = 1;                // 1: the master holds its line

  // Makes `set` the current adjustment set and forgets what was cached for it.
  void SelectAdjustmentSet(int set);
};

// A doubly linked list that owns its records.
struct s_CommPorts {
  int count = 0;
  s_CommPort* first = nullptr;
  s_CommPort* last = nullptr;

  s_CommPorts() = default;
  s_CommPorts(const s_CommPorts&) = delete;
  s_CommPorts& operator=(const s_CommPorts&) = delete;
  ~s_CommPorts();
};

// A firmware text as a number: -1 when empty, 999 for beta versions (second
// character 'B'), else its digits.
int FirmwareNumberOf(std::string_view firmwareText);

// The directly opened ports of the process.
extern s_CommPorts OpenedPorts;

int PortsList_Add(s_CommPorts* list, s_CommPort* parent, int fd, std::string_view devicePath,
                  std::string_view serialNumber, std::string_view firmwareText,
                  std::string_view eotFormat, int baudrate, double charTimeMs);
s_CommPort* PortsList_GetBySerialNumber(s_CommPorts* list, std::string_view serialNumber);
s_CommPort* PortsList_GetByDevPath(std::string_view devicePath);
s_CommPort* PortsList_GetByHandler(const int& fd);
s_CommPort* PortsList_GetByIndex(s_CommPorts* list, int index);
// The records of `list` in order, taken under the list's lock.
std::vector<s_CommPort*> PortsList_All(s_CommPorts* list);
void PortsList_Del(s_CommPorts* list, s_CommPort* port);
void PortsList_DelBySerialNumber(s_CommPorts* list, std::string_view serialNumber);
void PortsList_DelByDevPath(s_CommPorts* list, std::string_view devicePath);
void PortsList_DelByIndex(s_CommPorts* list, int index);
void PortsList_Swap(s_CommPorts* list, s_CommPort* a, s_CommPort* b);

// One device of a project file: the ID a host addresses it by.
struct s_IDPort {
  FixedText<254> devicePath;
  FixedText<50> deviceID;
  FixedText<16> serialNumber;
  int64_t baudrate = 0;
  bool chained = false;
};

extern std::vector<s_IDPort> lstIDtoPort;

const s_IDPort* IDtoPortList_GetPortByDeviceID(const std::vector<s_IDPort>& table,
                                               std::string_view deviceID);
const s_IDPort* IDtoPortList_GetByDevPath(const std::vector<s_IDPort>& table,
                                          std::string_view devicePath);

}  // namespace zeltocom
