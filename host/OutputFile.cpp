#include "OutputFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "Options.h"

namespace fs = std::filesystem;

namespace qvdfx {

namespace {

// Temporary files the signal handler removes. Fixed storage: a handler may
// neither allocate nor lock.
constexpr int kSlots = 8;
char g_temporary[kSlots][PATH_MAX];
volatile std::sig_atomic_t g_used[kSlots];

void track(const std::string& path)
{
    for (int i = 0; i < kSlots && path.size() < PATH_MAX; ++i) {
        if (!g_used[i]) {
            std::memcpy(g_temporary[i], path.c_str(), path.size() + 1);
            g_used[i] = 1;
            return;
        }
    }
}

void untrack(const std::string& path)
{
    for (int i = 0; i < kSlots; ++i) {
        if (g_used[i] && path == g_temporary[i])
            g_used[i] = 0;
    }
}

// Removes the temporary files, then dies of the same signal, so a shell
// sees 128 + the signal and stops a script the user interrupted.
void removeAndResend(int signal)
{
    for (int i = 0; i < kSlots; ++i) {
        if (g_used[i])
            ::unlink(g_temporary[i]);
    }
    struct sigaction fallback {};
    fallback.sa_handler = SIG_DFL;
    ::sigaction(signal, &fallback, nullptr);
    ::raise(signal);
}

constexpr int kCleanupSignals[] = {SIGINT, SIGTERM, SIGHUP};
struct sigaction g_previous[std::size(kCleanupSignals)];
bool g_replaced[std::size(kCleanupSignals)];
struct sigaction g_previousPipe;

// Follows symlinks, dangling ones too: writing a link writes its target.
fs::path followLinks(fs::path path)
{
    std::error_code ec;
    for (int hops = 0; hops < 40 && fs::is_symlink(path, ec); ++hops) {
        const fs::path target = fs::read_symlink(path, ec);
        if (ec)
            break;
        path = target.is_absolute() ? target : path.parent_path() / target;
    }
    return path;
}

fs::path folderOf(const fs::path& path)
{
    return path.has_parent_path() ? path.parent_path() : fs::path(".");
}

} // namespace

OutputFile::OutputFile(const std::string& path, bool binary)
{
    struct stat st {};
    if (path == "-") {
        m_name = "standard output";
        m_fd = STDOUT_FILENO;
        std::fflush(stdout);
        if (::fstat(m_fd, &st) != 0)
            failed(std::strerror(errno));
        if (binary && ::isatty(m_fd))
            fail(kExitFile, "standard output is a terminal; redirect it to a file or a pipe");
        const int flags = ::fcntl(m_fd, F_GETFL);
        const off_t at = ::lseek(m_fd, 0, SEEK_CUR);
        // libsndfile rewinds to patch its header, which appending would defeat.
        m_seekable = at == 0 && (flags & O_APPEND) == 0;
        if (S_ISREG(st.st_mode) && ((flags & O_APPEND) != 0 || at == st.st_size))
            m_stdoutStart = st.st_size;
        return;
    }
    m_name = "'" + path + "'";
    const fs::path target = followLinks(path);
    const bool exists = ::stat(target.c_str(), &st) == 0;
    if (target.filename().empty() || (exists && S_ISDIR(st.st_mode)))
        fail(kExitFile, "output " + m_name + " is a folder, not a file name");
    if (exists && !S_ISREG(st.st_mode)) {
        // A device or a pipe: renaming over it would replace it with a file.
        m_fd = ::open(target.c_str(), O_WRONLY | O_CLOEXEC | O_NOCTTY);
        if (m_fd < 0)
            failed(std::strerror(errno));
        m_ownsFd = true;
        m_seekable = ::lseek(m_fd, 0, SEEK_CUR) == 0;
        return;
    }
    // Renaming would replace a file we may not write, as writing it would not.
    if (exists && ::access(target.c_str(), W_OK) != 0)
        failed(std::strerror(errno));
    const fs::path folder = folderOf(target);
    std::error_code ec;
    if (!fs::is_directory(folder, ec))
        fail(kExitFile, "cannot write " + m_name + ": folder '" + folder.string() + "' does not exist");
    m_target = target.string();
    std::string hidden = "."; // built by appending: GCC 12 misreports "." + string
    hidden.append(target.filename().string()).append(".").append(std::to_string(::getpid())).append(".part");
    m_temporary = (folder / hidden).string();
    track(m_temporary);
    m_fd = ::open(m_temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    // A leftover of a killed run that had the same process id.
    if (m_fd < 0 && errno == EEXIST && ::unlink(m_temporary.c_str()) == 0)
        m_fd = ::open(m_temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (m_fd < 0) {
        const int error = errno;
        untrack(m_temporary);
        m_temporary.clear();
        failed(std::strerror(error));
    }
    m_ownsFd = true;
    m_seekable = true;
    if (exists)
        ::fchmod(m_fd, st.st_mode & 07777);
}

OutputFile::~OutputFile()
{
    if (!m_committed && m_stdoutStart >= 0 && ::ftruncate(m_fd, m_stdoutStart) != 0) {
        // Nothing more to do: the exit code already says the output failed.
    }
    if (m_ownsFd && m_fd >= 0)
        ::close(m_fd);
    if (!m_temporary.empty()) {
        if (!m_committed)
            ::unlink(m_temporary.c_str());
        untrack(m_temporary);
    }
}

void OutputFile::write(const void* data, std::size_t size)
{
    const char* p = static_cast<const char*>(data);
    while (size > 0) {
        const ssize_t n = ::write(m_fd, p, size);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            failed(std::strerror(n < 0 ? errno : EIO));
        p += n;
        size -= static_cast<std::size_t>(n);
    }
}

void OutputFile::commit()
{
    if (m_ownsFd) {
        // A full disk or a lost server may only show when the data is flushed.
        if (!m_temporary.empty() && ::fsync(m_fd) != 0)
            failed(std::strerror(errno));
        const int rc = ::close(m_fd);
        m_fd = -1;
        if (rc != 0)
            failed(std::strerror(errno));
    }
    if (!m_temporary.empty() && ::rename(m_temporary.c_str(), m_target.c_str()) != 0)
        failed(std::strerror(errno));
    m_committed = true;
}

void OutputFile::failed(const std::string& why) const
{
    fail(kExitFile, "cannot write " + m_name + ": " + why);
}

namespace {

struct Identity {
    dev_t device = 0;
    ino_t inode = 0;
    std::string name; // set when the file is not there yet: its folder, and this name in it
    bool known = false;
};

Identity identify(const PathUse& use)
{
    Identity id;
    struct stat st {};
    if (use.path == "-") {
        if (::fstat(use.written ? STDOUT_FILENO : STDIN_FILENO, &st) != 0)
            return id;
    } else {
        const fs::path path = use.written ? followLinks(use.path) : fs::path(use.path);
        if (::stat(path.c_str(), &st) != 0) {
            if (!use.written || path.filename().empty() || ::stat(folderOf(path).c_str(), &st) != 0)
                return id;
            id.name = path.filename().string();
        }
    }
    if (id.name.empty() && S_ISCHR(st.st_mode))
        return id;
    id.device = st.st_dev;
    id.inode = st.st_ino;
    id.known = true;
    return id;
}

std::string describe(const PathUse& use)
{
    if (use.path == "-")
        return use.role + (use.written ? " '-' (standard output)" : " '-' (standard input)");
    return use.role + " '" + use.path + "'";
}

} // namespace

void checkDistinct(const std::vector<PathUse>& uses)
{
    std::vector<Identity> ids;
    for (const PathUse& use : uses)
        ids.push_back(use.path.empty() ? Identity{} : identify(use));
    for (std::size_t b = 0; b < uses.size(); ++b) {
        for (std::size_t a = 0; a < b; ++a) {
            if (!ids[a].known || !ids[b].known || !(uses[a].written || uses[b].written))
                continue;
            if (ids[a].device == ids[b].device && ids[a].inode == ids[b].inode && ids[a].name == ids[b].name)
                fail(kExitFile, describe(uses[a]) + " and " + describe(uses[b]) +
                                    " are the same file; give each its own name");
        }
    }
}

SignalCleanup::SignalCleanup()
{
    struct sigaction action {};
    action.sa_handler = removeAndResend;
    sigemptyset(&action.sa_mask);
    for (std::size_t i = 0; i < std::size(kCleanupSignals); ++i) {
        ::sigaction(kCleanupSignals[i], nullptr, &g_previous[i]);
        g_replaced[i] = g_previous[i].sa_handler != SIG_IGN;
        if (g_replaced[i])
            ::sigaction(kCleanupSignals[i], &action, nullptr);
    }
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    ::sigaction(SIGPIPE, &ignore, &g_previousPipe);
}

SignalCleanup::~SignalCleanup()
{
    for (std::size_t i = 0; i < std::size(kCleanupSignals); ++i) {
        if (g_replaced[i])
            ::sigaction(kCleanupSignals[i], &g_previous[i], nullptr);
    }
    ::sigaction(SIGPIPE, &g_previousPipe, nullptr);
}

} // namespace qvdfx
