// The API trace file: trc_api, sepuapi_init and the file lock.
//
// Records of one process are kept apart by a process mutex, records of
// different processes by flock on the file.  flock belongs to the open file
// description, which a child shares with its parent after fork, so a process
// that finds the file opened by another process id opens it afresh.  A file
// that cannot be opened leaves the handle at -1: records are dropped and no
// lock is held, and the open is not retried until sepuapi_init runs again.
#include <fcntl.h>
#include <pthread.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "snanode/snanode.h"
#include "trace/trace_settings.h"

namespace {

struct TraceFile {
  pthread_mutex_t mutex;
  bool resolved = false;  // path holds the settings' file
  bool failed = false;    // the last open failed
  std::filesystem::path path;
  int fd = -1;
  pid_t owner = 0;  // the process that opened fd
  // A file named while the process runs (set_api_trace) outlasts the
  // settings read when the first record is written.
  std::filesystem::path chosen;
};

void init_mutex(pthread_mutex_t *mutex) {
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  // An unlock without the lock (a caller error) is then refused, not undefined.
  pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK);
  pthread_mutex_init(mutex, &attributes);
  pthread_mutexattr_destroy(&attributes);
}

TraceFile &trace_file() {
  static TraceFile *file = [] {
    auto *created = new TraceFile;  // lives until exit: trace calls may come late
    init_mutex(&created->mutex);
    // A child forked while another thread held the mutex would never get it.
    pthread_atfork(nullptr, nullptr, [] { init_mutex(&trace_file().mutex); });
    return created;
  }();
  return *file;
}

// Makes `path` the trace file; a file open under another name is closed.
void use_path(TraceFile &file, const std::filesystem::path &path) {
  if (file.fd != -1 && path != file.path) {
    if (file.owner == getpid()) close(file.fd);
    file.fd = -1;
  }
  file.path = path;
  file.resolved = true;
  file.failed = false;
}

// The open trace file of this process, or -1.  Called with the mutex held.
int open_file(TraceFile &file) {
  if (file.fd != -1 && file.owner == getpid()) return file.fd;
  if (file.fd != -1) {
    close(file.fd);  // inherited across fork
    file.fd = -1;
    file.failed = false;
  }
  if (!file.resolved) use_path(file, snanode::trace::resolve_trace_settings().file);
  if (file.failed) return -1;
  std::error_code ignored;
  if (file.path.has_parent_path())
    std::filesystem::create_directories(file.path.parent_path(), ignored);
  file.fd = open(file.path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0640);
  file.failed = file.fd == -1;
  file.owner = getpid();
  return file.fd;
}

}  // namespace

namespace snanode::trace {

void set_api_trace(bool on, const std::string &file) {
  TraceFile &trace = trace_file();
  pthread_mutex_lock(&trace.mutex);
  if (!file.empty()) {
    trace.chosen = file;
    use_path(trace, file);
  }
  // Other threads read the flag bytes without a lock; one atomic byte
  // operation keeps them from seeing anything but before or after.
  if (on) {
    __atomic_fetch_or(&ptrc[SNANODE_TRACE_API_BYTE], SNANODE_TRACE_API_BIT, __ATOMIC_RELAXED);
  } else {
    __atomic_fetch_and(&ptrc[SNANODE_TRACE_API_BYTE],
                       static_cast<unsigned char>(~SNANODE_TRACE_API_BIT), __ATOMIC_RELAXED);
  }
  pthread_mutex_unlock(&trace.mutex);
}

bool api_trace_on() {
  return (__atomic_load_n(&ptrc[SNANODE_TRACE_API_BYTE], __ATOMIC_RELAXED) &
          SNANODE_TRACE_API_BIT) != 0;
}

}  // namespace snanode::trace

extern "C" {

TRC_API trc_api = {0, {0, 0, 0}, -1};

void sepuapi_init(unsigned char *trace_flags) {
  TraceFile &file = trace_file();
  pthread_mutex_lock(&file.mutex);
  const snanode::trace::TraceSettings settings = snanode::trace::resolve_trace_settings();
  use_path(file, file.chosen.empty() ? settings.file : file.chosen);
  if (settings.api_trace && trace_flags != nullptr) {
    trace_flags[SNANODE_TRACE_API_BYTE] |= SNANODE_TRACE_API_BIT;
  }
  // The file is opened only when tracing is on; if the flag is set later,
  // the first record opens it.
  const bool tracing =
      trace_flags != nullptr && (trace_flags[SNANODE_TRACE_API_BYTE] & SNANODE_TRACE_API_BIT) != 0;
  trc_api.file_handle = tracing ? open_file(file) : -1;
  pthread_mutex_unlock(&file.mutex);
}

void trc_lock_file(TRC_API *api) {
  TraceFile &file = trace_file();
  pthread_mutex_lock(&file.mutex);
  const int fd = open_file(file);
  api->file_handle = fd;
  if (fd == -1) {
    pthread_mutex_unlock(&file.mutex);
    return;
  }
  // Without flock support only the threads of this process are kept apart.
  while (flock(fd, LOCK_EX) == -1 && errno == EINTR) {
  }
}

void trc_unlock_file(TRC_API *api) {
  TraceFile &file = trace_file();
  if (api->file_handle != -1) flock(api->file_handle, LOCK_UN);
  pthread_mutex_unlock(&file.mutex);
}

}  // extern "C"
