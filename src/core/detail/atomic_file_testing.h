// Test hook: forces the named temporaries that file systems without unnamed
// ones (O_TMPFILE) get, so both paths are tested on any machine.
#pragma once

#include "kel/export.h"

namespace kel::detail {

KEL_API void ForceNamedTemporaries(bool on);

}  // namespace kel::detail
