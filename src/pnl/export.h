#pragma once

/// Marks what a shared library exports; everything else is hidden (-fvisibility=hidden).
#define PNL_API __attribute__((visibility("default")))
/// Marks the inner classes of an exported class that are its own affair.
#define PNL_LOCAL __attribute__((visibility("hidden")))
