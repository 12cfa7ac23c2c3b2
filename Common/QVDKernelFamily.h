#pragma once
// The definitions every plugin kernel family shares: its variant table (widest
// first, the reference last), variants() and selectKernel() over the numeric
// library's dispatch, and its entry in the kernel report. Used inside the
// family's namespace, after declaring
//   std::span<const Variant> variants() noexcept;
//   const Variant& selectKernel() noexcept;

#include <span>

#include <Algorithms/KernelReport.h>
#include <System/twa_cpuinfo_x86.h>
#include <System/twa_dispatch.h>

#define QVD_KERNEL_FAMILY(ReportName, ...)                                                                   \
    namespace {                                                                                              \
    constexpr Variant kVariants[] = {__VA_ARGS__};                                                           \
    [[maybe_unused]] const bool g_reported =                                                                 \
        ::twa::numeric::RegisterKernelFamily(ReportName, [] { return selectKernel().name; });                \
    }                                                                                                        \
    std::span<const Variant> variants() noexcept { return kVariants; }                                       \
    const Variant& selectKernel() noexcept { return ::twa::ChooseVariant(variants()); }
