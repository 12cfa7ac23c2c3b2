// Downsampler_x2 kernels for symmetric half-band blocks, built for SSE2.
#define TWA_ISA m128
#define TWA_RESAMPLE_LANES 4
#include "System/simd/twa_simd_m128.h"

#include "Algorithms/Resample/Downsampler_x2_Sym.inc"
