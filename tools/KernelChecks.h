#pragma once

#include "Finding.h"

// What the kernel's files tell of the machine; nothing is tried.

Finding CheckClockSource();
Finding CheckFrequency();
Finding CheckVirtualMachine();
Finding CheckSwap();
Finding CheckSiblings();
/// Whether the interrupts of devices stay away from the processors that are kept for real-time threads.
Finding CheckInterrupts();
