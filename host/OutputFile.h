#pragma once
// Where qvdfx writes. A regular file (or a name not there yet) is written
// to a hidden temporary file beside it and renamed over it only once it is
// complete; a device or a pipe cannot be replaced, so it is written in
// place; "-" is standard output; a symlink is followed to its target.
// Temporary files are removed on any failure, and on SIGINT, SIGTERM or
// SIGHUP while a command runs.

#include <sys/types.h>

#include <string>
#include <vector>

namespace qvdfx {

class OutputFile {
public:
    // Opens the destination, so an unwritable place fails before any work.
    // `binary` refuses a terminal.
    OutputFile(const std::string& path, bool binary);
    ~OutputFile();
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    int fd() const { return m_fd; }
    // True when a writer may seek back and patch a header.
    bool seekable() const { return m_seekable; }
    // "'path'" or "standard output", for messages.
    const std::string& name() const { return m_name; }

    void write(const void* data, std::size_t size);
    void write(const std::string& bytes) { write(bytes.data(), bytes.size()); }
    // Flushes to disk and renames into place.
    void commit();
    [[noreturn]] void failed(const std::string& why) const;

private:
    std::string m_name;
    std::string m_target;
    std::string m_temporary; // empty when written in place
    int m_fd = -1;
    bool m_ownsFd = false;
    bool m_seekable = false;
    off_t m_stdoutStart = -1; // a regular file behind "-" is cut back to this on failure
    bool m_committed = false;
};

// One path a command reads or writes, with the role that names it in errors.
struct PathUse {
    std::string role; // "input", "output", "--meters", ...
    std::string path; // "-" is standard input or output
    bool written;
};

// Refuses any written path that is the same file (device and inode, after
// symlinks) as another path of the command, naming both. Empty paths are
// skipped, and so are character devices, which take any number of writers.
void checkDistinct(const std::vector<PathUse>& uses);

// Installs the signal cleanup for its lifetime and ignores SIGPIPE, so a
// closed pipe is a write error rather than a silent death. A signal that
// was ignored when the command started stays ignored.
class SignalCleanup {
public:
    SignalCleanup();
    ~SignalCleanup();
    SignalCleanup(const SignalCleanup&) = delete;
    SignalCleanup& operator=(const SignalCleanup&) = delete;
};

} // namespace qvdfx
