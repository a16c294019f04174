#pragma once

/// Marks what libbrefir-fleet exports; everything else is hidden (-fvisibility=hidden).
#define FLEET_API __attribute__((visibility("default")))
/// Marks the private inner classes of an exported class.
#define FLEET_LOCAL __attribute__((visibility("hidden")))
