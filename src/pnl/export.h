#pragma once

/// Marks what a shared library exports; everything else is hidden (-fvisibility=hidden).
#define PNL_API __attribute__((visibility("default")))
/// Marks the private inner classes of an exported class.
#define PNL_LOCAL __attribute__((visibility("hidden")))
