#pragma once

/// Marks what libbrefir exports; everything else is hidden (-fvisibility=hidden).
#define BREFIR_API __attribute__((visibility("default")))
