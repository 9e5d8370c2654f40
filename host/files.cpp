// Urls on the local file system: I/O detection, input streams, the resource folder.
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <mutex>
#include <system_error>

#include "host.h"
#include "kelvo/allocator.h"
#include "kelvo/io.h"

namespace kelvo::host {
namespace fs = std::filesystem;

namespace {
std::mutex g_rootMutex;
fs::path g_resourceRoot;
std::atomic<bool> g_inputsInterrupted{false};
static_assert(std::atomic<bool>::is_always_lock_free, "set from a signal handler");

// A file opened for reading. A regular file is read as it is; a pipe, FIFO or device is
// read only when poll() says that data (or its end) is there, in slices that let Ctrl-C
// and the stall limit end the wait: such a source may never send anything.
class FileInputStream final : public Implements<InputStream> {
public:
    FileInputStream(int fd, std::string url, bool regular, int64_t length)
        : _fd(fd), _url(std::move(url)), _regular(regular), _length(length) {}
    ~FileInputStream() override { ::close(_fd); }
    Result<size_t> Read(void* buffer, size_t size) override {
        if (size == 0) return size_t(0);
        auto stalled = std::chrono::steady_clock::now() + kInputStallLimit;
        for (;;) {
            if (!_regular) {
                if (g_inputsInterrupted.load())
                    return IoError(KELVO_HERE, _url, "Cannot read @: interrupted.", _url);
                pollfd wait{_fd, POLLIN, 0};
                const int ready = ::poll(&wait, 1, int(kInputWaitSlice.count()));
                if (ready < 0 && errno != EINTR) return Failed(errno);
                if (ready <= 0) {
                    if (std::chrono::steady_clock::now() > stalled)
                        return IoError(KELVO_HERE, _url,
                                       "Cannot read @: nothing arrived for @ seconds.", _url,
                                       int64_t(kInputStallLimit.count()));
                    continue;
                }
            }
            const ssize_t n = ::read(_fd, buffer, size);
            if (n >= 0) return size_t(n);
            if (errno != EINTR && errno != EAGAIN && errno != EWOULDBLOCK) return Failed(errno);
        }
    }
    int64_t Length() const override { return _length; }

private:
    Error Failed(int error) const {
        return IoError(KELVO_HERE, _url, "Cannot read @: @.", _url, FileProblem(_url, error));
    }

    int _fd;
    std::string _url;
    bool _regular;
    int64_t _length;
};

int IoDetectSlot(const Url& url) {
    fs::path p = LocalPath(url);
    if (p.empty()) return IODETECT_NONE;
    std::error_code ec;
    auto st = fs::status(p, ec);
    if (ec || !fs::exists(st)) return IODETECT_NONE;
    if (fs::is_regular_file(st)) return IODETECT_FILE;
    if (fs::is_directory(st)) return IODETECT_DIRECTORY;
    return IODETECT_UNKNOWN;
}

Result<StrongRef<InputStream>> OpenInputStreamSlot(const Url& url) {
    fs::path p = LocalPath(url);
    if (p.empty()) return IoError(KELVO_HERE, url.ToString(), "Cannot open @.", url.ToString());
    // Without blocking: a FIFO nobody writes to would hold open() itself forever.
    const int fd = ::open(p.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    if (fd < 0)
        return IoError(KELVO_HERE, url.ToString(), "Cannot open @: @.", url.ToString(),
                       FileProblem(p, errno));
    struct stat st {};
    const bool known = ::fstat(fd, &st) == 0;
    if (!known || !(S_ISREG(st.st_mode) || S_ISFIFO(st.st_mode) || S_ISCHR(st.st_mode) ||
                    S_ISSOCK(st.st_mode))) {
        const int error = known ? 0 : errno;
        ::close(fd);
        if (S_ISDIR(st.st_mode) || error)
            return IoError(KELVO_HERE, url.ToString(), "Cannot open @: @.", url.ToString(),
                           FileProblem(p, error ? error : EISDIR));
        return IoError(KELVO_HERE, url.ToString(),
                       "Cannot open @: it is neither a file nor a stream.", url.ToString());
    }
    const bool regular = S_ISREG(st.st_mode);
    if (regular) ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) & ~O_NONBLOCK);
    auto stream =
        NewObject<FileInputStream>(fd, url.ToString(), regular, regular ? int64_t(st.st_size) : -1);
    if (!stream) {
        ::close(fd);
        return stream.GetError();
    }
    return StrongRef<InputStream>(std::move(stream).Value());
}
}  // namespace

void InterruptInputs(bool interrupted) { g_inputsInterrupted.store(interrupted); }

void SetResourceRoot(const fs::path& folder) {
    std::lock_guard lock(g_rootMutex);
    g_resourceRoot = folder;
}
fs::path ResourceRoot() {
    std::lock_guard lock(g_rootMutex);
    return g_resourceRoot;
}

std::string FileProblem(const fs::path& path, int error) {
    std::error_code ec;
    if (!path.empty() && fs::is_directory(path, ec)) return "it is a directory";
    switch (error) {
        case ENOENT:
            if (!path.parent_path().empty() && !fs::exists(path.parent_path(), ec))
                return "its folder does not exist";
            return "no such file";
        case ENOTDIR:
            return "a parent is not a folder";
        case EACCES:
        case EPERM:
            return "permission denied";
        case ENOSPC:
        case EDQUOT:
            return "the disk is full";
        case EROFS:
            return "the file system is read-only";
        case EISDIR:
            return "it is a directory";
        case ELOOP:
            return "too many symbolic links";
        case ENAMETOOLONG:
            return "the name is too long";
        case EMFILE:
        case ENFILE:
            return "too many open files";
        case 0:
            return "unknown reason";
        default:
            return std::generic_category().message(error);
    }
}

fs::path LocalPath(const Url& url) {
    if (url.Scheme() == "file") return fs::path(url.Path());
    if (url.Scheme() == "relative") {
        fs::path root = ResourceRoot();
        return root.empty() ? fs::path() : root / fs::path(std::string(url.RelativePath()));
    }
    return {};
}

namespace detail {
void FillFileSlots(KelvoHostSlots& slots) {
    slots.IoDetect = &IoDetectSlot;
    slots.OpenInputStream = &OpenInputStreamSlot;
}
}  // namespace detail

}  // namespace kelvo::host
