// Downsampler_x2 kernels for symmetric half-band blocks, built for 256-bit FMA.
#define TWA_ISA m256_fma
#define TWA_RESAMPLE_LANES 8
#include "System/simd/twa_simd_m256.h"

#include "Algorithms/Resample/Downsampler_x2_Sym.inc"
