#pragma once

/// Marks what a shared library exports; everything else is hidden (-fvisibility=hidden).
#define PNL_API __attribute__((visibility("default")))
