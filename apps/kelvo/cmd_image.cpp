// kelvo image info / convert: pictures through the file-format registry, so that every
// format a module registers opens here as the host's own do.
#include <iostream>

#include "cli_common.h"
#include "commands.h"
#include "kelvo/mediasession_output.h"
#include "kelvo/registry.h"
#include "picture_writer.h"

namespace kelvo::cli {
namespace {

std::string FormatName(const Id& format) {
    auto f = CreateClass<FileFormatInterface>(format);
    return f ? std::string((*f)->GetName()) : std::string();
}

Result<StrongRef<ImageInterface>> Open(const std::string& file) {
    KELVO_ASSIGN_OR_RETURN(Url url, Url::FromText(file));
    return ImportImage(url);
}

// Headers only, where the format can: a picture's size should not cost its pixels.
Result<void> Info(const std::string& file, bool json) {
    KELVO_ASSIGN_OR_RETURN(Url url, Url::FromText(file));
    KELVO_ASSIGN_OR_RETURN(ImageInfo info, ReadImageInfo(url));
    if (json) {
        JsonWriter w;
        w.Object().Key("file").String(file).Key("format").String(info.format.Text());
        w.Key("formatName").String(FormatName(info.format));
        w.Key("width").Integer(info.width).Key("height").Integer(info.height);
        w.Key("layers").Array();
        for (const ImageInfo::Layer& layer : info.layers) {
            w.Object().Key("pixelFormat").String(layer.format.Name());
            w.Key("bitsPerPixel").Integer(layer.format.GetBitsPerPixel());
            w.Key("colorProfile").String(ColorProfileName(layer.profile)).End();
        }
        w.End().End();
        std::cout << w.Text() << '\n';
        return OK();
    }
    std::cout << "file: " << file << '\n'
              << "format: " << info.format.Text() << " (" << FormatName(info.format) << ")\n"
              << "size: " << info.width << " x " << info.height << '\n'
              << "layers: " << info.layers.size() << '\n';
    for (size_t i = 0; i < info.layers.size(); ++i) {
        const ImageInfo::Layer& layer = info.layers[i];
        std::cout << "layer " << i << ": " << layer.format.Name() << " ("
                  << layer.format.GetBitsPerPixel() << " bits per pixel), "
                  << ColorProfileName(layer.profile) << '\n';
    }
    return OK();
}

// The whole picture is read before the output is written, so converting a file over
// itself is safe. The output holds what the tool writes everywhere: linear floats in
// OpenEXR, sRGB in the others.
Result<void> Convert(const std::string& in, const std::string& out, const std::string& format,
                     bool half) {
    KELVO_ASSIGN_OR_RETURN(StrongRef<ImageInterface> image, Open(in));
    PictureOptions options;
    options.half = half;
    if (!format.empty()) {
        KELVO_ASSIGN_OR_RETURN(options.format, Id::FromText(format));
    }
    return WritePicture(out, *image, options);
}

}  // namespace

void AddImageCommand(CLI::App& app, Context& context, int& status) {
    auto* cmd = app.add_subcommand("image", "Read pictures through the file-format registry");
    cmd->require_subcommand(1);

    auto* info = cmd->add_subcommand(
        "info", "Size, layers, pixel format, colour profile and detected format of a picture");
    auto* file = info->add_option("FILE", "Picture file or url")->required();
    auto json = std::make_shared<bool>(false);
    info->add_flag("--json", *json, "Answer as one JSON object");
    info->callback([&context, &status, file, json] {
        RunCommand(context, status, [&] { return Info(file->as<std::string>(), *json); });
    });

    auto* convert = cmd->add_subcommand(
        "convert",
        "Read a picture in any registered format and write it as PNG, TIFF or OpenEXR "
        "(chosen by the output's suffix): OpenEXR as linear floats, the others as sRGB");
    auto* in = convert->add_option("IN", "Picture to read")->required();
    auto* out = convert->add_option("OUT", "File to write (.png, .tif, .tiff, .exr)")->required();
    auto* format =
        convert->add_option("--format", "File format id to write, instead of the suffix");
    auto half = std::make_shared<bool>(false);
    convert->add_flag("--half", *half, "OpenEXR: store 16-bit half floats");
    convert->callback([&context, &status, in, out, format, half] {
        std::string f = format->count() ? format->as<std::string>() : std::string();
        RunCommand(context, status, [&] {
            return Convert(in->as<std::string>(), out->as<std::string>(), f, *half);
        });
    });
}

}  // namespace kelvo::cli
