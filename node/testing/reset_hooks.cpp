#include "testing/reset_hooks.h"

#include <algorithm>
#include <mutex>
#include <vector>

namespace snanode::testing {
namespace {

std::mutex g_mutex;
std::vector<void (*)()> g_hooks;

}  // namespace

void add_reset_hook(void (*hook)()) {
  std::lock_guard<std::mutex> hold(g_mutex);
  if (std::find(g_hooks.begin(), g_hooks.end(), hook) == g_hooks.end()) g_hooks.push_back(hook);
}

void run_reset_hooks() {
  std::vector<void (*)()> hooks;
  {
    std::lock_guard<std::mutex> hold(g_mutex);
    hooks = g_hooks;
  }
  for (auto hook : hooks) hook();
}

}  // namespace snanode::testing
