#pragma once
// Interface of the real-time interposer (libqvd_rtcheck.so, preloaded). The
// harness finds these with dlsym; without the interposer they are absent
// and the real-time check reports that it did not run.
#include <cstdint>

extern "C" {
// Marks the calling thread as the audio thread until qvd_rt_leave().
using QvdRtEnterFn = void (*)();
using QvdRtLeaveFn = void (*)();
// Calls of each kind made on a marked thread since start; writes up to
// `capacity` counts into `counts` and returns how many kinds there are.
using QvdRtCountsFn = int (*)(std::uint64_t* counts, int capacity);
// Name of kind `i`.
using QvdRtKindNameFn = const char* (*)(int i);
// Heap blocks allocated and not yet freed, on any thread.
using QvdRtLiveBlocksFn = std::int64_t (*)();
}
