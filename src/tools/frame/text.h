#pragma once

#include "pnl/utf8.h"

namespace tools {

using utf8::Columns;
using utf8::Fitting;
using utf8::Printable;

}  // namespace tools
