// The problem and audit logs and v0_assert.
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <string>

#include "core/log_files.h"
#include "core/log_record.h"
#include "core/log_store.h"
#include "snanode/snanode.h"

namespace snanode {
namespace {

constexpr char kProblemLog[] = "problem.log";
constexpr char kAuditLog[] = "audit.log";

void write_record(LogKind kind, uint32_t code, uint32_t probe, const char *arg_types,
                  va_list args) {
  const bool problem = kind == LogKind::kProblem;
  FormattedRecord formatted =
      format_log_record(problem ? "problem" : "audit", code, probe, arg_types, args);
  append_log_line(problem ? kProblemLog : kAuditLog, formatted.line);
  keep_record(kind, formatted.record);
}

bool abort_on_assertion() {
  const char *value = std::getenv("SNANODE_ASSERT_ABORT");
  return value != nullptr && std::strcmp(value, "1") == 0;
}

}  // namespace
}  // namespace snanode

extern "C" {

void nba_pd_print_problem(uint32_t code, uint32_t probe, const char *arg_types, ...) {
  va_list args;
  va_start(args, arg_types);
  snanode::write_record(snanode::LogKind::kProblem, code, probe, arg_types, args);
  va_end(args);
}

void nba_pd_print_audit(uint32_t code, uint32_t probe, const char *arg_types, ...) {
  va_list args;
  va_start(args, arg_types);
  snanode::write_record(snanode::LogKind::kAudit, code, probe, arg_types, args);
  va_end(args);
}

// Written to the problem log as "<prefix> assertion <file>:<line>: <expression>";
// it is counted as an assertion, not as a problem record.
void v0_assert(const char *file, int line, const char *expression) {
  const std::string file_text = file != nullptr ? file : "(unknown)";
  const std::string expression_text = expression != nullptr ? expression : "";
  snanode::append_log_line(snanode::kProblemLog, snanode::log_line_prefix() + " assertion " +
                                                     file_text + ":" + std::to_string(line) + ": " +
                                                     expression_text);
  snanode::keep_assertion(file_text, expression_text);
  if (snanode::abort_on_assertion()) std::abort();
}

}  // extern "C"
