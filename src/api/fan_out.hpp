#pragma once

// How every multi-port call drives its ports: one worker thread per port,
// started in list order and joined in the same order before the call goes
// on. Each worker writes only its own result slot, so the joins are all the
// ordering the results need.

#include <deque>
#include <exception>
#include <initializer_list>
#include <span>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "frame/errors.hpp"

namespace zeltocom {

// The workers of one call. Whatever happens, every started worker is joined
// before the call returns, and nothing a worker throws leaves its thread.
class Workers {
 public:
  explicit Workers(std::size_t expected) {
    threads_.reserve(expected);
    texts_.resize(expected);
  }
  ~Workers() { JoinAll(); }
  Workers(const Workers&) = delete;
  Workers& operator=(const Workers&) = delete;

  // Starts `work` on a thread of its own as the next worker.
  template <typename Work>
  void Start(Work work) {
    if (threads_.size() == texts_.size()) texts_.emplace_back();
    std::string* text = &texts_[threads_.size()];
    threads_.emplace_back([work = std::move(work), text]() mutable {
      Run(work);
      // The text this worker set last, whatever the others set since.
      *text = ThreadLastError();
    });
  }

  // Joins the workers in the order they were started.
  void JoinAll() {
    for (std::thread& thread : threads_) {
      if (thread.joinable()) thread.join();
    }
  }

  // The last error text of each worker, in starting order (after JoinAll).
  std::vector<std::string> texts() const { return {texts_.begin(), texts_.end()}; }

 private:
  template <typename Work>
  static void Run(Work& work) noexcept {
    try {
      work();
    } catch (const std::exception& e) {
      SetError(nullptr, e.what());
    } catch (...) {
      SetError(nullptr, "Unexpected internal error");
    }
  }

  std::vector<std::thread> threads_;
  std::deque<std::string> texts_;  // stays put while workers write into it
};

// Runs `work(i)` for every i below `n` that `needed(i)`, one worker each;
// returns each slot's last error text: its worker's, or `skipped` for a slot
// that needed none.
template <typename Needed, typename Work>
std::vector<std::string> FanOutWhere(std::size_t n, Needed needed, Work work,
                                     const std::string& skipped) {
  std::vector<std::size_t> started;
  Workers workers(n);
  for (std::size_t i = 0; i < n; ++i) {
    if (!needed(i)) continue;
    started.push_back(i);
    workers.Start([&work, i] { work(i); });
  }
  workers.JoinAll();
  std::vector<std::string> texts(n, skipped);
  const std::vector<std::string> workerTexts = workers.texts();
  for (std::size_t k = 0; k < started.size(); ++k) texts[started[k]] = workerTexts[k];
  return texts;
}

// Runs `work(i)` for every i below `n`, one worker each; returns each
// worker's last error text.
template <typename Work>
std::vector<std::string> FanOut(std::size_t n, Work work) {
  return FanOutWhere(n, [](std::size_t) { return true; }, std::move(work), "");
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
  for (const void* array : arrays) {
    if (array == nullptr) {
      SetError(nullptr, "No array given");
      return false;
    }
  }
  return true;
}

}  // namespace zeltocom
