#pragma once

/// Marks what the library exports; everything else in it is hidden.
#define KEL_API __attribute__((visibility("default")))
