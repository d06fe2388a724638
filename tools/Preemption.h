#pragma once

#include "Finding.h"

/// Where a real-time thread that has become ready may have to wait for what the kernel does.
Finding CheckPreemption();
