// Decides which call fails. Any thread, also inside signal handlers; allocates nothing.
#pragma once

#include "tests/torture/calls/fault_table.h"

// Maps the table that the environment names, if it names one.
void openTable();

// Notes that this place calls `call`, which can fail in the ways `possible`. Returns the one that
// is to happen now, or Fault::kCount.
Fault choose(const char* call, Faults possible);

// The `errno` of a fault that is one.
int errorOf(Fault fault);
