#include "pnldb/db.h"

namespace pnl_db {}
