// kelvo texture: a picture's texture pyramids (mip map, rip map, summed area table) as the
// render module builds them, and samples through its filters.
#include <cstring>
#include <iostream>

#include "cli_common.h"
#include "commands.h"
#include "kelvo/mediasession_output.h"
#include "kelvo/registry.h"
#include "kelvo/texture.h"
#include "picture_writer.h"

namespace kelvo::cli {
namespace {
namespace fs = std::filesystem;

// Pixels of levels up to this many texels are listed by `pyramid --json`.
constexpr int64_t kListedTexels = 4096;

// The texture of a file, loaded through the module's texture cache (reached by id).
Result<StrongRef<TextureInterface>> LoadTexture(const std::string& file) {
    KELVO_ASSIGN_OR_RETURN(auto cache,
                           CreateClass<TextureManagementInterface>(kTextureManagementImplClass));
    KELVO_ASSIGN_OR_RETURN(auto sampler, cache->GetTexture(Url::FromFile(file), nullptr));
    return sampler->GetTexture();
}

const char* ChannelName(TEXTURECHANNEL c) {
    constexpr const char* names[] = {"uint8", "uint16", "float32", "uint32", "uint64"};
    return names[int(c)];
}

double ValueAt(const TextureLevelView& l, int64_t i) {
    switch (l.type) {
        case TEXTURECHANNEL::UINT8:
            return static_cast<const uint8_t*>(l.pixels)[i];
        case TEXTURECHANNEL::UINT16:
            return static_cast<const uint16_t*>(l.pixels)[i];
        case TEXTURECHANNEL::FLOAT32:
            return static_cast<const float*>(l.pixels)[i];
        case TEXTURECHANNEL::UINT32:
            return static_cast<const uint32_t*>(l.pixels)[i];
        case TEXTURECHANNEL::UINT64:
            return double(static_cast<const uint64_t*>(l.pixels)[i]);
    }
    return 0;
}

void WriteLevel(JsonWriter& w, const TextureLevelView& l, bool pixels) {
    w.Key("width").Integer(l.width).Key("height").Integer(l.height);
    if (!pixels || l.width * l.height > kListedTexels) return;
    w.Key("pixels").Array();
    for (int64_t p = 0; p < l.width * l.height; ++p) {
        w.Array();
        for (int c = 0; c < l.channels; ++c) {
            const int64_t i = p * l.channels + c;
            if (l.type == TEXTURECHANNEL::FLOAT32)
                w.Number(ValueAt(l, i));
            else if (l.type == TEXTURECHANNEL::UINT64)
                w.Raw(std::to_string(static_cast<const uint64_t*>(l.pixels)[i]));
            else
                w.Integer((long long)ValueAt(l, i));
        }
        w.End();
    }
    w.End();
}

// Builds what info reports; a summed area table that cannot exist is a note, not a failure.
Result<std::string> InfoText(const std::string& file, TextureInterface& t, bool json) {
    KELVO_TRY(t.Build(TEXTUREPYRAMID::MIPMAP));
    KELVO_TRY(t.Build(TEXTUREPYRAMID::RIPMAP));
    Result<void> sat = t.Build(TEXTUREPYRAMID::SUMMEDAREA);
    const int nx = t.GetRipLevelCountX(), ny = t.GetRipLevelCountY();
    if (json) {
        JsonWriter w;
        w.Object().Key("file").String(file).Key("width").Integer(t.GetWidth());
        w.Key("height")
            .Integer(t.GetHeight())
            .Key("storage")
            .String(TextureStorageName(t.GetStorage()));
        w.Key("profile").String(ColorProfileName(t.GetColorProfile()));
        w.Key("mip").Object().Key("bytes").Integer(t.GetByteSize(TEXTUREPYRAMID::MIPMAP));
        w.Key("levels").Array();
        for (int k = 0; k < t.GetMipLevelCount(); ++k) {
            w.Object();
            WriteLevel(w, t.GetMipLevel(k), false);
            w.End();
        }
        w.End().End();
        w.Key("rip").Object().Key("bytes").Integer(t.GetByteSize(TEXTUREPYRAMID::RIPMAP));
        w.Key("nx").Integer(nx).Key("ny").Integer(ny).Key("levels").Array();
        for (int j = 0; j < ny; ++j)
            for (int i = 0; i < nx; ++i) {
                w.Object().Key("x").Integer(i).Key("y").Integer(j);
                WriteLevel(w, t.GetRipLevel(i, j), false);
                w.End();
            }
        w.End().End().Key("sat").Object();
        if (sat) {
            w.Key("bytes").Integer(t.GetByteSize(TEXTUREPYRAMID::SUMMEDAREA));
            w.Key("entries").String(ChannelName(t.GetSummedArea().type));
        } else {
            w.Key("error").String(sat.GetError().Message());
        }
        return w.End().End().Text() + "\n";
    }
    std::string out = FormatMessage("@: @ x @, @ (@)\nmip map: @ levels, @ bytes\n", file,
                                    t.GetWidth(), t.GetHeight(), TextureStorageName(t.GetStorage()),
                                    ColorProfileName(t.GetColorProfile()), t.GetMipLevelCount(),
                                    t.GetByteSize(TEXTUREPYRAMID::MIPMAP));
    for (int k = 0; k < t.GetMipLevelCount(); ++k)
        out += FormatMessage("  @: @ x @\n", k, t.GetMipLevel(k).width, t.GetMipLevel(k).height);
    out += FormatMessage("rip map: @ x @ levels, @ bytes\n", nx, ny,
                         t.GetByteSize(TEXTUREPYRAMID::RIPMAP));
    for (int j = 0; j < ny; ++j) {
        out += " ";
        for (int i = 0; i < nx; ++i)
            out += FormatMessage(" @x@", t.GetRipLevel(i, j).width, t.GetRipLevel(i, j).height);
        out += "\n";
    }
    if (sat)
        out += FormatMessage("summed area table: @ entries, @ bytes\n",
                             ChannelName(t.GetSummedArea().type),
                             t.GetByteSize(TEXTUREPYRAMID::SUMMEDAREA));
    else
        out += "summed area table: none (" + sat.GetError().Message() + ")\n";
    return out;
}

TEXTUREPYRAMID PyramidOf(const std::string& kind) {
    return kind == "mip"   ? TEXTUREPYRAMID::MIPMAP
           : kind == "rip" ? TEXTUREPYRAMID::RIPMAP
                           : TEXTUREPYRAMID::SUMMEDAREA;
}

// The pixel format of a level. Integer levels are marked sRGB and float levels linear, the
// profiles TIFF files imply, so no value is converted on writing.
PixelFormat FormatOf(const TextureLevelView& l) {
    const CHANNELTYPE type = l.type == TEXTURECHANNEL::UINT8    ? CHANNELTYPE::UINT8
                             : l.type == TEXTURECHANNEL::UINT16 ? CHANNELTYPE::UINT16
                                                                : CHANNELTYPE::FLOAT32;
    return {uint8_t(l.channels), type};
}
COLORPROFILE ProfileOf(PixelFormat f) {
    return f.IsFloat() ? COLORPROFILE::LINEAR : COLORPROFILE::SRGB;
}

// An empty one-layer picture in a level's format, and a writer into it.
Result<std::pair<StrongRef<ImageInterface>, StrongRef<SetPixelHandlerInterface>>> Canvas(
    int64_t width, int64_t height, PixelFormat format) {
    KELVO_ASSIGN_OR_RETURN(auto image, CreateImage(width, height));
    KELVO_ASSIGN_OR_RETURN(auto layer, CreateImageLayer(width, height, format, ProfileOf(format)));
    KELVO_ASSIGN_OR_RETURN(auto writer, layer->SetPixelHandler(format, ProfileOf(format)));
    KELVO_TRY(image->AddLayer(layer));
    return std::make_pair(image, writer);
}

Result<void> Place(SetPixelHandlerInterface& writer, const TextureLevelView& l, int64_t x,
                   int64_t y) {
    const size_t row = size_t(l.width) * FormatOf(l).GetBytesPerPixel();
    for (int64_t r = 0; r < l.height; ++r)
        KELVO_TRY(writer.SetPixels(x, y + r, l.width,
                                   static_cast<const uint8_t*>(l.pixels) + row * size_t(r)));
    return OK();
}

// The level's own values, not the picture policy's: the file shows what the pyramid stores.
Result<void> WriteTiff(const fs::path& path, const TextureLevelView& l) {
    const PixelFormat format = FormatOf(l);
    PictureOptions options;
    options.format = Id("net.kelvo.fileformat.imagetiff");
    options.keepPixelFormat = true;
    return WritePicture(path.string(), {l.width, l.height, format, ProfileOf(format), l.pixels},
                        options);
}

Result<void> RunPyramid(const std::string& file, const std::string& kind, bool json,
                        const std::string& outDir) {
    if (kind != "mip" && kind != "rip" && kind != "sat")
        return IllegalArgumentError(KELVO_HERE, "--kind must be mip, rip or sat, not '@'.", kind);
    if (!outDir.empty() && kind == "sat")
        return IllegalArgumentError(KELVO_HERE, "--out writes mip and rip levels only.");
    KELVO_ASSIGN_OR_RETURN(auto t, LoadTexture(file));
    KELVO_TRY(t->Build(PyramidOf(kind)));
    std::vector<std::pair<std::string, TextureLevelView>> levels;
    if (kind == "mip")
        for (int k = 0; k < t->GetMipLevelCount(); ++k)
            levels.emplace_back(FormatMessage("mip_@", k), t->GetMipLevel(k));
    else if (kind == "rip")
        for (int j = 0; j < t->GetRipLevelCountY(); ++j)
            for (int i = 0; i < t->GetRipLevelCountX(); ++i)
                levels.emplace_back(FormatMessage("rip_@_@", i, j), t->GetRipLevel(i, j));
    else
        levels.emplace_back("sat", t->GetSummedArea());
    if (!outDir.empty()) {
        std::error_code ec;
        fs::create_directories(outDir, ec);
        if (ec) return IoError(KELVO_HERE, outDir, "Cannot create '@': @", outDir, ec.message());
        for (const auto& [name, level] : levels)
            KELVO_TRY(WriteTiff(fs::path(outDir) / (name + ".tif"), level));
    }
    if (json) {
        JsonWriter w;
        w.Object().Key("kind").String(kind).Key("storage").String(
            TextureStorageName(t->GetStorage()));
        w.Key("levels").Array();
        for (const auto& [name, level] : levels) {
            w.Object().Key("name").String(name);
            WriteLevel(w, level, true);
            w.End();
        }
        std::cout << w.End().End().Text() << '\n';
    } else if (outDir.empty()) {
        for (const auto& [name, level] : levels)
            std::cout << name << ": " << level.width << " x " << level.height << '\n';
    } else {
        std::cout << "kelvo texture pyramid: wrote " << levels.size() << " levels to " << outDir
                  << '\n';
    }
    return OK();
}

Result<TEXTUREMODE> ModeOf(const std::string& name) {
    constexpr std::pair<const char*, TEXTUREMODE> modes[] = {{"nearest", TEXTUREMODE::NEAREST},
                                                             {"bilinear", TEXTUREMODE::BILINEAR},
                                                             {"mip", TEXTUREMODE::MIPMAP},
                                                             {"rip", TEXTUREMODE::RIPMAP},
                                                             {"sat", TEXTUREMODE::SUMMEDAREA}};
    for (auto [n, m] : modes)
        if (name == n) return m;
    return IllegalArgumentError(KELVO_HERE,
                                "mode must be nearest, bilinear, mip, rip or sat, not '@'.", name);
}

Result<void> Sample(const TextureSamplerInterface& sampler, const nlohmann::json& request,
                    JsonWriter& w) {
    KELVO_ASSIGN_OR_RETURN(const std::string op, StringMember(request, "op"));
    if (op != "sample") return IllegalArgumentError(KELVO_HERE, "Unknown op '@'.", op);
    const nlohmann::json& modeJson = Member(request, "mode");
    TextureSampleOptions options;
    if (!modeJson.is_null()) {
        KELVO_ASSIGN_OR_RETURN(const std::string mode, ReadString(modeJson, "mode"));
        KELVO_ASSIGN_OR_RETURN(options.mode, ModeOf(mode));
    }
    const nlohmann::json& wrapJson = Member(request, "wrap");
    if (!wrapJson.is_null()) {
        KELVO_ASSIGN_OR_RETURN(const std::string wrap, ReadString(wrapJson, "wrap"));
        if (wrap != "repeat" && wrap != "clamp")
            return IllegalArgumentError(KELVO_HERE, "wrap must be repeat or clamp, not '@'.", wrap);
        options.wrap = wrap == "clamp" ? TEXTUREWRAP::CLAMP : TEXTUREWRAP::REPEAT;
    }
    KELVO_ASSIGN_OR_RETURN(options.srgbToLinear, BoolMember(request, "srgb", false));
    const nlohmann::json& uvJson = Member(request, "uv");
    if (uvJson.is_null()) return IllegalArgumentError(KELVO_HERE, "uv is missing.");
    KELVO_ASSIGN_OR_RETURN(const Vec2 uv, ReadVec2(uvJson, "uv"));
    TextureFootprint f;
    KELVO_ASSIGN_OR_RETURN(f.dudx, NumberMember(request, "dudx", 0.0));
    KELVO_ASSIGN_OR_RETURN(f.dvdx, NumberMember(request, "dvdx", 0.0));
    KELVO_ASSIGN_OR_RETURN(f.dudy, NumberMember(request, "dudy", 0.0));
    KELVO_ASSIGN_OR_RETURN(f.dvdy, NumberMember(request, "dvdy", 0.0));
    KELVO_ASSIGN_OR_RETURN(const Col4 c, sampler.ThreadedTextureSample(uv, f, options));
    w.Key("value").Array().Number(c.r).Number(c.g).Number(c.b).Number(c.a).End();
    return OK();
}

}  // namespace

// The mip chain side by side (level 0 first) above the rip grid, in the storage format.
Result<StrongRef<ImageInterface>> TextureSheet(TextureInterface& t) {
    KELVO_TRY(t.Build(TEXTUREPYRAMID::MIPMAP));
    KELVO_TRY(t.Build(TEXTUREPYRAMID::RIPMAP));
    constexpr int64_t kGap = 2;
    const int nx = t.GetRipLevelCountX(), ny = t.GetRipLevelCountY();
    std::vector<int64_t> columnX(size_t(nx) + 1, 0), rowY(size_t(ny) + 1, 0);
    for (int i = 0; i < nx; ++i)
        columnX[size_t(i) + 1] = columnX[size_t(i)] + t.GetRipLevel(i, 0).width + kGap;
    for (int j = 0; j < ny; ++j)
        rowY[size_t(j) + 1] = rowY[size_t(j)] + t.GetRipLevel(0, j).height + kGap;
    int64_t mipWidth = 0;
    for (int k = 0; k < t.GetMipLevelCount(); ++k) mipWidth += t.GetMipLevel(k).width + kGap;
    const int64_t top = t.GetHeight() + kGap;
    const int64_t width = std::max(mipWidth, columnX.back()) - kGap,
                  height = top + rowY.back() - kGap;
    KELVO_ASSIGN_OR_RETURN(auto canvas, Canvas(width, height, FormatOf(t.GetMipLevel(0))));
    auto place = [&](const TextureLevelView& l, int64_t at, int64_t y) {
        return Place(*canvas.second, l, at, y);
    };
    int64_t x = 0;
    for (int k = 0; k < t.GetMipLevelCount(); ++k) {
        KELVO_TRY(place(t.GetMipLevel(k), x, 0));
        x += t.GetMipLevel(k).width + kGap;
    }
    for (int j = 0; j < ny; ++j)
        for (int i = 0; i < nx; ++i)
            KELVO_TRY(place(t.GetRipLevel(i, j), columnX[size_t(i)], top + rowY[size_t(j)]));
    return canvas.first;
}

void AddTextureCommand(CLI::App& app, Context& context, int& status) {
    auto* texture = app.add_subcommand(
        "texture",
        "Texture pyramids (mip map, rip map, summed area table) of a picture, and samples");
    texture->require_subcommand(1);

    auto* info = texture->add_subcommand(
        "info", "Storage type, each pyramid's levels and sizes, and bytes per pyramid");
    auto infoFile = std::make_shared<std::string>();
    auto infoJson = std::make_shared<bool>(false);
    info->add_option("FILE", *infoFile, "The picture (any format the host or a module reads)")
        ->required();
    info->add_flag("--json", *infoJson, "Write the same as JSON");
    info->callback([&context, &status, infoFile, infoJson] {
        RunCommand(context, status, [&]() -> Result<void> {
            KELVO_ASSIGN_OR_RETURN(auto t, LoadTexture(*infoFile));
            KELVO_ASSIGN_OR_RETURN(std::string text, InfoText(*infoFile, *t, *infoJson));
            std::cout << text;
            return OK();
        });
    });

    auto* pyramid = texture->add_subcommand("pyramid", "The levels of one pyramid");
    auto pyramidFile = std::make_shared<std::string>();
    auto kind = std::make_shared<std::string>();
    auto pyramidJson = std::make_shared<bool>(false);
    auto outDir = std::make_shared<std::string>();
    pyramid->add_option("FILE", *pyramidFile, "The picture")->required();
    pyramid->add_option("--kind", *kind, "mip, rip or sat")->required();
    pyramid->add_flag("--json", *pyramidJson,
                      "Every level's width and height and, up to 4096 texels, its pixels as "
                      "stored (integers for 8/16-bit, floats for float storage, sums for sat)");
    pyramid->add_option(
        "--out", *outDir,
        "Write each level as TIFF in the storage type (mip_<i>.tif, rip_<i>_<j>.tif)");
    pyramid->callback([&context, &status, pyramidFile, kind, pyramidJson, outDir] {
        RunCommand(context, status,
                   [&] { return RunPyramid(*pyramidFile, *kind, *pyramidJson, *outDir); });
    });

    auto* sample = texture->add_subcommand(
        "sample",
        "Filtered values from JSON lines on stdin: {\"op\": \"sample\", \"mode\": "
        "\"nearest|bilinear|mip|rip|sat\", \"uv\": [u, v], \"dudx\": .., \"dvdx\": .., "
        "\"dudy\": .., \"dvdy\": .., \"wrap\": \"repeat|clamp\", \"srgb\": false}; answers add "
        "\"value\": [r, g, b, a]");
    auto sampleFile = std::make_shared<std::string>();
    sample->add_option("FILE", *sampleFile, "The picture")->required();
    sample->callback([&context, &status, sampleFile] {
        RunCommand(context, status, [&]() -> Result<void> {
            KELVO_ASSIGN_OR_RETURN(
                auto cache, CreateClass<TextureManagementInterface>(kTextureManagementImplClass));
            KELVO_ASSIGN_OR_RETURN(auto sampler,
                                   cache->GetTexture(Url::FromFile(*sampleFile), nullptr));
            KELVO_TRY(RunJsonLines(StandardInput(), std::cout,
                                   [&](const nlohmann::json& request, JsonWriter& answer) {
                                       return Sample(*sampler, request, answer);
                                   },
                                   {.nameKey = nullptr}));
            return OK();
        });
    });

    auto* sheet = texture->add_subcommand(
        "sheet", "A picture of the mip chain side by side above the rip grid");
    auto sheetFile = std::make_shared<std::string>();
    auto sheetOut = std::make_shared<std::string>();
    sheet->add_option("FILE", *sheetFile, "The picture")->required();
    sheet->add_option("-o,--out", *sheetOut, "The picture to write (.png, .tif, .exr)")->required();
    sheet->callback([&context, &status, sheetFile, sheetOut] {
        RunCommand(context, status, [&]() -> Result<void> {
            KELVO_ASSIGN_OR_RETURN(auto t, LoadTexture(*sheetFile));
            KELVO_ASSIGN_OR_RETURN(auto image, TextureSheet(*t));
            KELVO_TRY(WritePicture(*sheetOut, *image));
            std::cout << "kelvo texture sheet: wrote " << *sheetOut << '\n';
            return OK();
        });
    });
}

}  // namespace kelvo::cli
