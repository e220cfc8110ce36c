// The trace tests reach the shared library-test helpers under this name.
#pragma once

#include "library_support.h"

namespace verbs_test = lib_test;
