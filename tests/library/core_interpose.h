// Stand-ins that the test executable puts in front of the node's table and
// wait-object routines (an executable's definitions take precedence over a
// shared library's).  They pass every call on to the node and keep books, so
// tests can prove that a failed start-up or a cancel leaves nothing behind,
// and can make the n-th table creation fail.
#pragma once

#include <dlfcn.h>

#include <set>

#include "snanode/snanode.h"

namespace lib_test {

struct NodeBooks {
  std::set<VTM_TABLE> live_tables;
  std::set<void *> live_wait_objects;
  int table_inits = 0;
  int fail_table_init = 0;  // 1-based index of the creation to fail; 0 none
};
inline NodeBooks g_books;

template <typename F>
F next_definition(const char *name) {
  return reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}

}  // namespace lib_test

extern "C" {

void vtm_table_init(VTM_TABLE *field, uint32_t r1) {
  using lib_test::g_books;
  static auto real = lib_test::next_definition<void (*)(VTM_TABLE *, uint32_t)>("vtm_table_init");
  if (++g_books.table_inits == g_books.fail_table_init) {
    *field = nullptr;
    return;
  }
  real(field, r1);
  if (*field != nullptr) g_books.live_tables.insert(*field);
}

void vtm_table_terminate(VTM_TABLE *field) {
  static auto real = lib_test::next_definition<void (*)(VTM_TABLE *)>("vtm_table_terminate");
  lib_test::g_books.live_tables.erase(*field);
  real(field);
}

void *vpm_allocate_wait_object(void) {
  static auto real = lib_test::next_definition<void *(*)()>("vpm_allocate_wait_object");
  void *object = real();
  if (object != nullptr) lib_test::g_books.live_wait_objects.insert(object);
  return object;
}

void vpm_release_wait_object(void *object) {
  static auto real = lib_test::next_definition<void (*)(void *)>("vpm_release_wait_object");
  lib_test::g_books.live_wait_objects.erase(object);
  real(object);
}
}
