// The media session: detects a file's format and imports or exports images through the
// file-format registries, whichever module registered the format.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "host.h"
#include "imagefiles.h"
#include "kelvo/io.h"
#include "kelvo/mediasession_output.h"
#include "kelvo/registry.h"

namespace kelvo::host {
namespace {
namespace fs = std::filesystem;

Result<Id> DetectFileFormatSlot(const Url& url) {
    for (const EntryRecord* e : RegistryMembers(kFileFormatsRegistry)) {
        if (e->kind != ENTRYKIND::CLASS || e->kindId != FileFormatInterface::InterfaceId())
            continue;
        KELVO_ASSIGN_OR_RETURN(StrongRef<FileFormatInterface> format,
                               CreateClass<FileFormatInterface>(e->GetId()));
        KELVO_ASSIGN_OR_RETURN(bool found, format->Detect(url));
        if (found) return e->GetId();
    }
    return Id();
}

// The first handler of the format with an import (or export) step; empty when none.
Result<StrongRef<FileFormatHandlerInterface>> FindHandler(const Id& format, bool import) {
    for (const EntryRecord* e : RegistryMembers(kFileFormatHandlersRegistry)) {
        if (e->kind != ENTRYKIND::CLASS || e->kindId != FileFormatHandlerInterface::InterfaceId())
            continue;
        KELVO_ASSIGN_OR_RETURN(auto h, CreateClass<FileFormatHandlerInterface>(e->GetId()));
        if (h->GetFileFormat() != format) continue;
        if (!(import ? h->GetImportClass() : h->GetExportClass()).IsEmpty()) return h;
    }
    return StrongRef<FileFormatHandlerInterface>();
}

// A temporary copy of a source that can be read only once, removed with the object.
struct Spool {
    fs::path path;
    Spool() = default;
    Spool(const Spool&) = delete;
    ~Spool() {
        std::error_code ec;
        if (!path.empty()) fs::remove(path, ec);
    }
};

// A pipe or device (a picture piped to /dev/stdin) yields its bytes once, but detection and
// import each open the source: such a source is copied to a temporary file first, within
// the pixel budget.
Result<void> SpoolOnce(const Url& url, Spool& spool) {
    fs::path source = LocalPath(url);
    std::error_code ec;
    if (source.empty()) return OK();
    fs::file_status st = fs::status(source, ec);
    if (ec || fs::is_regular_file(st) || fs::is_directory(st) || !fs::exists(st)) return OK();
    KELVO_ASSIGN_OR_RETURN(StrongRef<InputStream> in, OpenInputStream(url));
    fs::path folder = fs::temp_directory_path(ec);
    if (ec) folder = "/tmp";
    std::string name = (folder / "kelvo-import-XXXXXX").string();
    int fd = ::mkstemp(name.data());
    if (fd < 0)
        return IoError(KELVO_HERE, url.ToString(), "Cannot read @: @.", url.ToString(),
                       FileProblem(name, errno));
    spool.path = name;
    std::FILE* out = ::fdopen(fd, "wb");
    if (!out) {
        ::close(fd);
        return Error::OutOfMemory();
    }
    const uint64_t limit = detail::MaxImageBytes();
    uint64_t total = 0;
    std::vector<char> buffer(1 << 16);
    int error = 0;
    for (;;) {
        Result<size_t> n = in->Read(buffer.data(), buffer.size());
        if (!n) {
            std::fclose(out);
            return n.GetError();
        }
        if (*n == 0) break;
        total += *n;
        if (total > limit) {
            std::fclose(out);
            return IoError(KELVO_HERE, url.ToString(),
                           "Cannot read @: it holds more than @ bytes (@).", url.ToString(), limit,
                           detail::kMaxImageBytesVariable);
        }
        if (std::fwrite(buffer.data(), 1, *n, out) != *n) {
            error = errno;
            break;
        }
    }
    if (std::fclose(out) != 0 && !error) error = errno;
    if (error)
        return IoError(KELVO_HERE, url.ToString(), "Cannot read @: @ (copying to @).",
                       url.ToString(), FileProblem(spool.path, error), spool.path.string());
    return OK();
}

// Errors of the copy's import name the source the caller gave.
Error Renamed(const Error& e, const std::string& from, const std::string& to) {
    std::string message = e.Message();
    for (size_t at = message.find(from); at != std::string::npos; at = message.find(from, at))
        message.replace(at, from.size(), to), at += to.size();
    return Error(e.Kind(), e.Location(), message, e.Url() == from ? to : e.Url());
}

Result<StrongRef<ImageInterface>> ImportFromSource(const Url& url);

Result<StrongRef<ImageInterface>> ImportImageSlot(const Url& url) {
    Spool spool;
    KELVO_TRY(SpoolOnce(url, spool));
    if (spool.path.empty()) return ImportFromSource(url);
    Url copy = Url::FromFile(spool.path.string());
    Result<StrongRef<ImageInterface>> image = ImportFromSource(copy);
    if (!image) return Renamed(image.GetError(), copy.ToString(), url.ToString());
    KELVO_TRY((*image)->SetProperty(kImagePropertyUrl, url));
    return image;
}

Result<StrongRef<ImageInterface>> ImportFromSource(const Url& url) {
    KELVO_ASSIGN_OR_RETURN(Id format, DetectFileFormatSlot(url));
    if (format.IsEmpty())
        return UnsupportedArgumentError(KELVO_HERE, "No file format recognises @.", url.ToString());
    KELVO_ASSIGN_OR_RETURN(auto handler, FindHandler(format, true));
    if (!handler)
        return UnsupportedArgumentError(KELVO_HERE, "No file format handler imports @.", format);
    KELVO_ASSIGN_OR_RETURN(auto step, CreateClass<MediaImportInterface>(handler->GetImportClass()));
    KELVO_ASSIGN_OR_RETURN(StrongRef<ImageInterface> image, step->Import(url));
    if (!image || image->GetLayerCount() < 1)
        return UnexpectedError(KELVO_HERE, "The import of @ gave no image.", url.ToString());
    KELVO_TRY(image->SetProperty(kImagePropertyFileFormat, format));
    KELVO_TRY(image->SetProperty(kImagePropertyUrl, url));
    return image;
}

Result<void> ExportImageSlot(const Url& url, const ImageInterface& image, const Id& format,
                             const DataDictionary& options) {
    Id chosen = format;
    if (chosen.IsEmpty()) {
        for (const EntryRecord* e : RegistryMembers(kFileFormatsRegistry)) {
            if (e->kind != ENTRYKIND::CLASS || e->kindId != FileFormatInterface::InterfaceId())
                continue;
            KELVO_ASSIGN_OR_RETURN(auto f, CreateClass<FileFormatInterface>(e->GetId()));
            if (!f->MatchesSuffix(url)) continue;
            KELVO_ASSIGN_OR_RETURN(auto writer, FindHandler(e->GetId(), false));
            if (writer) {
                chosen = e->GetId();
                break;
            }
        }
    }
    StrongRef<FileFormatHandlerInterface> handler;
    if (!chosen.IsEmpty()) {
        KELVO_ASSIGN_OR_RETURN(handler, FindHandler(chosen, false));
    }
    if (!handler)
        return UnsupportedArgumentError(
            KELVO_HERE, "No file format writes @.",
            format.IsEmpty() ? url.ToString() : std::string(format.Text()));
    KELVO_ASSIGN_OR_RETURN(auto step, CreateClass<MediaExportInterface>(handler->GetExportClass()));
    return step->Export(url, image, options);
}

}  // namespace

namespace detail {
void FillMediaSessionSlots(KelvoHostSlots& slots) {
    slots.DetectFileFormat = &DetectFileFormatSlot;
    slots.ImportImage = &ImportImageSlot;
    slots.ExportImage = &ExportImageSlot;
}
}  // namespace detail

}  // namespace kelvo::host
