// Urls on the local file system: I/O detection, input streams, the resource folder.
#include <cerrno>
#include <cstdio>
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

class FileInputStream final : public Implements<InputStream> {
public:
    FileInputStream(std::FILE* file, std::string url) : _file(file), _url(std::move(url)) {
        _length = -1;
        if (std::fseek(_file, 0, SEEK_END) == 0) {
            _length = std::ftell(_file);
            std::fseek(_file, 0, SEEK_SET);
        }
    }
    ~FileInputStream() override { std::fclose(_file); }
    Result<size_t> Read(void* buffer, size_t size) override {
        size_t n = std::fread(buffer, 1, size, _file);
        if (n < size && std::ferror(_file))
            return IoError(KELVO_HERE, _url, "Cannot read @.", _url);
        return n;
    }
    int64_t Length() const override { return _length; }

private:
    std::FILE* _file;
    std::string _url;
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
    std::error_code ec;
    errno = 0;
    std::FILE* f = fs::is_directory(p, ec) ? nullptr : std::fopen(p.c_str(), "rb");
    if (!f)
        return IoError(KELVO_HERE, url.ToString(), "Cannot open @: @.", url.ToString(),
                       FileProblem(p, errno));
    auto stream = NewObject<FileInputStream>(f, url.ToString());
    if (!stream) {
        std::fclose(f);
        return stream.GetError();
    }
    return StrongRef<InputStream>(std::move(stream).Value());
}
}  // namespace

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
