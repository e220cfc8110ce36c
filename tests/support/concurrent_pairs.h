// Many conversations open at once between two processes, each checked end to
// end: the client side allocates every conversation and sends one record on
// it with the turn; the server side accepts them all and takes each record in;
// only once every conversation is open on both sides does the server answer
// each with its record echoed and deallocate, and the client checks the echo
// and the normal end.  The work is spread over a number of threads per side,
// each holding its share of the conversations.
//
// Used by the end-to-end suite (with as many pairs as it can afford) and by
// the load benchmark (with the full count).
#pragma once

#include <atomic>
#include <barrier>
#include <chrono>
#include <cstdio>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "cpic.h"

namespace concurrent_pairs {

constexpr const char *kTpName = "LOADTP";
constexpr const char *kMode = "#LOAD";

// The configuration a node needs for `pairs` conversations of the mode above.
inline std::string mode_config(int pairs) {
  return "[[mode]]\nname = \"" + std::string(kMode) +
         "\"\nsession_limit = " + std::to_string(pairs) + "\n";
}

struct Outcome {
  int checked = 0;  // conversations that went as they should, end to end
  int failed = 0;
  std::string first_failure;
  double open_seconds = 0;  // from the start until every conversation was open here
  double total_seconds = 0;
};

namespace detail {

using Clock = std::chrono::steady_clock;

// What the threads of one side share.
class Tally {
 public:
  explicit Tally(int threads) : all_open_(threads), start_(Clock::now()) {}
  void fail(int pair, const char *call, CM_RETURN_CODE rc) {
    std::lock_guard<std::mutex> hold(mutex_);
    if (outcome_.failed++ == 0) {
      outcome_.first_failure =
          "pair " + std::to_string(pair) + ": " + call + " returned " + std::to_string(rc);
    }
  }
  void fail(const std::string &what) {
    std::lock_guard<std::mutex> hold(mutex_);
    if (outcome_.failed++ == 0) outcome_.first_failure = what;
  }
  void checked() { ++checked_; }
  // Every thread of the side waits here until all its conversations are open.
  void all_open() {
    all_open_.arrive_and_wait();
    std::lock_guard<std::mutex> hold(mutex_);
    if (outcome_.open_seconds == 0) outcome_.open_seconds = seconds_since_start();
  }
  Outcome finish() {
    outcome_.checked = checked_;
    outcome_.total_seconds = seconds_since_start();
    return outcome_;
  }

 private:
  double seconds_since_start() const {
    return std::chrono::duration<double>(Clock::now() - start_).count();
  }
  std::mutex mutex_;
  Outcome outcome_;
  std::atomic<int> checked_{0};
  std::barrier<> all_open_;
  Clock::time_point start_;
};

// Thread `t` of `threads` takes the pairs t, t + threads, t + 2 * threads, ...
inline int share(int pairs, int threads, int t) {
  return pairs / threads + (t < pairs % threads ? 1 : 0);
}

inline std::string record_of(int pair) {
  char text[64];
  std::snprintf(text, sizeof text, "pair %06d of the load run, checked end to end", pair);
  return text;
}

template <typename Body>
Outcome run_threads(int threads, Body body) {
  Tally tally(threads);
  std::vector<std::thread> workers;
  workers.reserve(static_cast<size_t>(threads));
  for (int t = 0; t < threads; ++t) workers.emplace_back([&, t] { body(tally, t); });
  for (std::thread &worker : workers) worker.join();
  return tally.finish();
}

struct Conv {
  unsigned char id[8] = {};
  bool open = false;
};

}  // namespace detail

// The allocating side.
inline Outcome run_client(int pairs, int threads) {
  using namespace detail;
  return run_threads(threads, [&](Tally &tally, int t) {
    std::vector<Conv> convs(static_cast<size_t>(share(pairs, threads, t)));
    for (size_t k = 0; k < convs.size(); ++k) {
      const int pair = t + static_cast<int>(k) * threads;
      Conv &c = convs[k];
      CM_RETURN_CODE rc = -1;
      unsigned char blank[9] = "        ";
      cminit(c.id, blank, &rc);
      CM_INT32 length = 5;
      if (rc == CM_OK)
        cmspln(c.id, reinterpret_cast<unsigned char *>(const_cast<char *>("LOCAL")), &length, &rc);
      length = static_cast<CM_INT32>(std::char_traits<char>::length(kMode));
      if (rc == CM_OK)
        cmsmn(c.id, reinterpret_cast<unsigned char *>(const_cast<char *>(kMode)), &length, &rc);
      length = static_cast<CM_INT32>(std::char_traits<char>::length(kTpName));
      if (rc == CM_OK)
        cmstpn(c.id, reinterpret_cast<unsigned char *>(const_cast<char *>(kTpName)), &length, &rc);
      if (rc != CM_OK) {
        tally.fail(pair, "set-up", rc);
        continue;
      }
      cmallc(c.id, &rc);
      if (rc != CM_OK) {
        tally.fail(pair, "CMALLC", rc);
        continue;
      }
      CM_SEND_TYPE type = CM_SEND_AND_PREP_TO_RECEIVE;
      cmsst(c.id, &type, &rc);
      std::string text = record_of(pair);
      length = static_cast<CM_INT32>(text.size());
      CM_REQUEST_TO_SEND_RECEIVED rts;
      if (rc == CM_OK)
        cmsend(c.id, reinterpret_cast<unsigned char *>(text.data()), &length, &rts, &rc);
      if (rc != CM_OK) {
        tally.fail(pair, "CMSST/CMSEND", rc);
        continue;
      }
      c.open = true;
    }
    tally.all_open();
    for (size_t k = 0; k < convs.size(); ++k) {
      if (!convs[k].open) continue;
      const int pair = t + static_cast<int>(k) * threads;
      const std::string expected = "echo: " + record_of(pair);
      char buffer[256];
      CM_INT32 max = sizeof buffer, length = 0;
      CM_DATA_RECEIVED_TYPE data;
      CM_STATUS_RECEIVED status = CM_NO_STATUS_RECEIVED;
      CM_REQUEST_TO_SEND_RECEIVED rts;
      CM_RETURN_CODE rc = -1;
      cmrcv(convs[k].id, reinterpret_cast<unsigned char *>(buffer), &max, &data, &length, &status,
            &rts, &rc);
      if (rc != CM_OK || data != CM_COMPLETE_DATA_RECEIVED ||
          std::string(buffer, static_cast<size_t>(length)) != expected) {
        tally.fail(pair, "CMRCV of the echo", rc);
        continue;
      }
      // The end comes with the data, or in a receive of its own.
      if (status == CM_NO_STATUS_RECEIVED) {
        cmrcv(convs[k].id, reinterpret_cast<unsigned char *>(buffer), &max, &data, &length, &status,
              &rts, &rc);
      }
      if (rc != CM_DEALLOCATED_NORMAL) {
        tally.fail(pair, "CMRCV of the end", rc);
        continue;
      }
      tally.checked();
    }
  });
}

// The accepting side: the process has named kTpName (cmsltp) before.
inline Outcome run_server(int pairs, int threads) {
  using namespace detail;
  std::mutex seen_mutex;
  std::set<int> seen;
  Outcome outcome = run_threads(threads, [&](Tally &tally, int t) {
    std::vector<std::pair<Conv, std::string>> convs;
    for (int k = share(pairs, threads, t); k > 0; --k) {
      Conv c;
      CM_RETURN_CODE rc = -1;
      cmaccp(c.id, &rc);
      if (rc != CM_OK) {
        tally.fail(-1, "CMACCP", rc);
        continue;
      }
      char buffer[256];
      CM_INT32 max = sizeof buffer, length = 0;
      CM_DATA_RECEIVED_TYPE data;
      CM_STATUS_RECEIVED status = CM_NO_STATUS_RECEIVED;
      CM_REQUEST_TO_SEND_RECEIVED rts;
      // The record, and the turn with it or in a receive of its own.
      cmrcv(c.id, reinterpret_cast<unsigned char *>(buffer), &max, &data, &length, &status, &rts,
            &rc);
      std::string text(buffer, rc == CM_OK ? static_cast<size_t>(length) : 0);
      int pair = -1;
      if (rc == CM_OK && status == CM_NO_STATUS_RECEIVED) {
        cmrcv(c.id, reinterpret_cast<unsigned char *>(buffer), &max, &data, &length, &status, &rts,
              &rc);
      }
      if (rc != CM_OK || status != CM_SEND_RECEIVED ||
          std::sscanf(text.c_str(), "pair %d", &pair) != 1 || text != record_of(pair)) {
        tally.fail(-1, "CMRCV of the record", rc);
        continue;
      }
      {
        std::lock_guard<std::mutex> hold(seen_mutex);
        if (pair < 0 || pair >= pairs || !seen.insert(pair).second) {
          tally.fail("pair " + std::to_string(pair) + " arrived twice or out of range");
          continue;
        }
      }
      c.open = true;
      convs.emplace_back(c, "echo: " + text);
    }
    tally.all_open();
    for (auto &[c, echo] : convs) {
      CM_SEND_TYPE type = CM_SEND_AND_DEALLOCATE;
      CM_RETURN_CODE rc = -1;
      cmsst(c.id, &type, &rc);
      CM_INT32 length = static_cast<CM_INT32>(echo.size());
      CM_REQUEST_TO_SEND_RECEIVED rts;
      if (rc == CM_OK)
        cmsend(c.id, reinterpret_cast<unsigned char *>(echo.data()), &length, &rts, &rc);
      if (rc != CM_OK) {
        tally.fail(-1, "CMSEND of the echo", rc);
        continue;
      }
      tally.checked();
    }
  });
  return outcome;
}

}  // namespace concurrent_pairs
