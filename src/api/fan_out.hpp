#pragma once

// How every multi-port call drives its ports: a bounded set of worker
// threads takes the ports in list order, one at a time, and the call goes on
// once all workers are joined. Each port's work writes only its own result
// slot, so the joins are all the ordering the results need.

#include <algorithm>
#include <atomic>
#include <exception>
#include <initializer_list>
#include <span>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "frame/errors.hpp"

namespace zeltocom {

// A station of this many ports still overlaps all its waits, while a call
// over thousands of listed paths stays within what a process can start.
inline constexpr std::size_t kMaxWorkers = 64;

namespace fan_out_detail {

// Nothing a port's work throws leaves its worker: it becomes that port's
// error text.
template <typename Work>
void RunGuarded(Work& work, std::size_t slot) noexcept {
  try {
    work(slot);
  } catch (const std::exception& e) {
    SetError(nullptr, e.what());
  } catch (...) {
    SetError(nullptr, "Unexpected internal error");
  }
}

// Runs `work(slots[k])` for every k on at most kMaxWorkers threads; returns
// the error text each slot's work set last (empty when none), in the order
// of `slots`. Worker w starts with slot w, so that up to kMaxWorkers ports
// each have a thread of their own however the threads get scheduled; the
// rest go to whichever worker is free first. A worker that cannot be started
// leaves its slot to the calling thread. Every started worker is joined
// before this returns.
template <typename Work>
std::vector<std::string> RunOnWorkers(const std::vector<std::size_t>& slots, Work& work) {
  std::vector<std::string> texts(slots.size());
  const std::size_t wanted = std::min(kMaxWorkers, slots.size());
  std::atomic<std::size_t> next{wanted};
  const auto takeSlots = [&](std::size_t first) {
    for (std::size_t k = first; k < slots.size(); k = next++) {
      // A worker runs many slots: each slot's text must be its own.
      ClearThreadLastError();
      RunGuarded(work, slots[k]);
      texts[k] = ThreadLastError();
    }
  };
  std::vector<std::jthread> workers;
  workers.reserve(wanted);
  for (std::size_t w = 0; w < wanted; ++w) {
    try {
      workers.emplace_back(takeSlots, w);
    } catch (const std::system_error&) {
      takeSlots(w);
    }
  }
  workers.clear();  // joins
  return texts;
}

}  // namespace fan_out_detail

// Runs `work(i)` for every i below `n` that `needed(i)`; returns each slot's
// last error text: the one its work set, or `skipped` for a slot that needed
// none.
template <typename Needed, typename Work>
std::vector<std::string> FanOutWhere(std::size_t n, Needed needed, Work work,
                                     const std::string& skipped) {
  std::vector<std::size_t> started;
  for (std::size_t i = 0; i < n; ++i) {
    if (needed(i)) started.push_back(i);
  }
  const std::vector<std::string> workerTexts = fan_out_detail::RunOnWorkers(started, work);
  std::vector<std::string> texts(n, skipped);
  for (std::size_t k = 0; k < started.size(); ++k) texts[started[k]] = workerTexts[k];
  return texts;
}

// Runs `work(i)` for every i below `n`; returns each slot's last error text.
template <typename Work>
std::vector<std::string> FanOut(std::size_t n, Work work) {
  return FanOutWhere(
      n, [](std::size_t) { return true; }, std::move(work), "");
}

// -1 wherever it stands, else 0 if any, else 1.
inline int WorstResult(std::span<const int> results) {
  int worst = 1;
  for (int r : results) {
    if (r == -1) return -1;
    if (r != 1) worst = 0;
  }
  return worst;
}

// The index of the first result that is not 1, or -1 when all are.
inline int FirstFailing(std::span<const int> results) {
  for (std::size_t i = 0; i < results.size(); ++i) {
    if (results[i] != 1) return static_cast<int>(i);
  }
  return -1;
}

// The index of the first result equal to `value`, or -1.
inline int FirstEqual(std::span<const int> results, int value) {
  for (std::size_t i = 0; i < results.size(); ++i) {
    if (results[i] == value) return static_cast<int>(i);
  }
  return -1;
}

// The host learns why a multi-port call failed from the library-wide text:
// that of the port at `index`, not whatever another worker set last.
inline void KeepTextOf(const std::vector<std::string>& texts, int index) {
  if (index < 0 || static_cast<std::size_t>(index) >= texts.size()) return;
  if (!texts[static_cast<std::size_t>(index)].empty()) {
    SetError(nullptr, texts[static_cast<std::size_t>(index)]);
  }
}

// The result of a call over ports that may each fail: WorstResult, with the
// text of the first port that gave it.
inline int WorstResultKeepingText(std::span<const int> results,
                                  const std::vector<std::string>& texts) {
  const int result = WorstResult(results);
  if (result != 1) KeepTextOf(texts, FirstEqual(results, result));
  return result;
}

// The checks of a caller's count and arrays: false, with the error text set,
// when `count` is negative or one of `arrays` is missing while it must hold
// `count` entries.
inline bool ArraysGiven(int count, std::initializer_list<const void*> arrays) {
  if (count < 0) {
    SetError(nullptr, "The number of ports must not be negative");
    return false;
  }
  if (count == 0) return true;
  if (std::ranges::all_of(arrays, [](const void* array) { return array != nullptr; })) return true;
  SetError(nullptr, "No array given");
  return false;
}

}  // namespace zeltocom
