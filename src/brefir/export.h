#pragma once

/// Marks what libbrefir exports; everything else is hidden (-fvisibility=hidden).
#define BREFIR_API __attribute__((visibility("default")))
/// Marks the inner classes of an exported class that are its own affair.
#define BREFIR_LOCAL __attribute__((visibility("hidden")))
