#include "frame/registry.hpp"

#include <mutex>
#include <new>

#include "frame/utils.hpp"

namespace zeltocom {

s_CommPorts OpenedPorts;
std::vector<s_IDPort> lstIDtoPort;

namespace {

// Guards the structure of every s_CommPorts. Look-ups hold it only while
// they walk, so a record found stays usable only as long as nobody removes
// it; the library keeps one thread per port for that reason.
std::mutex mtxOPL;

void Unlink(s_CommPorts* list, s_CommPort* port) {
  if (port->prev != nullptr) {
    port->prev->next = port->next;
  } else {
    list->first = port->next;
  }
  if (port->next != nullptr) {
    port->next->prev = port->prev;
  } else {
    list->last = port->prev;
  }
  port->prev = port->next = nullptr;
  --list->count;
}

void StopTriggerListener(s_CommPort* port) {
  if (!port->triggerThread) return;
  if (port->triggerState == 1) port->triggerAbort = true;
  if (port->triggerThread->joinable() &&
      port->triggerThread->get_id() != std::this_thread::get_id()) {
    port->triggerThread->join();
  }
}

template <typename Match>
s_CommPort* Find(const s_CommPorts* list, Match match) {
  std::lock_guard lock(mtxOPL);
  for (s_CommPort* p = list->first; p != nullptr; p = p->next) {
    if (match(*p)) return p;
  }
  return nullptr;
}

}  // namespace

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

s_CommPorts::~s_CommPorts() {
  while (first != nullptr) PortsList_Del(this, first);
}

int PortsList_Add(s_CommPorts* list, s_CommPort* parent, int fd, std::string_view devicePath,
                  std::string_view serialNumber, std::string_view firmwareText,
                  std::string_view eotFormat, int baudrate, double charTimeMs) {
  auto* port = new (std::nothrow) s_CommPort;
  if (port == nullptr) return 0;
  port->chain.reset(new (std::nothrow) s_CommPorts);
  if (!port->chain) {
    delete port;
    return 0;
  }
  port->fd = fd;
  port->devicePath.assign(devicePath);
  port->serialNumber.assign(strtoupper(serialNumber));
  port->firmwareText.assign(firmwareText);
  port->firmwareNumber = FirmwareNumberOf(port->firmwareText.view());
  port->eotFormat.assign(eotFormat);
  port->baudrate = baudrate;
  port->charTimeMs = charTimeMs;
  port->fiberSettingsCur = &port->fiberSettings[0];
  port->parent = parent;
  port->busOwner = parent == nullptr ? port : nullptr;

  std::lock_guard lock(mtxOPL);
  port->prev = list->last;
  if (list->last != nullptr) {
    list->last->next = port;
  } else {
    list->first = port;
  }
  list->last = port;
  ++list->count;
  return 1;
}

s_CommPort* PortsList_GetBySerialNumber(s_CommPorts* list, std::string_view serialNumber) {
  const std::string key = strtoupper(serialNumber);
  return Find(list, [&](const s_CommPort& p) { return p.serialNumber == key; });
}

s_CommPort* PortsList_GetByDevPath(std::string_view devicePath) {
  return Find(&OpenedPorts, [&](const s_CommPort& p) { return p.devicePath == devicePath; });
}

s_CommPort* PortsList_GetByHandler(const int& fd) {
  return Find(&OpenedPorts, [&](const s_CommPort& p) { return p.fd == fd; });
}

s_CommPort* PortsList_GetByIndex(s_CommPorts* list, int index) {
  int i = 0;
  return Find(list, [&](const s_CommPort&) { return i++ == index; });
}

std::vector<s_CommPort*> PortsList_All(s_CommPorts* list) {
  std::vector<s_CommPort*> ports;
  std::lock_guard lock(mtxOPL);
  for (s_CommPort* p = list->first; p != nullptr; p = p->next) ports.push_back(p);
  return ports;
}

void PortsList_Del(s_CommPorts* list, s_CommPort* port) {
  if (list == nullptr || port == nullptr) return;
  while (port->chain && port->chain->first != nullptr) {
    PortsList_Del(port->chain.get(), port->chain->first);
  }
  // Joined before the lock is taken: the listener looks ports up itself.
  StopTriggerListener(port);
  {
    std::lock_guard lock(mtxOPL);
    Unlink(list, port);
  }
  delete port;
}

void PortsList_DelBySerialNumber(s_CommPorts* list, std::string_view serialNumber) {
  PortsList_Del(list, PortsList_GetBySerialNumber(list, serialNumber));
}

void PortsList_DelByDevPath(s_CommPorts* list, std::string_view devicePath) {
  PortsList_Del(list, Find(list, [&](const s_CommPort& p) { return p.devicePath == devicePath; }));
}

void PortsList_DelByIndex(s_CommPorts* list, int index) {
  PortsList_Del(list, PortsList_GetByIndex(list, index));
}

void PortsList_Swap(s_CommPorts* list, s_CommPort* a, s_CommPort* b) {
  if (list == nullptr || a == nullptr || b == nullptr || a == b || list->count < 2) return;
  std::lock_guard lock(mtxOPL);
  // Swapping through the neighbours' links covers adjacent and distant
  // records alike once each side's neighbours are taken before relinking.
  s_CommPort* aPrev = a->prev;
  s_CommPort* aNext = a->next;
  s_CommPort* bPrev = b->prev;
  s_CommPort* bNext = b->next;
  if (aNext == b) {
    a->prev = b;
    a->next = bNext;
    b->prev = aPrev;
    b->next = a;
  } else if (bNext == a) {
    b->prev = a;
    b->next = aNext;
    a->prev = bPrev;
    a->next = b;
  } else {
    a->prev = bPrev;
    a->next = bNext;
    b->prev = aPrev;
    b->next = aNext;
  }
  for (s_CommPort* p : {a, b}) {
    if (p->prev != nullptr) {
      p->prev->next = p;
    } else {
      list->first = p;
    }
    if (p->next != nullptr) {
      p->next->prev = p;
    } else {
      list->last = p;
    }
  }
}

const s_IDPort* IDtoPortList_GetPortByDeviceID(const std::vector<s_IDPort>& table,
                                               std::string_view deviceID) {
  for (const s_IDPort& row : table) {
    if (row.deviceID == deviceID) return &row;
  }
  return nullptr;
}

const s_IDPort* IDtoPortList_GetByDevPath(const std::vector<s_IDPort>& table,
                                          std::string_view devicePath) {
  for (const s_IDPort& row : table) {
    if (row.devicePath == devicePath && !row.chained) return &row;
  }
  return nullptr;
}

}  // namespace zeltocom
