// Eight frames per register. Built with -mavx2; nothing from the standard
// library is instantiated here, so no AVX2 copy of it can replace the
// baseline one at link time.
#include "../../qv_reverb_kernels.h"

namespace qvd::reverb::m256 {
#define QVD_LANES 8
#include "../../qv_reverb_kernels_body.h"
} // namespace qvd::reverb::m256
