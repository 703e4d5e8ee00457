#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "frame/clock.hpp"
#include "frame/fixed_text.hpp"
#include "frame/listener.hpp"
#include "frame/serial_line.hpp"
#include "zeltocom.h"

namespace zeltocom {

// The scale an instrument reports intensities in.
enum class IntensityMode { Unknown = -1, Linear = 0, Logarithmic = 1 };

// Settings of one adjustment set as last read from or written to the
// instrument; -1 means not yet asked.
struct FiberSettings {
  int factor = -1;
  int averages = -1;
  IntensityMode intensityMode = IntensityMode::Unknown;
  int pwm = -1;
  float customTime = -1.0f;
};

constexpr int kAdjustmentSets = 99;

// The settings cache of an instrument, kept by the device layer's loaders
// and by the generic send, which follows the commands that change them.
struct SettingsCache {
  SettingsCache() = default;
  ~SettingsCache() = default;
  // `current` points into the object.
  SettingsCache(const SettingsCache&) = delete;
  SettingsCache& operator=(const SettingsCache&) = delete;
  SettingsCache(SettingsCache&&) = delete;
  SettingsCache& operator=(SettingsCache&&) = delete;

  int numFibers = -1;
  std::array<FiberSettings, kAdjustmentSets> sets{};
  FiberSettings* current = sets.data();
  int adjustmentSet = -1;  // -1: not asked yet

  // Makes `set` the current adjustment set, as the instrument told it.
  void UseAdjustmentSet(int set);
  // Makes `set` current and forgets what was cached for it: the instrument
  // was told to switch.
  void SelectAdjustmentSet(int set);
};

// What the last sequence set-up asked for; the sequence calls' own.
struct SequenceSetup {
  int samples = -1;  // -1: not set up
  int periodMs = -1;
  TimeoutMs timeoutMs = -1;
};

// The intensity thresholds that the pattern analysis uses instead of its
// automatic ones; -1 when not set. The sequence calls' own.
struct PatternThresholds {
  int low = -1;
  int high = -1;
};

// What the instrument's memory holds after the last capture; the capture
// calls' own, read by the sequence readouts.
struct LastCapture {
  bool sequence = false;  // a sequence capture, not a plain one
};

// The longest device path a port record holds.
constexpr std::size_t kMaxPathLength = ZELTOCOM_DEVICE_PATH_SIZE - 1;

// The longest serial number an instrument reports.
constexpr std::size_t kMaxSerialLength = ZELTOCOM_SERIAL_NUMBER_SIZE - 1;

// The last answer of a port, as ZeltoCom_GetResponseByPort hands it out, or
// the last message its instrument sent unasked. Under a lock of its own, so
// that reading it neither waits for the line nor ends a trigger listener.
class LastResponse {
 public:
  // Stores an answer, or what a trigger listener received.
  void Store(std::string text);
  // Stores a message the instrument sent unasked while the line was busy
  // with something else.
  void StoreUnasked(std::string text);
  // A mark to pass to StoreAnswer: how many unasked messages came so far.
  std::uint64_t mark() const;
  // Stores the answer of an exchange that began at `mark`, unless an unasked
  // message came during it: that one is newer to the host.
  void StoreAnswer(std::string text, std::uint64_t mark);
  std::string Get() const;

 private:
  mutable std::mutex mutex_;
  std::string text_;
  std::uint64_t unasked_ = 0;
};

struct s_CommPort;
// Records are shared: a call that found a port keeps it alive while it works,
// even when another thread closes the port meanwhile.
using PortRef = std::shared_ptr<s_CommPort>;

// A list of records that owns them. Its structure is read and changed only
// under the registry lock, through the PortsList_ operations.
struct s_CommPorts {
  std::vector<PortRef> records;
};

// One opened instrument: directly on a serial port (a master), or
// daisy-chained behind one (then `parent` is the master's record).
//
// Who may touch what:
// - `line`, `devicePath`, `deviceNumber`, `serialNumber` and `parent` are set
//   when the record is made and never change; any thread may read them.
// - `baudrate` and `autoResponseTimeout` are read by queries that do not
//   take the line, so they are atomic.
// - `errorText` is read and written under the error lock (frame/errors),
//   `lastResponse` under its own.
// - Everything else, the chain and the records in it included, belongs to
//   whoever holds the master's line (LockLine); the descriptor is closed, and
//   the line's `fd` set to -1, only under it.
// - A trigger listener reads the line's `fd` without holding the line;
//   taking the line stops and joins it first.
struct s_CommPort {
  // The master's line, shared by the instruments chained behind it.
  std::shared_ptr<SerialLine> line;
  FixedText<ZELTOCOM_DEVICE_PATH_SIZE> devicePath;
  // The device behind the path (0 unknown), so that one device opened under
  // two names is told.
  std::uint64_t deviceNumber = 0;
  FixedText<20> deviceIdText;
  FixedText<ZELTOCOM_SERIAL_NUMBER_SIZE> serialNumber;
  FixedText<27> hardwareDescriptor;  // empty: not asked yet
  int deviceType = 0;
  FixedText<20> firmwareText;
  int firmwareNumber = -1;
  FixedText<10> eotFormat;  // end-of-response marker
  std::atomic<int> baudrate{0};
  double charTimeMs = 0.15;
  SettingsCache settings;
  SequenceSetup sequence;
  PatternThresholds pattern;
  LastCapture capture;
  LastResponse lastResponse;
  FixedText<ZELTOCOM_ERROR_TEXT_SIZE> errorText;
  std::atomic<bool> autoResponseTimeout{true};
  s_CommPorts chain;
  s_CommPort* parent = nullptr;
  s_CommPort* busOwner = nullptr;  // who holds this master's line now
  // Of a master: the serial number of a chained instrument that was removed
  // while it held the line. It holds it still, so the line is freed before
  // the master's next exchange; empty when nothing is owed.
  FixedText<ZELTOCOM_SERIAL_NUMBER_SIZE> removedHolder;
  std::mutex lineMutex;  // of a master: one exchange at a time
  // Of a master: waits for the trigger's message. Last, so that it is
  // stopped before the members its thread uses go.
  TriggerListener trigger;

  // Sets the firmware text and the number derived from it, always together.
  void SetFirmware(std::string_view text, std::size_t maxLength = 19);
  // The record of the physical port: the parent of a chained record, else itself.
  s_CommPort* Master() { return parent != nullptr ? parent : this; }
  // Of a master: `owner` (this record or a chained one) holds the line now,
  // as an answer of the instrument showed.
  void SetBusOwner(s_CommPort* owner);
  // The descriptor of the line; -1 once the port is closed.
  int fd() const { return line->fd; }
};

// A firmware text as a number: -1 when empty, 999 for beta versions (second
// character 'B'), else its digits.
int FirmwareNumberOf(std::string_view firmwareText);

// Takes the line of `port`'s master: exchanges on one serial line never
// interleave, and the line is not closed while it is held. A trigger
// listener on the line ends first.
std::unique_lock<std::mutex> LockLine(s_CommPort& port);

// The directly opened ports of the process.
extern s_CommPorts OpenedPorts;

// Adds a record at the end of `list`; null when memory ran out.
// A chained record shares its parent's line.
PortRef PortsList_Add(s_CommPorts* list, s_CommPort* parent, std::shared_ptr<SerialLine> line,
                      std::string_view devicePath, std::string_view serialNumber,
                      std::string_view firmwareText, std::string_view eotFormat, int baudrate,
                      double charTimeMs, std::uint64_t deviceNumber = 0);
// Serial numbers are compared without regard to letter case.
PortRef PortsList_GetBySerialNumber(const s_CommPorts* list, std::string_view serialNumber);
// Searches the opened ports; paths are compared exactly.
PortRef PortsList_GetByDevPath(std::string_view devicePath);
PortRef PortsList_GetByIndex(const s_CommPorts* list, int index);
int PortsList_Count(const s_CommPorts* list);
// The records of `list` in order.
std::vector<PortRef> PortsList_All(const s_CommPorts* list);
// Removes `port` (a master with its chain); false when it was not in `list`.
// The caller holds the master's line. The descriptor is not closed here.
// When a chained instrument that holds the line goes, the master frees the
// line before its next exchange.
bool PortsList_Del(s_CommPorts* list, const s_CommPort* port);
void PortsList_DelBySerialNumber(s_CommPorts* list, std::string_view serialNumber);
void PortsList_DelByDevPath(s_CommPorts* list, std::string_view devicePath);
void PortsList_DelByIndex(s_CommPorts* list, int index);
void PortsList_Swap(s_CommPorts* list, const s_CommPort* a, const s_CommPort* b);

// One device of a project file: the ID a host addresses it by.
struct s_IDPort {
  FixedText<ZELTOCOM_DEVICE_PATH_SIZE> devicePath;
  FixedText<50> deviceID;
  FixedText<16> serialNumber;
  int64_t baudrate = 0;
  bool chained = false;
};

// The table of project devices (lstIDtoPort); look-ups return copies.
void IDtoPortList_Add(const s_IDPort& row);
void IDtoPortList_Clear();
std::optional<s_IDPort> IDtoPortList_GetPortByDeviceID(std::string_view deviceID);
// A copy of the whole table, in order.
std::vector<s_IDPort> IDtoPortList_All();

}  // namespace zeltocom
