#pragma once

/// Marks what libbrefir exports; everything else is hidden (-fvisibility=hidden).
#define BREFIR_API __attribute__((visibility("default")))
/// Marks the private inner classes of an exported class.
#define BREFIR_LOCAL __attribute__((visibility("hidden")))
