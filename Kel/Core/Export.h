#pragma once

#include <Kel/Core/TimeWidth.h>

/// Marks what the library exports; everything else in it is hidden.
#define KEL_API __attribute__((visibility("default")))
