#include "core/log_store.h"

#include <mutex>
#include <utility>
#include <vector>

namespace snanode {
namespace {

struct Store {
  std::mutex mutex;
  std::vector<SNT_RECORD> records[2];
  uint32_t counts[2] = {0, 0};
  std::vector<std::pair<std::string, std::string>> assertions;
  uint32_t assertion_count = 0;
};

Store &store() {
  static auto *instance = new Store;
  return *instance;
}

size_t index(LogKind kind) {
  return kind == LogKind::kProblem ? 0 : 1;
}

}  // namespace

void keep_record(LogKind kind, const SNT_RECORD &record) {
  Store &s = store();
  std::lock_guard<std::mutex> hold(s.mutex);
  ++s.counts[index(kind)];
  if (s.records[index(kind)].size() < kMaxKeptRecords) s.records[index(kind)].push_back(record);
}

void keep_assertion(const std::string &file, const std::string &expression) {
  Store &s = store();
  std::lock_guard<std::mutex> hold(s.mutex);
  ++s.assertion_count;
  if (s.assertions.size() < kMaxKeptRecords) s.assertions.emplace_back(file, expression);
}

uint32_t record_count(LogKind kind) {
  Store &s = store();
  std::lock_guard<std::mutex> hold(s.mutex);
  return s.counts[index(kind)];
}

uint32_t assertion_count() {
  Store &s = store();
  std::lock_guard<std::mutex> hold(s.mutex);
  return s.assertion_count;
}

bool kept_record(LogKind kind, uint32_t n, SNT_RECORD *out) {
  Store &s = store();
  std::lock_guard<std::mutex> hold(s.mutex);
  const auto &records = s.records[index(kind)];
  if (n >= records.size()) return false;
  if (out != nullptr) *out = records[n];
  return true;
}

bool kept_assertion(uint32_t n, std::string *file, std::string *expression) {
  Store &s = store();
  std::lock_guard<std::mutex> hold(s.mutex);
  if (n >= s.assertions.size()) return false;
  if (file != nullptr) *file = s.assertions[n].first;
  if (expression != nullptr) *expression = s.assertions[n].second;
  return true;
}

void clear_kept_records() {
  Store &s = store();
  std::lock_guard<std::mutex> hold(s.mutex);
  for (auto &records : s.records) records.clear();
  s.counts[0] = s.counts[1] = 0;
  s.assertions.clear();
  s.assertion_count = 0;
}

}  // namespace snanode
