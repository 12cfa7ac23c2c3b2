#include "Algorithms/FindMinMax.h"

namespace twa::numeric {
namespace ref {
namespace {

class FindMinMax_ref final : public FindMinMax {
public:
    explicit FindMinMax_ref(std::size_t channels) noexcept : m_channels(channels) {}
    const char* Name() const noexcept override { return "FindMinMax_ref"; }
    std::size_t ChannelCount() const noexcept override { return m_channels; }
    bool Process(const float* in, std::size_t frames, float* minmax, bool start) const noexcept override
    {
        if (!in || !minmax || m_channels == 0 || (start && frames == 0))
            return false;
        const std::size_t c = m_channels;
        std::size_t f = 0;
        if (start) {
            for (std::size_t ch = 0; ch < c; ++ch)
                minmax[2 * ch] = minmax[2 * ch + 1] = in[ch];
            f = 1;
        }
        for (std::size_t ch = 0; ch < c; ++ch) {
            float mn = minmax[2 * ch];
            float mx = minmax[2 * ch + 1];
            for (std::size_t k = f; k < frames; ++k) {
                const float x = in[k * c + ch];
                mn = x < mn ? x : mn;
                mx = x > mx ? x : mx;
            }
            minmax[2 * ch] = mn;
            minmax[2 * ch + 1] = mx;
        }
        return true;
    }

private:
    std::size_t m_channels;
};

} // namespace
} // namespace ref

FindMinMax* NewFindMinMax_ref(std::size_t channels)
{
    return new ref::FindMinMax_ref(channels);
}

} // namespace twa::numeric
