// The records written to the problem and audit logs and the failed
// assertions, kept in memory for the test interface.
//
// Counts cover every record since the last clear; the records themselves are
// kept for the first kMaxKept of each kind, so a long-running node that logs
// steadily does not grow without bound.
#pragma once

#include <cstdint>
#include <string>

#include "snanode/snanode_test.h"

namespace snanode {

enum class LogKind { kProblem, kAudit };

constexpr uint32_t kMaxKeptRecords = 1024;

void keep_record(LogKind kind, const SNT_RECORD &record);
void keep_assertion(const std::string &file, const std::string &expression);

uint32_t record_count(LogKind kind);
uint32_t assertion_count();
// False when there is no n-th record (0 = oldest since the last clear).
bool kept_record(LogKind kind, uint32_t n, SNT_RECORD *out);
bool kept_assertion(uint32_t n, std::string *file, std::string *expression);

void clear_kept_records();

}  // namespace snanode
