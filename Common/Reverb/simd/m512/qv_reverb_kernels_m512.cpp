// Sixteen frames per register: one register holds a run of a line, and the
// sixteen-input matrix sums two runs in registers. Built with AVX-512 flags;
// nothing from the standard library is instantiated here.
#include "../../qv_reverb_kernels.h"

namespace qvd::reverb::m512 {
#define QVD_LANES 16
#include "../../qv_reverb_kernels_body.h"
} // namespace qvd::reverb::m512
