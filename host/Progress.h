#pragma once
// A progress bar on stderr, shown only when stderr is a terminal and the
// user did not ask for quiet.

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <algorithm>
#include <string>

namespace qvdfx {

class Progress {
public:
    Progress(std::string label, std::int64_t total, bool quiet)
        : m_label(std::move(label)), m_total(total), m_enabled(!quiet && total > 0 && ::isatty(2))
    {
    }
    ~Progress() { finish(); }

    void update(std::int64_t done)
    {
        if (!m_enabled)
            return;
        const int percent = static_cast<int>(100 * std::min(done, m_total) / m_total);
        if (percent == m_shown)
            return;
        m_shown = percent;
        const int width = 30;
        const int filled = percent * width / 100;
        std::fprintf(stderr, "\r%s [%.*s%*s] %3d%%", m_label.c_str(), filled, "==============================",
                     width - filled, "", percent);
        std::fflush(stderr);
    }
    void finish()
    {
        if (m_enabled && m_shown >= 0) {
            std::fprintf(stderr, "\r%*s\r", static_cast<int>(m_label.size()) + 40, "");
            std::fflush(stderr);
        }
        m_enabled = false;
    }

private:
    std::string m_label;
    std::int64_t m_total;
    bool m_enabled;
    int m_shown = -1;
};

} // namespace qvdfx
