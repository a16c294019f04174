#include "brefir/version.h"

namespace brefir {

const char* Version() noexcept {
  return BREFIR_VERSION;
}

}  // namespace brefir
