#include "frame/registry.hpp"

#include <algorithm>
#include <new>

#include "frame/utils.hpp"

namespace zeltocom {

s_CommPorts OpenedPorts;

namespace {

// Guards the structure of every s_CommPorts and the project table. Held only
// while a list is read or changed, never across an exchange.
std::mutex mtxOPL;
std::vector<s_IDPort> lstIDtoPort;

template <typename Match>
PortRef Find(const s_CommPorts* list, Match match) {
  std::lock_guard lock(mtxOPL);
  for (const PortRef& p : list->records) {
    if (match(*p)) return p;
  }
  return nullptr;
}

template <typename Match>
std::optional<s_IDPort> FindRow(Match match) {
  std::lock_guard lock(mtxOPL);
  for (const s_IDPort& row : lstIDtoPort) {
    if (match(row)) return row;
  }
  return std::nullopt;
}

}  // namespace

void LastResponse::Store(std::string text) {
  std::lock_guard lock(mutex_);
  text_ = std::move(text);
}

void LastResponse::StoreUnasked(std::string text) {
  std::lock_guard lock(mutex_);
  text_ = std::move(text);
  ++unasked_;
}

std::uint64_t LastResponse::mark() const {
  std::lock_guard lock(mutex_);
  return unasked_;
}

void LastResponse::StoreAnswer(std::string text, std::uint64_t mark) {
  std::lock_guard lock(mutex_);
  if (unasked_ == mark) text_ = std::move(text);
}

std::string LastResponse::Get() const {
  std::lock_guard lock(mutex_);
  return text_;
}

int FirmwareNumberOf(std::string_view firmwareText) {
  if (firmwareText.empty()) return -1;
  if (firmwareText.size() > 1 && firmwareText[1] == 'B') return 999;
  return ParseInt(firmwareText);
}

void s_CommPort::SelectAdjustmentSet(int set) {
  adjustmentSet = set;
  fiberSettingsCur = &fiberSettings[static_cast<std::size_t>(set)];
  *fiberSettingsCur = FiberSettings{};
}

void s_CommPort::SetBusOwner(s_CommPort* owner) {
  busOwner = owner;
  // Whoever the removed instrument was, it let go.
  if (owner == this) removedHolder.clear();
}

void s_CommPort::SetFirmware(std::string_view text, std::size_t maxLength) {
  firmwareText.assign(text, maxLength);
  firmwareNumber = FirmwareNumberOf(firmwareText.view());
}

std::unique_lock<std::mutex> LockLine(s_CommPort& port) {
  s_CommPort* master = port.Master();
  std::unique_lock line(master->lineMutex);
  // Taken after the line, so that a listener started by the call that held
  // it before cannot slip in between.
  master->trigger.Stop();
  // Each call tries once to bring a line back in step.
  master->line->resyncFailed = false;
  return line;
}

PortRef PortsList_Add(s_CommPorts* list, s_CommPort* parent, std::shared_ptr<SerialLine> line,
                      std::string_view devicePath, std::string_view serialNumber,
                      std::string_view firmwareText, std::string_view eotFormat, int baudrate,
                      double charTimeMs, std::uint64_t deviceNumber) {
  PortRef port;
  try {
    port = std::make_shared<s_CommPort>();
    port->line = std::move(line);
    port->devicePath.assign(devicePath);
    port->deviceNumber = deviceNumber;
    port->serialNumber.assign(strtoupper(serialNumber));
    port->SetFirmware(firmwareText);
    port->eotFormat.assign(eotFormat);
    port->baudrate = baudrate;
    port->charTimeMs = charTimeMs;
    port->fiberSettingsCur = &port->fiberSettings[0];
    port->parent = parent;
    port->busOwner = parent == nullptr ? port.get() : nullptr;
    std::lock_guard lock(mtxOPL);
    list->records.push_back(port);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
  return port;
}

PortRef PortsList_GetBySerialNumber(const s_CommPorts* list, std::string_view serialNumber) {
  const std::string key = strtoupper(serialNumber);
  return Find(list, [&](const s_CommPort& p) { return p.serialNumber == key; });
}

PortRef PortsList_GetByDevPath(std::string_view devicePath) {
  return Find(&OpenedPorts, [&](const s_CommPort& p) { return p.devicePath == devicePath; });
}

PortRef PortsList_GetByIndex(const s_CommPorts* list, int index) {
  std::lock_guard lock(mtxOPL);
  if (index < 0 || static_cast<std::size_t>(index) >= list->records.size()) return nullptr;
  return list->records[static_cast<std::size_t>(index)];
}

int PortsList_Count(const s_CommPorts* list) {
  std::lock_guard lock(mtxOPL);
  return static_cast<int>(list->records.size());
}

std::vector<PortRef> PortsList_All(const s_CommPorts* list) {
  std::lock_guard lock(mtxOPL);
  return list->records;
}

bool PortsList_Del(s_CommPorts* list, const s_CommPort* port) {
  if (list == nullptr || port == nullptr) return false;
  PortRef removed;
  {
    std::lock_guard lock(mtxOPL);
    const auto it = std::ranges::find(list->records, port, &PortRef::get);
    if (it == list->records.end()) return false;
    removed = std::move(*it);
    list->records.erase(it);
    // The chained instruments are reached through this record only.
    removed->chain.records.clear();
  }
  s_CommPort* master = removed->parent;
  if (master != nullptr && master->busOwner == removed.get()) {
    // The instrument still holds the line; only the record goes.
    master->busOwner = master;
    master->removedHolder.assign(removed->serialNumber.view());
  }
  return true;
}

void PortsList_DelBySerialNumber(s_CommPorts* list, std::string_view serialNumber) {
  PortsList_Del(list, PortsList_GetBySerialNumber(list, serialNumber).get());
}

void PortsList_DelByDevPath(s_CommPorts* list, std::string_view devicePath) {
  PortsList_Del(list,
                Find(list, [&](const s_CommPort& p) { return p.devicePath == devicePath; }).get());
}

void PortsList_DelByIndex(s_CommPorts* list, int index) {
  PortsList_Del(list, PortsList_GetByIndex(list, index).get());
}

void PortsList_Swap(s_CommPorts* list, const s_CommPort* a, const s_CommPort* b) {
  if (list == nullptr || a == nullptr || b == nullptr) return;
  std::lock_guard lock(mtxOPL);
  const auto ia = std::ranges::find(list->records, a, &PortRef::get);
  const auto ib = std::ranges::find(list->records, b, &PortRef::get);
  if (ia != list->records.end() && ib != list->records.end()) std::iter_swap(ia, ib);
}

void IDtoPortList_Add(const s_IDPort& row) {
  std::lock_guard lock(mtxOPL);
  lstIDtoPort.push_back(row);
}

void IDtoPortList_Clear() {
  std::lock_guard lock(mtxOPL);
  lstIDtoPort.clear();
}

std::optional<s_IDPort> IDtoPortList_GetPortByDeviceID(std::string_view deviceID) {
  return FindRow([&](const s_IDPort& row) { return row.deviceID == deviceID; });
}

std::vector<s_IDPort> IDtoPortList_All() {
  std::lock_guard lock(mtxOPL);
  return lstIDtoPort;
}

}  // namespace zeltocom
